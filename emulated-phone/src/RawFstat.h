#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace emuphone {

// fstat as a raw system call: umockdev's preload would otherwise look the
// descriptor up in /proc first, and must not see the phone's own descriptors.
inline bool RawFstat(int fd, struct stat& st)
{
#ifdef SYS_fstat
    return syscall(SYS_fstat, fd, &st) == 0;
#else
    return syscall(SYS_newfstatat, fd, "", &st, AT_EMPTY_PATH) == 0;
#endif
}

} // namespace emuphone
