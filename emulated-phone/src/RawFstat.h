#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace emuphone {

// fstat as a raw system call: umockdev's preload would otherwise look the
// descriptor up in /proc first, and must not see the phone's own descriptors.
// statx, not fstat: its structure is the same on every architecture, while
// fstat's is the kernel's struct stat, which on 32-bit ARM is not glibc's.
// Fills the type and mode, the inode and both device numbers.
inline bool RawFstat(int fd, struct stat& st)
{
    struct statx found {};
    if (syscall(SYS_statx, fd, "", AT_EMPTY_PATH, STATX_TYPE | STATX_MODE | STATX_INO, &found) != 0)
        return false;
    st = {};
    st.st_mode = found.stx_mode;
    st.st_ino = found.stx_ino;
    st.st_dev = makedev(found.stx_dev_major, found.stx_dev_minor);
    st.st_rdev = makedev(found.stx_rdev_major, found.stx_rdev_minor);
    return true;
}

} // namespace emuphone
