#pragma once

#include "emulated-phone/EmulatedPhone.h"
#include "emulated-phone/PhoneOptions.h"

#include <deque>
#include <memory>
#include <string>

namespace emuphone {

class World;

// An emulated USB bus with phones on it, for the unmodified libusb.
//
// umockdev supplies sysfs, udev events and the device nodes; the usbfs requests
// on a node reach the phone's model either through umockdev's socket (any
// process under its preload) or, for libusb in this very process, through
// ioctl() and close() interposed by this library, which answers inline.
//
// Create the world before libusb_init (libusb scans sysfs and opens its udev
// monitor there) and destroy it after libusb_exit. One world per process:
// umockdev keeps its root in the environment.
class PhoneWorld {
public:
    enum class IoctlPath {
        // usbfs requests travel umockdev's socket: about 100-160 us each, and the
        // only path that reaches another process.
        Socket,
        // libusb in this process reaches the model through the interposed ioctl():
        // the executable must link this library and run under umockdev's preload.
        Interposed,
    };

    explicit PhoneWorld(IoctlPath path = IoctlPath::Interposed);
    ~PhoneWorld();
    PhoneWorld(const PhoneWorld&) = delete;
    PhoneWorld& operator=(const PhoneWorld&) = delete;

    // Plugs a phone in. Its device is in sysfs and announced when this returns.
    EmulatedPhone& AddPhone(const PhoneOptions& options = {});

    // umockdev's root, which it also exported as UMOCKDEV_DIR.
    std::string RootDir() const;
    IoctlPath Path() const;

    // Whether this process runs under umockdev's preload, which in-process use needs.
    static bool PreloadActive();

private:
    std::unique_ptr<World> world_;
    std::deque<EmulatedPhone> phones_;
};

} // namespace emuphone
