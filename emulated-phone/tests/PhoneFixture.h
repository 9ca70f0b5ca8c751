#pragma once

#include "AccessoryHost.h"

#include "emulated-phone/PhoneWorld.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <memory>
#include <string>

namespace emuphone {

// A world with phones in it and a libusb host, over either ioctl path. The
// world comes first and libusb second, as they must; both go after each test.
class PhoneFixture : public ::testing::TestWithParam<PhoneWorld::IoctlPath> {
protected:
    static const std::array<std::string, 6> kIdentity;
    static constexpr std::chrono::milliseconds kPatience{2000};
    static constexpr unsigned int kTimeoutMs = 2000;

    void TearDown() override;

    EmulatedPhone& Plug(const PhoneOptions& options = {});
    AccessoryHost& Host();

    // The phone in normal mode is opened, asked for its version, given the
    // identity strings and told to start; then it must leave and come back.
    ::testing::AssertionResult Switch(EmulatedPhone& phone);
    // The accessory-mode phone opened and its accessory interface claimed.
    ::testing::AssertionResult OpenAccessory(EmulatedPhone& phone);
    // Switched if need be, opened, claimed and past both handshakes.
    ::testing::AssertionResult Connect(EmulatedPhone& phone);

    libusb_device_handle* Handle() { return Host().Handle(); }

private:
    std::unique_ptr<PhoneWorld> world_;
    std::unique_ptr<AccessoryHost> host_;
};

// Names the two ioctl paths in test names.
std::string PathName(const ::testing::TestParamInfo<PhoneWorld::IoctlPath>& info);

#define INSTANTIATE_FOR_BOTH_PATHS(Suite)                                                                     \
    INSTANTIATE_TEST_SUITE_P(, Suite,                                                                        \
                             ::testing::Values(PhoneWorld::IoctlPath::Socket, PhoneWorld::IoctlPath::Interposed), \
                             PathName)

} // namespace emuphone
