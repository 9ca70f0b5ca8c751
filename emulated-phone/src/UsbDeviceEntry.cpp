#include "UsbDeviceEntry.h"

#include <cstdio>

namespace emuphone {

std::string UsbDeviceEntry::SysPath() const
{
    return "/devices/usb" + std::to_string(bus) + "/" + std::to_string(bus) + "-" + std::to_string(port);
}

std::string UsbDeviceEntry::Node() const
{
    char node[32];
    std::snprintf(node, sizeof node, "/dev/bus/usb/%03d/%03d", bus, address);
    return node;
}

} // namespace emuphone
