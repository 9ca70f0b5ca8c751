#pragma once

namespace emuphone {

// What an ioctl returns to its caller: a value, or -1 with an errno.
struct IoctlResult {
    int value = 0;
    int error = 0;

    static IoctlResult Ok(int value = 0) { return {value, 0}; }
    static IoctlResult Fail(int error) { return {-1, error}; }
};

} // namespace emuphone
