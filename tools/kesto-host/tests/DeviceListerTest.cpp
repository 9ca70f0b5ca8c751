#include "kesto-host/DeviceLister.h"

#include <gtest/gtest.h>

namespace {

DeviceLister::Device Phone(int address, const char* serial) {
    DeviceLister::Device d;
    d.bus = 1;
    d.address = address;
    d.vendor = 0x18D1;
    d.product = 0x4EE7;
    d.phoneVendor = true;
    d.stringsRead = true;
    d.serial = serial;
    return d;
}

DeviceLister::Device Keyboard(int address) {
    DeviceLister::Device d;
    d.bus = 1;
    d.address = address;
    d.vendor = 0x046D;
    d.product = 0xC31C;
    d.stringsRead = true;
    d.serial = "KB1";
    return d;
}

struct Choice {
    bool ok;
    DeviceLister::Device device;
    std::string error;
};

Choice Choose(const std::vector<DeviceLister::Device>& devices, const std::string& serial = "") {
    Choice c;
    c.ok = DeviceLister::Choose(devices, serial, c.device, c.error);
    return c;
}

TEST(DeviceLister, OnlyPhoneAmongPeripheralsIsChosen) {
    Choice c = Choose({Keyboard(2), Phone(5, "0A1B"), Keyboard(7)});
    ASSERT_TRUE(c.ok) << c.error;
    EXPECT_EQ(c.device.address, 5);
}

TEST(DeviceLister, PhoneAlreadyInAccessoryModeCountsAsAPhone) {
    DeviceLister::Device accessory = Keyboard(9);
    accessory.vendor = 0x18D1;
    accessory.product = 0x2D01;
    accessory.accessoryMode = true;
    Choice c = Choose({Keyboard(2), accessory});
    ASSERT_TRUE(c.ok) << c.error;
    EXPECT_EQ(c.device.address, 9);
}

TEST(DeviceLister, TwoPhonesNeedASelectorAndTheErrorNamesBoth) {
    Choice c = Choose({Phone(5, "0A1B"), Phone(6, "9Z8Y")});
    EXPECT_FALSE(c.ok);
    EXPECT_NE(c.error.find("2 devices look like phones"), std::string::npos) << c.error;
    EXPECT_NE(c.error.find("serial 0A1B"), std::string::npos) << c.error;
    EXPECT_NE(c.error.find("serial 9Z8Y"), std::string::npos) << c.error;
}

TEST(DeviceLister, SerialPicksAmongSeveralPhonesAndAnyDevice) {
    EXPECT_EQ(Choose({Phone(5, "0A1B"), Phone(6, "9Z8Y")}, "9Z8Y").device.address, 6);
    EXPECT_EQ(Choose({Phone(5, "0A1B"), Keyboard(7)}, "KB1").device.address, 7);
}

TEST(DeviceLister, UnknownSerialMentionsDevicesThatCouldNotBeRead) {
    DeviceLister::Device locked = Phone(8, "");
    locked.stringsRead = false;
    Choice c = Choose({Phone(5, "0A1B"), locked}, "9Z8Y");
    EXPECT_FALSE(c.ok);
    EXPECT_EQ(c.error, "no USB device has the serial number '9Z8Y'; the serial number of 1 device(s) "
                       "could not be read (see the udev rules)");
}

TEST(DeviceLister, NoPhoneAtAllSaysHowToNameOne) {
    DeviceLister::Device hub = Phone(1, "");
    hub.hub = true;
    Choice c = Choose({hub, Keyboard(2)});
    EXPECT_FALSE(c.ok);
    EXPECT_NE(c.error.find("--bus and --address"), std::string::npos) << c.error;
}

} // namespace
