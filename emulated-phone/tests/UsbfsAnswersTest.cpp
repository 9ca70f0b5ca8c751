// The emulated usbfs answers libusb as the kernel does, where libusb (and so
// the plug-in) branches on the answer.
#include "PhoneFixture.h"

namespace emuphone {
namespace {

using namespace std::chrono_literals;

class UsbfsAnswers : public PhoneFixture {
protected:
    // A phone in accessory mode, opened but with nothing claimed.
    EmulatedPhone& OpenedAccessory(PhoneOptions options = {})
    {
        options.startInAccessoryMode = true;
        EmulatedPhone& phone = Plug(options);
        EXPECT_TRUE(Host().WaitForAccessory("EMULATED0001", kPatience));
        EXPECT_EQ(0, Host().Open(phone.BusNumber(), phone.Address()));
        return phone;
    }
};

TEST_P(UsbfsAnswers, ClaimingAnInterfaceTheDeviceDoesNotHaveIsNotFound)
{
    OpenedAccessory();
    EXPECT_EQ(LIBUSB_ERROR_NOT_FOUND, libusb_claim_interface(Handle(), 5));
}

TEST_P(UsbfsAnswers, SettingTheConfigurationWhileAnInterfaceIsClaimedIsBusy)
{
    OpenedAccessory();
    ASSERT_EQ(0, libusb_claim_interface(Handle(), 0));
    EXPECT_EQ(LIBUSB_ERROR_BUSY, libusb_set_configuration(Handle(), 1));
    ASSERT_EQ(0, libusb_release_interface(Handle(), 0));
    EXPECT_EQ(0, libusb_set_configuration(Handle(), 1));
}

TEST_P(UsbfsAnswers, NoKernelDriverIsBoundSoThereIsNoneToDetach)
{
    OpenedAccessory();
    EXPECT_EQ(0, libusb_kernel_driver_active(Handle(), 0));
    EXPECT_EQ(LIBUSB_ERROR_NOT_FOUND, libusb_detach_kernel_driver(Handle(), 0));
}

TEST_P(UsbfsAnswers, UnconfiguredAccessoryHasNoInterfacesUntilConfigurationOneIsSet)
{
    PhoneOptions options;
    options.accessoryUnconfigured = true;
    OpenedAccessory(options);
    int configuration = -1;
    ASSERT_EQ(0, libusb_get_configuration(Handle(), &configuration));
    EXPECT_EQ(0, configuration);
    EXPECT_EQ(LIBUSB_ERROR_NOT_FOUND, libusb_claim_interface(Handle(), 0));
    ASSERT_EQ(0, libusb_set_configuration(Handle(), 1));
    ASSERT_EQ(0, libusb_get_configuration(Handle(), &configuration));
    EXPECT_EQ(1, configuration);
    EXPECT_EQ(0, libusb_claim_interface(Handle(), 0));
}

TEST_P(UsbfsAnswers, ReadOnAnInterfaceNobodyClaimedIsServedButCountedAgainstTheHost)
{
    PhoneOptions options;
    options.sendHandshake = false;
    EmulatedPhone& phone = OpenedAccessory(options);
    unsigned char byte = 0;
    int transferred = 0;
    EXPECT_EQ(LIBUSB_ERROR_TIMEOUT, libusb_bulk_transfer(Handle(), 0x81, &byte, 1, &transferred, 50));
    EXPECT_EQ(1, phone.Report().unclaimedSubmissions);
}

TEST_P(UsbfsAnswers, TimedOutReadIsDiscardedAndReportedAsATimeOut)
{
    PhoneOptions options;
    options.sendHandshake = false;
    EmulatedPhone& phone = OpenedAccessory(options);
    ASSERT_EQ(0, libusb_claim_interface(Handle(), 0));
    unsigned char byte = 0;
    int transferred = 0;
    // libusb cancels a timed-out transfer and reports the time-out once usbfs gives it back.
    EXPECT_EQ(LIBUSB_ERROR_TIMEOUT, libusb_bulk_transfer(Handle(), 0x81, &byte, 1, &transferred, 30));
    EXPECT_EQ(1, phone.Report().discardedTransfers);
}

TEST_P(UsbfsAnswers, StalledEndpointFailsReadsUntilTheHaltIsCleared)
{
    PhoneOptions options;
    options.stallEndpoint = PhoneOptions::Endpoint::In;
    options.stallAt = PhoneStage::AccessoryAttached;
    EmulatedPhone& phone = OpenedAccessory(options);
    ASSERT_TRUE(OpenAccessory(phone));
    std::vector<uint8_t> bytes;
    EXPECT_EQ(LIBUSB_ERROR_PIPE, Host().Read(bytes, 512, kTimeoutMs));
    ASSERT_EQ(0, libusb_clear_halt(Handle(), Host().In()));
    ASSERT_EQ(0, Host().Read(bytes, 512, kTimeoutMs));
    EXPECT_EQ(std::vector<uint8_t>(AccessoryHost::kPhoneHandshake.begin(), AccessoryHost::kPhoneHandshake.end()),
              bytes);
}

TEST_P(UsbfsAnswers, FailedVendorRequestIsAnErrorOnceAndThenAnswered)
{
    PhoneOptions options;
    options.controlFaults = {{51, 1, -EPROTO}};
    EmulatedPhone& phone = Plug(options);
    ASSERT_EQ(0, Host().Open(phone.BusNumber(), phone.Address()));
    uint16_t version = 0;
    EXPECT_EQ(LIBUSB_ERROR_IO, Host().QueryProtocol(version));
    EXPECT_EQ(0, Host().QueryProtocol(version));
    EXPECT_EQ(2, version);
}

TEST_P(UsbfsAnswers, UnansweredStartRequestTimesOutAndLeavesThePhoneWhereItWas)
{
    PhoneOptions options;
    options.controlFaults = {{53, 1, 0}};
    EmulatedPhone& phone = Plug(options);
    ASSERT_EQ(0, Host().Open(phone.BusNumber(), phone.Address()));
    EXPECT_EQ(LIBUSB_ERROR_TIMEOUT,
              libusb_control_transfer(Handle(), LIBUSB_ENDPOINT_OUT | LIBUSB_REQUEST_TYPE_VENDOR, 53, 0, 0, nullptr,
                                      0, 50));
    EXPECT_FALSE(phone.Report().Reached(PhoneStage::StartRequested));
}

TEST_P(UsbfsAnswers, VendorRequestThePhoneDoesNotKnowStalls)
{
    EmulatedPhone& phone = Plug();
    ASSERT_EQ(0, Host().Open(phone.BusNumber(), phone.Address()));
    unsigned char reply[2];
    EXPECT_EQ(LIBUSB_ERROR_PIPE, libusb_control_transfer(Handle(), LIBUSB_ENDPOINT_IN | LIBUSB_REQUEST_TYPE_VENDOR,
                                                         58, 0, 0, reply, sizeof reply, kTimeoutMs));
}

INSTANTIATE_FOR_BOTH_PATHS(UsbfsAnswers);

} // namespace
} // namespace emuphone
