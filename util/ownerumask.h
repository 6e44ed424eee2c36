#pragma once

#include <sys/stat.h>

/// As long as it lives, files and folders are created with their owner's rights, whatever umask(2) the process has
/// inherited; what the umask takes from others stays taken. The inherited umask, which the restarted application
/// is to get, is back at its end. The umask belongs to the process: for programs of one thread.
class OwnerUmask
{
public:
    OwnerUmask()
        : inherited(::umask(0))
    {
        ::umask(inherited & ~mode_t(S_IRWXU));
    }
    ~OwnerUmask() { ::umask(inherited); }
    OwnerUmask(const OwnerUmask &) = delete;
    OwnerUmask &operator=(const OwnerUmask &) = delete;

private:
    const mode_t inherited;
};
