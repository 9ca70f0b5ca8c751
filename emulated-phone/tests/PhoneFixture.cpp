#include "PhoneFixture.h"

namespace emuphone {

const std::array<std::string, 6> PhoneFixture::kIdentity = {"Norvane", "AAPTest", "Norvane AAP Bearer",
                                                             "0.1", "https://example.invalid", "serial_number"};

void PhoneFixture::TearDown()
{
    host_.reset();
    world_.reset();
}

EmulatedPhone& PhoneFixture::Plug(const PhoneOptions& options)
{
    if (!world_)
        world_ = std::make_unique<PhoneWorld>(GetParam());
    return world_->AddPhone(options);
}

AccessoryHost& PhoneFixture::Host()
{
    if (!world_)
        world_ = std::make_unique<PhoneWorld>(GetParam());
    if (!host_)
        host_ = std::make_unique<AccessoryHost>();
    return *host_;
}

::testing::AssertionResult PhoneFixture::Switch(EmulatedPhone& phone)
{
    int address = phone.Address();
    if (int error = Host().Open(phone.BusNumber(), address))
        return ::testing::AssertionFailure() << "open: " << libusb_error_name(error);
    uint16_t version = 0;
    int error = Host().Switch(kIdentity, version);
    Host().Close();
    if (error)
        return ::testing::AssertionFailure() << "accessory requests: " << libusb_error_name(error);
    if (!Host().WaitUntilGone(address, kPatience))
        return ::testing::AssertionFailure() << "the phone never left address " << address;
    if (!phone.WaitFor(PhoneStage::AccessoryAttached, kPatience))
        return ::testing::AssertionFailure() << "the phone never came back";
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult PhoneFixture::OpenAccessory(EmulatedPhone& phone)
{
    if (!phone.WaitFor(PhoneStage::AccessoryAttached, kPatience))
        return ::testing::AssertionFailure() << "the phone is not in accessory mode";
    if (int error = Host().Open(phone.BusNumber(), phone.Address()))
        return ::testing::AssertionFailure() << "open: " << libusb_error_name(error);
    if (int error = Host().ClaimAccessory())
        return ::testing::AssertionFailure() << "claim: " << libusb_error_name(error);
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult PhoneFixture::Connect(EmulatedPhone& phone)
{
    if (!phone.Report().Reached(PhoneStage::AccessoryAttached)) {
        ::testing::AssertionResult switched = Switch(phone);
        if (!switched)
            return switched;
    }
    ::testing::AssertionResult opened = OpenAccessory(phone);
    if (!opened)
        return opened;
    if (int error = Host().Handshake(kTimeoutMs))
        return ::testing::AssertionFailure() << "handshake: " << libusb_error_name(error);
    return ::testing::AssertionSuccess();
}

std::string PathName(const ::testing::TestParamInfo<PhoneWorld::IoctlPath>& info)
{
    return info.param == PhoneWorld::IoctlPath::Socket ? "Socket" : "Interposed";
}

} // namespace emuphone
