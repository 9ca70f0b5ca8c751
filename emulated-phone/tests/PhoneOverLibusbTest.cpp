// A phone's life as the unmodified libusb sees it: enumeration, the switch,
// the handshake, the stream, and the cable pulled.
#include "PhoneFixture.h"

#include "emulated-phone/StreamPattern.h"

#include <thread>

namespace emuphone {
namespace {

using namespace std::chrono_literals;

class PhoneLife : public PhoneFixture {};

uint64_t PatternHash(uint64_t length)
{
    std::vector<uint8_t> bytes(length);
    StreamPattern::Fill(0, bytes.data(), bytes.size());
    return StreamPattern::Hash(StreamPattern::kHashSeed, bytes.data(), bytes.size());
}

TEST_P(PhoneLife, PhoneInNormalModeShowsItsIdsAndSerialAtItsAddress)
{
    EmulatedPhone& phone = Plug();
    auto found = Host().WaitForDevice([](const AccessoryHost::Device& d) { return d.serial == "EMULATED0001"; },
                                      kPatience);
    ASSERT_TRUE(found);
    EXPECT_EQ(0x1209, found->vendor);
    EXPECT_EQ(0x0001, found->product);
    EXPECT_EQ(phone.Address(), found->address);
}

TEST_P(PhoneLife, StartRequestBringsThePhoneBackAsAccessoryWithTheSameSerialAtANewAddress)
{
    EmulatedPhone& phone = Plug();
    int before = phone.Address();
    ASSERT_TRUE(Switch(phone));
    auto accessory = Host().WaitForAccessory("EMULATED0001", kPatience);
    ASSERT_TRUE(accessory);
    EXPECT_EQ(0x2D01, accessory->product);
    EXPECT_NE(before, accessory->address);
    EXPECT_EQ(phone.Address(), accessory->address);
    PhoneReport report = phone.Report();
    EXPECT_EQ(1, report.versionQueries);
    EXPECT_EQ(1, report.startRequests);
    for (size_t i = 0; i < kIdentity.size(); ++i)
        EXPECT_EQ(kIdentity[i], report.identity[i].value_or("(missing)")) << "identity string " << i;
}

TEST_P(PhoneLife, AccessoryHandshakesThenEchoesEveryByte)
{
    EmulatedPhone& phone = Plug();
    ASSERT_TRUE(Connect(phone));
    ASSERT_TRUE(phone.WaitFor(PhoneStage::HandshakeDone, kPatience));
    AccessoryHost::EchoResult echo = Host().Echo(1 << 20, 16384, 2);
    ASSERT_EQ(0, echo.error) << echo.problem;
    ASSERT_TRUE(phone.WaitUntil([](const PhoneReport& r) { return r.bytesToHost == (1u << 20); }, kPatience));
    PhoneReport report = phone.Report();
    EXPECT_EQ(1u << 20, report.bytesFromHost);
    EXPECT_EQ(PatternHash(1 << 20), report.hashFromHost);
    EXPECT_EQ(0, report.unclaimedSubmissions);
}

TEST_P(PhoneLife, UnplugDuringAReadEndsItWithNoDeviceAndLaterCallsFail)
{
    PhoneOptions options;
    options.startInAccessoryMode = true;
    options.sendHandshake = false;
    EmulatedPhone& phone = Plug(options);
    ASSERT_TRUE(OpenAccessory(phone));
    std::vector<uint8_t> buffer(16384);
    int status = -1;
    libusb_transfer* read = libusb_alloc_transfer(0);
    libusb_fill_bulk_transfer(
        read, Handle(), Host().In(), buffer.data(), static_cast<int>(buffer.size()),
        [](libusb_transfer* t) { *static_cast<int*>(t->user_data) = t->status; }, &status, 0);
    ASSERT_EQ(0, libusb_submit_transfer(read));
    timeval slice{0, 20000};
    libusb_handle_events_timeout_completed(Host().Context(), &slice, nullptr);
    ASSERT_EQ(-1, status) << "the silent phone answered the read";

    int address = phone.Address();
    auto pulled = std::chrono::steady_clock::now();
    phone.Unplug();
    while (status == -1 && std::chrono::steady_clock::now() - pulled < kPatience)
        libusb_handle_events_timeout_completed(Host().Context(), &slice, nullptr);
    EXPECT_EQ(LIBUSB_TRANSFER_NO_DEVICE, status);
    EXPECT_LT(std::chrono::steady_clock::now() - pulled, 500ms);
    EXPECT_EQ(LIBUSB_ERROR_NO_DEVICE, libusb_submit_transfer(read));
    libusb_free_transfer(read);
    EXPECT_TRUE(Host().WaitUntilGone(address, kPatience));
}

TEST_P(PhoneLife, UnplugMidStreamAtANamedStageStopsTheEchoWithNoDevice)
{
    PhoneOptions options;
    options.unplugAt = PhoneStage::HandshakeDone;
    options.unplugAfterBytes = 256 * 1024;
    EmulatedPhone& phone = Plug(options);
    ASSERT_TRUE(Connect(phone));
    AccessoryHost::EchoResult echo = Host().Echo(1 << 20, 16384, 2);
    // A transfer ends with NO_DEVICE, or one resubmitted from a completion just
    // before the pull is refused with it.
    EXPECT_TRUE(echo.error == LIBUSB_TRANSFER_NO_DEVICE || echo.error == LIBUSB_ERROR_NO_DEVICE)
        << echo.error << ": " << echo.problem;
    EXPECT_GE(echo.bytes, 200u * 1024);
    EXPECT_LT(echo.bytes, 1u << 20);
    EXPECT_TRUE(phone.Report().Reached(PhoneStage::Unplugged));
}

TEST_P(PhoneLife, TwoPhonesHaveTheirOwnAddressesAndSwitchIndependently)
{
    PhoneOptions first;
    first.serial = "FIRST";
    PhoneOptions second;
    second.serial = "SECOND";
    EmulatedPhone& one = Plug(first);
    EmulatedPhone& two = Plug(second);
    EXPECT_NE(one.Address(), two.Address());
    ASSERT_TRUE(Switch(two));
    EXPECT_TRUE(Host().WaitForAccessory("SECOND", kPatience));
    EXPECT_FALSE(one.Report().Reached(PhoneStage::StartRequested));
    EXPECT_TRUE(Host().WaitForDevice([](const AccessoryHost::Device& d) { return d.serial == "FIRST"; }, kPatience));
}

TEST_P(PhoneLife, PhoneAlreadyInAccessoryModeIsFoundAsSuchAndHandshakes)
{
    PhoneOptions options;
    options.startInAccessoryMode = true;
    EmulatedPhone& phone = Plug(options);
    ASSERT_TRUE(Host().WaitForAccessory("EMULATED0001", kPatience));
    ASSERT_TRUE(Connect(phone));
    EXPECT_EQ(0, phone.Report().versionQueries);
    EXPECT_TRUE(phone.WaitFor(PhoneStage::HandshakeDone, kPatience));
}

INSTANTIATE_FOR_BOTH_PATHS(PhoneLife);

} // namespace
} // namespace emuphone
