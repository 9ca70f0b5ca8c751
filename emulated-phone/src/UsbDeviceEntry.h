#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace emuphone {

// One USB device as sysfs and udev describe it, and where its node points.
struct UsbDeviceEntry {
    int bus = 1;
    int address = 0;
    int port = 0;
    int configuration = 1;          // 0: unconfigured
    std::vector<uint8_t> descriptors; // device descriptor, then configuration
    std::string speedMbps;
    uint16_t vendor = 0;
    uint16_t product = 0;
    std::string manufacturer;
    std::string productName;
    std::string serial;             // empty: the device has none
    std::string nodeTarget;         // what /dev/bus/usb/BBB/DDD links to

    std::string SysPath() const;    // /devices/usb1/1-<port>
    std::string Node() const;       // /dev/bus/usb/BBB/DDD
};

} // namespace emuphone
