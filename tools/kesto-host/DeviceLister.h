#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

// Finds the USB devices that could be phones, with a libusb context of its own
// that is gone again before the plug-in opens anything.
class DeviceLister {
public:
    struct Device {
        int bus = 0;
        int address = 0;
        uint16_t vendor = 0;
        uint16_t product = 0;
        bool stringsRead = false;  // false: no permission to open it, or it refused the request
        std::string serial;
        std::string manufacturer;
        std::string productName;
        bool accessoryMode = false;
        bool debugBridge = false;  // exposes the Android debug-bridge interface
        std::string maker;         // the maker's name when the vendor id is in the makers' list
        bool phoneVendor = false;  // a maker whose vendor id is used for phones and tablets only
        bool hub = false;

        bool LooksLikePhone() const { return accessoryMode || debugBridge || phoneVendor; }
    };

    // Every USB device on the machine; false with a reason when libusb cannot start.
    static bool Enumerate(std::vector<Device>& devices, std::string& error);
    // The phone to use: the one with this serial when serial is not empty,
    // otherwise the only one that looks like a phone. False with a reason.
    static bool Choose(const std::vector<Device>& devices, const std::string& serial, Device& chosen,
                       std::string& error);
    // One line per device, phones only unless all; hubs never.
    static void Print(const std::vector<Device>& devices, bool all, FILE* out);
    static std::string Describe(const Device& device);
    // A libusb result as its name and number: "LIBUSB_ERROR_NO_DEVICE (-4)".
    static std::string LibusbResult(int code);
};
