#pragma once

#include "DeviceFunction.h"
#include "DeviceLayout.h"
#include "IoctlResult.h"
#include "LinkClock.h"
#include "ReadinessPty.h"
#include "Scheduler.h"
#include "Urb.h"
#include "UsbfsMemory.h"

#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <set>

namespace emuphone {

// One enumeration of a device as usbfs presents it: the requests libusb makes
// on /dev/bus/usb/BBB/DDD, answered the way the kernel answers them, with the
// device's traffic handed to its DeviceFunction.
//
// Open files are told apart by a key from the transport (the descriptor, or
// umockdev's client). Claims and reapable URBs belong to a file, as in usbfs.
// All state is guarded by the bus lock: Ioctl and CloseFile take it, the other
// operations expect it held.
class UsbfsDevice : public std::enable_shared_from_this<UsbfsDevice> {
public:
    UsbfsDevice(std::mutex& busLock, Scheduler& scheduler, DeviceLayout layout, DeviceFunction& function,
                const LinkModel& link, int address, int configuration);

    IoctlResult Ioctl(uint64_t file, unsigned long request, UsbfsMemory& memory);
    // The file was closed: its URBs are dropped and its claims released.
    void CloseFile(uint64_t file);

    // The URB is done on the wire with `status` and urb->actual bytes; the
    // host sees it complete once the link has carried it.
    void Finish(const std::shared_ptr<Urb>& urb, int status);
    // The endpoint answers STALL until CLEAR_HALT: its URBs end with -EPIPE.
    void Halt(uint8_t endpoint);
    // Unplug: URBs in flight end with `urbStatus`, every request but REAP
    // fails with ENODEV, and the node hangs up.
    void Disconnect(int urbStatus);

    bool Connected() const { return connected_; }
    const DeviceLayout& Layout() const { return layout_; }
    int Configuration() const { return configuration_; }
    const ReadinessPty& Readiness() const { return pty_; }

private:
    struct OpenFile {
        uint32_t claimed = 0; // bit per interface, as usbfs keeps it
        std::deque<std::shared_ptr<Urb>> completed;
    };
    using Handler = IoctlResult (UsbfsDevice::*)(uint64_t key, OpenFile& file, UsbfsMemory& memory);

    static Handler HandlerFor(unsigned long request);
    IoctlResult GetCapabilities(uint64_t key, OpenFile& file, UsbfsMemory& memory);
    IoctlResult SubmitUrb(uint64_t key, OpenFile& file, UsbfsMemory& memory);
    IoctlResult ReapUrb(uint64_t key, OpenFile& file, UsbfsMemory& memory);
    IoctlResult DiscardUrb(uint64_t key, OpenFile& file, UsbfsMemory& memory);
    IoctlResult SetConfiguration(uint64_t key, OpenFile& file, UsbfsMemory& memory);
    IoctlResult ClaimInterface(uint64_t key, OpenFile& file, UsbfsMemory& memory);
    IoctlResult ReleaseInterface(uint64_t key, OpenFile& file, UsbfsMemory& memory);
    IoctlResult DisconnectClaim(uint64_t key, OpenFile& file, UsbfsMemory& memory);
    IoctlResult SetInterface(uint64_t key, OpenFile& file, UsbfsMemory& memory);
    IoctlResult ClearHalt(uint64_t key, OpenFile& file, UsbfsMemory& memory);
    IoctlResult GetDriver(uint64_t key, OpenFile& file, UsbfsMemory& memory);
    IoctlResult DriverIoctl(uint64_t key, OpenFile& file, UsbfsMemory& memory);
    IoctlResult ConnectInfo(uint64_t key, OpenFile& file, UsbfsMemory& memory);
    IoctlResult GetSpeed(uint64_t key, OpenFile& file, UsbfsMemory& memory);
    IoctlResult Reset(uint64_t key, OpenFile& file, UsbfsMemory& memory);

    int CheckUrb(const Urb& urb) const;
    int CheckControlUrb(const Urb& urb) const;
    int UseInterface(uint64_t key, OpenFile& file, int interface);
    int Claim(uint64_t key, OpenFile& file, int interface);
    void Release(uint64_t key, OpenFile& file, int interface);
    bool ClaimedByOther(uint64_t key, int interface) const;
    bool ClaimedByAny(int interface) const;
    void KillUrbs(uint64_t key, int interface, int status);
    void ClearHalts(int interface);
    void Complete(const std::shared_ptr<Urb>& urb);

    std::mutex& busLock_;
    Scheduler& scheduler_;
    DeviceLayout layout_;
    DeviceFunction& function_;
    LinkClock link_;
    ReadinessPty pty_;
    int address_;
    int configuration_;
    bool connected_ = true;
    std::map<uint64_t, OpenFile> files_;
    std::list<std::shared_ptr<Urb>> inFlight_; // InFlight and Finishing
    std::set<uint8_t> halted_;
    size_t reapable_ = 0;
};

} // namespace emuphone
