#include "kesto-host/DeviceLister.h"

#include <algorithm>

#include <libusb.h>

#include "kesto-host/PhoneMakers.h"

namespace {

constexpr uint16_t kAccessoryVendor = 0x18D1;
// Accessory modes: 0x2D00 to 0x2D05, with and without audio and the debug bridge.
constexpr uint16_t kAccessoryFirstProduct = 0x2D00;
constexpr uint16_t kAccessoryLastProduct = 0x2D05;

const PhoneMaker* FindMaker(uint16_t vendor) {
    for (const PhoneMaker& maker : kPhoneMakers) {
        if (maker.vendor == vendor) {
            return &maker;
        }
    }
    return nullptr;
}

bool IsDebugBridge(const libusb_interface_descriptor& alt) {
    return alt.bInterfaceClass == 0xFF && alt.bInterfaceSubClass == 0x42 && alt.bInterfaceProtocol == 0x01;
}

bool HasDebugBridge(libusb_device* device) {
    libusb_config_descriptor* config = nullptr;
    if (libusb_get_active_config_descriptor(device, &config) != 0 &&
        libusb_get_config_descriptor(device, 0, &config) != 0) {
        return false;
    }
    bool found = false;
    for (int i = 0; i < config->bNumInterfaces && !found; ++i) {
        const libusb_interface& interface = config->interface[i];
        for (int a = 0; a < interface.num_altsetting && !found; ++a) {
            found = IsDebugBridge(interface.altsetting[a]);
        }
    }
    libusb_free_config_descriptor(config);
    return found;
}

// False when the device has the string but would not give it.
bool StringDescriptor(libusb_device_handle* handle, uint8_t index, std::string& out) {
    unsigned char text[256];
    int n = index != 0 ? libusb_get_string_descriptor_ascii(handle, index, text, sizeof text) : 0;
    out = n > 0 ? std::string(reinterpret_cast<char*>(text), static_cast<size_t>(n)) : std::string();
    return n >= 0;
}

DeviceLister::Device Inspect(libusb_device* device, const libusb_device_descriptor& descriptor) {
    DeviceLister::Device d;
    d.bus = libusb_get_bus_number(device);
    d.address = libusb_get_device_address(device);
    d.vendor = descriptor.idVendor;
    d.product = descriptor.idProduct;
    d.hub = descriptor.bDeviceClass == LIBUSB_CLASS_HUB;
    d.accessoryMode = d.vendor == kAccessoryVendor && d.product >= kAccessoryFirstProduct &&
                      d.product <= kAccessoryLastProduct;
    const PhoneMaker* maker = FindMaker(d.vendor);
    d.maker = maker != nullptr ? maker->name : "";
    d.phoneVendor = maker != nullptr && maker->onlyPhones;
    d.debugBridge = !d.hub && HasDebugBridge(device);
    libusb_device_handle* handle = nullptr;
    if (!d.hub && libusb_open(device, &handle) == 0) {
        d.stringsRead = StringDescriptor(handle, descriptor.iSerialNumber, d.serial);
        StringDescriptor(handle, descriptor.iManufacturer, d.manufacturer);
        StringDescriptor(handle, descriptor.iProduct, d.productName);
        libusb_close(handle);
    }
    return d;
}

} // namespace

bool DeviceLister::Enumerate(std::vector<Device>& devices, std::string& error) {
    libusb_context* context = nullptr;
    int rc = libusb_init(&context);
    if (rc != 0) {
        error = "libusb cannot start: " + LibusbResult(rc);
        return false;
    }
    libusb_device** list = nullptr;
    ssize_t count = libusb_get_device_list(context, &list);
    if (count < 0) {
        error = "cannot list USB devices: " + LibusbResult(static_cast<int>(count));
        libusb_exit(context);
        return false;
    }
    for (ssize_t i = 0; i < count; ++i) {
        libusb_device_descriptor descriptor{};
        if (libusb_get_device_descriptor(list[i], &descriptor) == 0) {
            devices.push_back(Inspect(list[i], descriptor));
        }
    }
    libusb_free_device_list(list, 1);
    libusb_exit(context);
    std::sort(devices.begin(), devices.end(), [](const Device& a, const Device& b) {
        return a.bus != b.bus ? a.bus < b.bus : a.address < b.address;
    });
    return true;
}

