#include "kesto-host/DeviceLister.h"

#include <gtest/gtest.h>

namespace {

DeviceLister::Device Device(int address, const char* serial, bool phone) {
    DeviceLister::Device d;
    d.bus = 1;
    d.address = address;
    d.phoneVendor = phone;
    d.stringsRead = true;
    d.serial = serial;
    return d;
}

DeviceLister::Device Phone(int address, const char* serial) { return Device(address, serial, true); }
DeviceLister::Device Keyboard(int address) { return Device(address, "KB1", false); }

// Which device the tool takes for the phone, or what it says when it cannot tell.
TEST(DeviceLister, ChoosesTheOnlyPhoneOrTheNamedSerialAndOtherwiseSaysWhy) {
    DeviceLister::Device accessory = Keyboard(9);
    accessory.accessoryMode = true;
    DeviceLister::Device unreadable = Phone(8, "");
    unreadable.stringsRead = false;
    DeviceLister::Device hub = Phone(1, "");
    hub.hub = true;
    const struct {
        std::vector<DeviceLister::Device> devices;
        std::string serial;
        int address;                 // 0: none chosen
        std::vector<std::string> errorParts;
    } cases[] = {
        {{Keyboard(2), Phone(5, "0A1B"), Keyboard(7)}, "", 5, {}},
        {{Keyboard(2), accessory}, "", 9, {}},
        {{Phone(5, "0A1B"), Phone(6, "9Z8Y")}, "9Z8Y", 6, {}},
        {{Phone(5, "0A1B"), Keyboard(7)}, "KB1", 7, {}},
        {{Phone(5, "0A1B"), Phone(6, "9Z8Y")}, "", 0, {"2 devices look like phones", "serial 0A1B", "serial 9Z8Y"}},
        {{Phone(5, "0A1B"), unreadable}, "9Z8Y", 0,
         {"no USB device has the serial number '9Z8Y'; the serial number of 1 device(s) could not be read "
          "(see the udev rules)"}},
        {{hub, Keyboard(2)}, "", 0, {"--bus and --address"}},
    };
    for (const auto& c : cases) {
        DeviceLister::Device chosen;
        std::string error;
        bool ok = DeviceLister::Choose(c.devices, c.serial, chosen, error);
        EXPECT_EQ(ok, c.address != 0) << error;
        if (ok) {
            EXPECT_EQ(chosen.address, c.address);
        }
        for (const std::string& part : c.errorParts) {
            EXPECT_NE(error.find(part), std::string::npos) << error;
        }
    }
}

} // namespace
