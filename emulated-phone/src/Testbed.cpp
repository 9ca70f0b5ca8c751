#include "Testbed.h"

#include "ListenerGate.h"

#include <umockdev.h>

#include <cstdio>
#include <stdexcept>
#include <unistd.h>

namespace emuphone {
namespace {

// usb_device character devices: major 189, minor (bus - 1) * 128 + (address - 1).
constexpr int kUsbDeviceMajor = 189;
constexpr int kAddressesPerBus = 128;
// What sysfs shows for a Linux USB 2.0 root hub (1d6b:0002): its device
// descriptor and its configuration with the hub's one interrupt endpoint.
constexpr char kRootHubDescriptors[] =
    "12010002090001406B1D020006010302010109021900010100E0000904000001090000000705810304000C";

std::string Hex(const std::vector<uint8_t>& bytes)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string text;
    for (uint8_t b : bytes) {
        text += digits[b >> 4];
        text += digits[b & 0x0F];
    }
    return text;
}

std::string HexWord(uint16_t value)
{
    char text[8];
    std::snprintf(text, sizeof text, "%04x", value);
    return text;
}

// Attribute values in umockdev's record format escape backslashes and newlines.
std::string Escaped(const std::string& value)
{
    std::string text;
    for (char c : value) {
        if (c == '\\')
            text += "\\\\";
        else if (c == '\n')
            text += "\\n";
        else
            text += c;
    }
    return text;
}

// A text attribute as sysfs shows it: newline-terminated, or empty for a
// value the kernel does not have (no configuration set).
std::string Attribute(const std::string& name, const std::string& value)
{
    return "A: " + name + "=" + Escaped(value) + (value.empty() ? "" : "\\n") + "\n";
}

std::string DevNumber(int bus, int address)
{
    return std::to_string(kUsbDeviceMajor) + ":" + std::to_string((bus - 1) * kAddressesPerBus + address - 1);
}

std::string Record(const UsbDeviceEntry& e)
{
    char numbers[64];
    std::snprintf(numbers, sizeof numbers, "E: BUSNUM=%03d\nE: DEVNUM=%03d\n", e.bus, e.address);
    std::string r = "P: " + e.SysPath() + "\nE: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\nE: DEVNAME=" + e.Node() +
                    "\n" + numbers;
    r += Attribute("busnum", std::to_string(e.bus)) + Attribute("devnum", std::to_string(e.address));
    r += Attribute("devpath", std::to_string(e.port)) + Attribute("speed", e.speedMbps);
    r += Attribute("bConfigurationValue", e.configuration ? std::to_string(e.configuration) : "");
    r += Attribute("bNumConfigurations", "1") + Attribute("maxchild", "0");
    r += Attribute("dev", DevNumber(e.bus, e.address));
    r += Attribute("idVendor", HexWord(e.vendor)) + Attribute("idProduct", HexWord(e.product));
    r += Attribute("manufacturer", e.manufacturer) + Attribute("product", e.productName);
    if (!e.serial.empty())
        r += Attribute("serial", e.serial);
    return r + "H: descriptors=" + Hex(e.descriptors) + "\n";
}

// Sends "add" once the device is complete.
void AddFromString(UMockdevTestbed* testbed, const std::string& record)
{
    GError* error = nullptr;
    bool added;
    {
        std::lock_guard<std::mutex> turn(ListenerGate::Turn());
        added = umockdev_testbed_add_from_string(testbed, record.c_str(), &error);
    }
    if (!added) {
        std::string message = error ? error->message : "unknown error";
        g_clear_error(&error);
        throw std::runtime_error("emulated phone: umockdev refused a device: " + message);
    }
}

UMockdevTestbed* NewTestbed()
{
    // GLib makes a few descriptors that live as long as the process the first
    // time they are needed: the default main context and GTask's thread pool.
    // umockdev's worker thread would make them at a moment of its own, after a
    // test may already have counted the process's descriptors.
    g_main_context_default();
    g_type_ensure(G_TYPE_TASK);
    ListenerGate::Install();
    return umockdev_testbed_new();
}

} // namespace

Testbed::Testbed() : testbed_(NewTestbed())
{
    gchar* root = umockdev_testbed_get_root_dir(testbed_);
    root_ = root;
    g_free(root);
    AddRootHub();
}

Testbed::~Testbed() { g_object_unref(testbed_); }

void Testbed::AddRootHub()
{
    rootHubNode_ = std::make_unique<ReadinessPty>();
    LinkNode(root_ + "/dev/bus/usb/001/001", rootHubNode_->SlavePath());
    std::string record = "P: /devices/usb1\nE: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\n"
                         "E: DEVNAME=/dev/bus/usb/001/001\nE: BUSNUM=001\nE: DEVNUM=001\n" +
                         Attribute("busnum", "1") + Attribute("devnum", "1") + Attribute("speed", "480") +
                         Attribute("bConfigurationValue", "1") + Attribute("maxchild", "8") +
                         Attribute("idVendor", "1d6b") + Attribute("idProduct", "0002") +
                         Attribute("dev", DevNumber(1, 1)) + "H: descriptors=" + kRootHubDescriptors + "\n";
    AddFromString(testbed_, record);
}

void Testbed::LinkNode(const std::string& node, const std::string& target)
{
    std::string directory = node.substr(0, node.rfind('/'));
    if (g_mkdir_with_parents(directory.c_str(), 0755) != 0)
        throw std::runtime_error("emulated phone: cannot create " + directory);
    unlink(node.c_str());
    if (symlink(target.c_str(), node.c_str()) != 0)
        throw std::runtime_error("emulated phone: cannot link " + node);
}

void Testbed::AddUsbDevice(const UsbDeviceEntry& entry)
{
    std::lock_guard<std::mutex> hold(lock_);
    LinkNode(root_ + entry.Node(), entry.nodeTarget);
    AddFromString(testbed_, Record(entry));
}

void Testbed::RemoveUsbDevice(const UsbDeviceEntry& entry)
{
    std::lock_guard<std::mutex> hold(lock_);
    std::string path = "/sys" + entry.SysPath();
    {
        std::lock_guard<std::mutex> turn(ListenerGate::Turn());
        umockdev_testbed_uevent(testbed_, path.c_str(), "remove");
    }
    umockdev_testbed_remove_device(testbed_, path.c_str());
}

void Testbed::SetAttribute(const std::string& sysPath, const std::string& name, const std::string& value)
{
    std::string path = "/sys" + sysPath;
    std::string line = value.empty() ? value : value + "\n";
    std::lock_guard<std::mutex> hold(lock_);
    umockdev_testbed_set_attribute(testbed_, path.c_str(), name.c_str(), line.c_str());
}

} // namespace emuphone