std::string DeviceLister::LibusbResult(int code) {
    return std::string(libusb_error_name(code)) + " (" + std::to_string(code) + ")";
}

std::string DeviceLister::Describe(const Device& device) {
    char ids[16];
    std::snprintf(ids, sizeof ids, "%04x:%04x", device.vendor, device.product);
    std::string text = "bus " + std::to_string(device.bus) + " address " + std::to_string(device.address) + " (" +
                       ids + ", ";
    if (!device.stringsRead) {
        text += "serial unknown, ";
    } else if (!device.serial.empty()) {
        text += "serial " + device.serial + ", ";
    }
    return text + (device.accessoryMode ? "accessory mode)" : "normal mode)");
}

namespace {

std::string DescribeAll(const std::vector<const DeviceLister::Device*>& devices) {
    std::string text;
    for (const DeviceLister::Device* device : devices) {
        text += (text.empty() ? "" : "; ") + DeviceLister::Describe(*device);
    }
    return text;
}

} // namespace

bool DeviceLister::Choose(const std::vector<Device>& devices, const std::string& serial, Device& chosen,
                          std::string& error) {
    std::vector<const Device*> matches;
    size_t unreadable = 0;
    for (const Device& device : devices) {
        if (device.hub) {
            continue;
        }
        unreadable += device.stringsRead ? 0 : 1;
        if (serial.empty() ? device.LooksLikePhone() : device.stringsRead && device.serial == serial) {
            matches.push_back(&device);
        }
    }
    if (matches.size() == 1) {
        chosen = *matches.front();
        return true;
    }
    if (matches.size() > 1) {
        error = std::to_string(matches.size()) +
                (serial.empty() ? " devices look like phones: " : " devices have serial " + serial + ": ") +
                DescribeAll(matches) + "; choose one with " + (serial.empty() ? "--serial or " : "") +
                "--bus and --address";
    } else if (!serial.empty()) {
        error = "no USB device has the serial number '" + serial + "'";
        if (unreadable > 0) {
            error += "; the serial number of " + std::to_string(unreadable) +
                     " device(s) could not be read (see the udev rules)";
        }
    } else {
        error = "no phone found; connect one, or name the device with --bus and --address "
                "('kesto-host list --all' shows every device)";
    }
    return false;
}

void DeviceLister::Print(const std::vector<Device>& devices, bool all, FILE* out) {
    std::fprintf(out, "%-4s %-4s %-9s  %-9s  %-20s  %s\n", "BUS", "ADDR", "ID", "MODE", "SERIAL", "NAME");
    bool anyUnread = false;
    bool anyListed = false;
    for (const Device& d : devices) {
        if (d.hub || !(all || d.LooksLikePhone())) {
            continue;
        }
        anyUnread = anyUnread || !d.stringsRead;
        anyListed = true;
        const char* mode = d.accessoryMode ? "accessory" : d.LooksLikePhone() ? "normal" : "-";
        std::string serial = !d.stringsRead ? "?" : d.serial.empty() ? "-" : d.serial;
        std::string separator = d.manufacturer.empty() || d.productName.empty() ? "" : " ";
        std::string name = d.manufacturer + separator + d.productName;
        if (name.empty()) {
            name = d.maker;
        }
        if (d.debugBridge) {
            name += " [debug bridge]";
        }
        std::fprintf(out, "%4d %4d %04x:%04x  %-9s  %-20s  %s\n", d.bus, d.address, d.vendor, d.product, mode,
                     serial.c_str(), name.c_str());
    }
    if (!anyListed) {
        std::fprintf(stderr, "no phones found%s\n", all ? "" : " ('kesto-host list --all' shows every device)");
    }
    if (anyUnread) {
        std::fprintf(stderr, "?: the device's serial number could not be read; without root "
                             "this needs the udev rules (see README)\n");
    }
}
