#pragma once

#include <sys/stat.h>

/// While it exists, the umask takes no rights from the owner of files and folders that are created.
/// What the inherited umask takes from the group and from others, it still takes. The destructor
/// sets the inherited umask again, for the restarted application. See umask(2).
///
/// The umask belongs to the process: only for programs of one thread.
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
