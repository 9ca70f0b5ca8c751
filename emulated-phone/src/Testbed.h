#pragma once

#include "ReadinessPty.h"
#include "UsbDeviceEntry.h"

#include <memory>
#include <mutex>
#include <string>

typedef struct _UMockdevTestbed UMockdevTestbed;

namespace emuphone {

// umockdev's testbed with one root hub: the sysfs tree, the udev events and the
// device nodes an unmodified libusb finds. Creating it exports UMOCKDEV_DIR,
// which libusb_init must already see. umockdev's testbed is not thread-safe:
// changes go through here one at a time, from the test's thread and the timers'.
class Testbed {
public:
    Testbed();
    ~Testbed();
    Testbed(const Testbed&) = delete;
    Testbed& operator=(const Testbed&) = delete;

    std::string Root() const { return root_; }
    // For attaching ioctl handlers; callers serialise through Lock().
    UMockdevTestbed* Handle() { return testbed_; }
    std::mutex& Lock() { return lock_; }

    // Links the node to entry.nodeTarget, writes every attribute, then sends "add".
    void AddUsbDevice(const UsbDeviceEntry& entry);
    // Sends "remove" while the attributes are still there to read, then removes
    // the device and its node.
    void RemoveUsbDevice(const UsbDeviceEntry& entry);
    void SetAttribute(const std::string& sysPath, const std::string& name, const std::string& value);

private:
    void AddRootHub();
    void LinkNode(const std::string& node, const std::string& target);

    std::mutex lock_;
    UMockdevTestbed* testbed_ = nullptr;
    std::string root_;
    // The root hub's node: libusb takes a device it cannot open for one that
    // has gone and drops it from its list, parent of every phone though it is.
    // Its requests go to umockdev's default handler.
    std::unique_ptr<ReadinessPty> rootHubNode_;
};

} // namespace emuphone
