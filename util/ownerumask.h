#pragma once

#include <sys/stat.h>

/// While it exists, files and folders are created for their owner: the umask takes no rights from
/// the owner, and from the group and from others it takes the right to write and what the inherited
/// umask takes. The destructor sets the inherited umask again, for the restarted application. See
/// umask(2).
///
/// The umask belongs to the process: only for programs of one thread.
class OwnerUmask
{
public:
    OwnerUmask()
        : inherited(::umask(0))
    {
        ::umask((inherited & ~mode_t(S_IRWXU)) | S_IWGRP | S_IWOTH);
    }
    ~OwnerUmask() { ::umask(inherited); }
    OwnerUmask(const OwnerUmask &) = delete;
    OwnerUmask &operator=(const OwnerUmask &) = delete;

private:
    const mode_t inherited;
};
