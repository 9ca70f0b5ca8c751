#pragma once

#include "UsbfsDevice.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <sys/types.h>
#include <unordered_map>

namespace emuphone {

// Routes this process's ioctl() and close() calls on emulated device nodes to
// their devices, inline on the caller's thread. A descriptor is recognised by
// the device number of the pty its node points at; everything else goes on to
// umockdev's preload and the C library untouched.
class IoctlInterposer {
public:
    static IoctlInterposer& Instance();

    // Throws when the executable does not export the interposed functions.
    void Register(dev_t rdev, std::shared_ptr<UsbfsDevice> device);
    // New descriptors no longer reach the device; open ones still do.
    void Unregister(dev_t rdev);

private:
    IoctlInterposer() = default;
    static int OnIoctl(int fd, unsigned long request, void* argument, int* result);
    static void OnClose(int fd);
    std::shared_ptr<UsbfsDevice> DeviceFor(int fd);

    std::mutex lock_;
    std::unordered_map<dev_t, std::shared_ptr<UsbfsDevice>> byRdev_;
    std::unordered_map<int, std::shared_ptr<UsbfsDevice>> byFd_;
    std::atomic<bool> active_{false};
};

} // namespace emuphone
