// The shapes a phone can take on the bus, as libusb parses them.
#include "PhoneFixture.h"

namespace emuphone {
namespace {

class PhoneLayout : public PhoneFixture {
protected:
    EmulatedPhone& Accessory(PhoneOptions options)
    {
        options.startInAccessoryMode = true;
        EmulatedPhone& phone = Plug(options);
        EXPECT_TRUE(OpenAccessory(phone));
        return phone;
    }
};

TEST_P(PhoneLayout, DebugBridgeListedFirstPutsTheAccessoryOnInterfaceOne)
{
    PhoneOptions options;
    options.debugBridgeFirst = true;
    Accessory(options);
    EXPECT_EQ(1, Host().Interface());
    EXPECT_EQ(0x82, Host().In());
    EXPECT_EQ(0x02, Host().Out());
    EXPECT_EQ(0, Host().Handshake(kTimeoutMs));
}

TEST_P(PhoneLayout, AccessoryWithoutDebugBridgeIs2D00WithOneInterface)
{
    PhoneOptions options;
    options.debugBridge = false;
    Accessory(options);
    libusb_config_descriptor* config = nullptr;
    ASSERT_EQ(0, libusb_get_active_config_descriptor(libusb_get_device(Handle()), &config));
    EXPECT_EQ(1, config->bNumInterfaces);
    libusb_free_config_descriptor(config);
    libusb_device_descriptor descriptor{};
    libusb_get_device_descriptor(libusb_get_device(Handle()), &descriptor);
    EXPECT_EQ(0x2D00, descriptor.idProduct);
}

TEST_P(PhoneLayout, OutEndpointListedFirstStillPairsTheRightEndpoints)
{
    PhoneOptions options;
    options.outEndpointFirst = true;
    Accessory(options);
    libusb_config_descriptor* config = nullptr;
    ASSERT_EQ(0, libusb_get_active_config_descriptor(libusb_get_device(Handle()), &config));
    EXPECT_EQ(0x01, config->interface[0].altsetting[0].endpoint[0].bEndpointAddress);
    EXPECT_EQ(0x81, config->interface[0].altsetting[0].endpoint[1].bEndpointAddress);
    libusb_free_config_descriptor(config);
    EXPECT_EQ(0, Host().Handshake(kTimeoutMs));
}

TEST_P(PhoneLayout, SuperSpeedPhoneHas1024BytePackets)
{
    PhoneOptions options;
    options.superSpeed = true;
    Accessory(options);
    libusb_device* device = libusb_get_device(Handle());
    EXPECT_EQ(LIBUSB_SPEED_SUPER, libusb_get_device_speed(device));
    EXPECT_EQ(1024, libusb_get_max_packet_size(device, 0x81));
}

TEST_P(PhoneLayout, PhoneWithoutSerialHasNoSerialStringInEitherMode)
{
    PhoneOptions options;
    options.serial.reset();
    EmulatedPhone& phone = Plug(options);
    ASSERT_TRUE(Switch(phone));
    auto accessory = Host().WaitForDevice(
        [](const AccessoryHost::Device& d) { return d.vendor == AccessoryHost::kAccessoryVendor; }, kPatience);
    ASSERT_TRUE(accessory);
    EXPECT_EQ("", accessory->serial);
    libusb_device_descriptor descriptor{};
    ASSERT_EQ(0, Host().Open(accessory->bus, accessory->address));
    libusb_get_device_descriptor(libusb_get_device(Handle()), &descriptor);
    EXPECT_EQ(0, descriptor.iSerialNumber);
}

INSTANTIATE_FOR_BOTH_PATHS(PhoneLayout);

} // namespace
} // namespace emuphone
