// The phone as the unmodified libusb sees it: one life told end to end, and
// the behaviours of a real phone that the plug-in's stories rely on but never
// look at directly.
#include "AccessoryHost.h"

#include "emulated-phone/PhoneWorld.h"
#include "emulated-phone/StreamPattern.h"

#include <gtest/gtest.h>

#include <poll.h>

#include <memory>

namespace emuphone {
namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds kPatience{2000};
constexpr unsigned int kTimeoutMs = 2000;

std::vector<uint8_t> Pattern(size_t length)
{
    std::vector<uint8_t> bytes(length);
    StreamPattern::Fill(0, bytes.data(), length);
    return bytes;
}

// A world and a libusb host over either ioctl path: the world before libusb,
// and libusb gone before the world.
class PhoneOverLibusb : public ::testing::TestWithParam<PhoneWorld::IoctlPath> {
protected:
    EmulatedPhone& Plug(const PhoneOptions& options = {})
    {
        if (!world_)
            world_ = std::make_unique<PhoneWorld>(GetParam());
        EmulatedPhone& phone = world_->AddPhone(options);
        if (!host_)
            host_ = std::make_unique<AccessoryHost>();
        return phone;
    }
    void TearDown() override { ClearWorld(); }
    void ClearWorld()
    {
        host_.reset();
        world_.reset();
    }
    // A phone plugged in accessory mode, opened and its accessory interface claimed.
    EmulatedPhone& Claimed(PhoneOptions options)
    {
        options.startInAccessoryMode = true;
        EmulatedPhone& phone = Plug(options);
        EXPECT_TRUE(phone.WaitFor(PhoneStage::AccessoryAttached, kPatience));
        EXPECT_EQ(0, host_->Open(phone.BusNumber(), phone.Address()));
        EXPECT_EQ(0, host_->ClaimAccessory());
        return phone;
    }

    std::unique_ptr<PhoneWorld> world_;
    std::unique_ptr<AccessoryHost> host_;
};

TEST_P(PhoneOverLibusb, PhonesLifeFromEnumerationToTheCablePulled)
{
    EmulatedPhone& phone = Plug();
    AccessoryHost& host = *host_;
    auto found = host.WaitForDevice([](const AccessoryHost::Device& d) { return d.serial == "EMULATED0001"; },
                                    kPatience);
    ASSERT_TRUE(found);
    EXPECT_EQ(0x1209, found->vendor);
    EXPECT_EQ(0x0001, found->product);

    // The switch: the phone leaves and comes back as the accessory, same serial, new address.
    const std::array<std::string, 6> identity = {"Norvane", "AAPTest", "Norvane AAP Bearer",
                                                 "0.1", "https://example.invalid", "serial_number"};
    ASSERT_EQ(0, host.Open(found->bus, found->address));
    uint16_t version = 0;
    ASSERT_EQ(0, host.Switch(identity, version));
    EXPECT_EQ(2, version);
    host.Close();
    auto accessory = host.WaitForAccessory("EMULATED0001", kPatience);
    ASSERT_TRUE(accessory);
    EXPECT_EQ(0x2D01, accessory->product);
    EXPECT_NE(found->address, accessory->address);
    PhoneReport report = phone.Report();
    for (size_t i = 0; i < identity.size(); ++i)
        EXPECT_EQ(identity[i], report.identity[i].value_or("(missing)")) << "identity string " << i;

    // Both handshakes, then every byte echoed.
    ASSERT_EQ(0, host.Open(accessory->bus, accessory->address));
    ASSERT_EQ(0, host.ClaimAccessory());
    ASSERT_EQ(0, host.Handshake(kTimeoutMs));
    ASSERT_TRUE(phone.WaitFor(PhoneStage::HandshakeDone, kPatience));
    AccessoryHost::EchoResult echo = host.Echo(256 << 10, 16384, 2);
    ASSERT_EQ(0, echo.error) << echo.problem;
    EXPECT_EQ(0, phone.Report().unclaimedSubmissions);

    // The cable pulled under a pending read: it ends with NO_DEVICE at once, and so does what follows.
    std::vector<uint8_t> buffer(16384);
    int status = -1;
    libusb_transfer* read = libusb_alloc_transfer(0);
    libusb_fill_bulk_transfer(
        read, host.Handle(), host.In(), buffer.data(), static_cast<int>(buffer.size()),
        [](libusb_transfer* t) { *static_cast<int*>(t->user_data) = t->status; }, &status, 0);
    ASSERT_EQ(0, libusb_submit_transfer(read));
    auto pulled = std::chrono::steady_clock::now();
    phone.Unplug();
    timeval slice{0, 20000};
    while (status == -1 && std::chrono::steady_clock::now() - pulled < kPatience)
        libusb_handle_events_timeout_completed(host.Context(), &slice, nullptr);
    // The read has no time-out, so only the unplug can have ended it.
    EXPECT_EQ(LIBUSB_TRANSFER_NO_DEVICE, status);
    EXPECT_EQ(LIBUSB_ERROR_NO_DEVICE, libusb_submit_transfer(read));
    libusb_free_transfer(read);
    EXPECT_TRUE(host.WaitUntilGone(accessory->address, kPatience));
}

// The phone's driver ends a read only on a short packet or at 16 KiB, and
// follows a write whose last packet is full with an empty one; the host must
// never leave a whole number of packets for it to hold.
TEST_P(PhoneOverLibusb, PhoneDriverHoldsFullPacketsUntilAShortOne)
{
    const struct {
        const char* name;
        bool superSpeed;
        size_t write;
        bool held;       // the phone waits for more
        bool emptyAfter; // the echo is followed by a zero-length packet
    } cases[] = {
        {"two full packets", false, 1024, true, false},
        {"one short packet", false, 1000, false, false},
        {"half a super-speed packet", true, 512, false, false},
        {"two full super-speed packets", true, 2048, true, false},
        {"a whole phone read", false, 16384, false, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ClearWorld();
        PhoneOptions options;
        options.readRule = PhoneOptions::ReadRule::PhoneDriver;
        options.superSpeed = c.superSpeed;
        EmulatedPhone& phone = Claimed(options);
        ASSERT_EQ(0, host_->Handshake(kTimeoutMs));
        ASSERT_TRUE(phone.WaitFor(PhoneStage::HandshakeDone, kPatience));

        ASSERT_EQ(0, host_->Write(Pattern(c.write), kTimeoutMs));
        bool read = phone.WaitUntil([](const PhoneReport& r) { return r.bytesFromHost > 0; },
                                    c.held ? 50ms : kPatience);
        EXPECT_EQ(c.held, !read);
        size_t expected = c.write;
        if (c.held) {
            ASSERT_EQ(0, host_->Write(Pattern(10), kTimeoutMs));
            expected += 10;
        }
        std::vector<uint8_t> bytes;
        ASSERT_EQ(0, host_->Read(bytes, 16384, kTimeoutMs));
        EXPECT_EQ(expected, bytes.size());
        if (c.emptyAfter) {
            ASSERT_EQ(0, host_->Read(bytes, 16384, kTimeoutMs));
            EXPECT_EQ(0u, bytes.size());
        }
        EXPECT_EQ(c.emptyAfter ? 1u : 0u, phone.Report().zeroLengthToHost);
    }
}

TEST_P(PhoneOverLibusb, HostHandshakeThatDoesNotMatchIsRefusedAndKept)
{
    EmulatedPhone& phone = Claimed({});
    std::vector<uint8_t> bytes;
    ASSERT_EQ(0, host_->Read(bytes, 512, kTimeoutMs));
    ASSERT_EQ(0, host_->Write({'H', 'E', 'L', 'L', 'O', ' ', 'W', 'O', 'R', 'L', 'D'}, kTimeoutMs));
    ASSERT_TRUE(phone.WaitFor(PhoneStage::HandshakeFailed, kPatience));
    PhoneReport report = phone.Report();
    EXPECT_FALSE(report.Reached(PhoneStage::HandshakeDone));
    EXPECT_EQ(std::vector<uint8_t>({'H', 'E', 'L', 'L', 'O', ' ', 'W', 'O', 'R', 'L'}), report.hostHandshake);
}

// Once the handshakes have come and gone, a read pending on a quiet line leaves
// libusb's descriptors quiet, so an event loop sleeps; the unplug then wakes them.
TEST_P(PhoneOverLibusb, IdleLineDoesNotWakeLibusbAndAnUnplugDoes)
{
    EmulatedPhone& phone = Claimed({});
    ASSERT_EQ(0, host_->Handshake(kTimeoutMs));
    std::vector<uint8_t> buffer(512);
    libusb_transfer* read = libusb_alloc_transfer(0);
    libusb_fill_bulk_transfer(read, host_->Handle(), host_->In(), buffer.data(), 512, [](libusb_transfer*) {},
                              nullptr, 0);
    ASSERT_EQ(0, libusb_submit_transfer(read));
    // Hotplug notices of the phone's arrival are still waiting to be handled.
    timeval none{0, 0};
    libusb_handle_events_timeout_completed(host_->Context(), &none, nullptr);
    const libusb_pollfd** fds = libusb_get_pollfds(host_->Context());
    std::vector<pollfd> set;
    for (int i = 0; fds[i]; ++i)
        set.push_back({fds[i]->fd, fds[i]->events, 0});
    libusb_free_pollfds(fds);
    EXPECT_EQ(0, poll(set.data(), set.size(), 200));
    phone.Unplug();
    ASSERT_GE(poll(set.data(), set.size(), static_cast<int>(kPatience.count())), 1);
    bool hungUp = false;
    for (const pollfd& p : set)
        hungUp = hungUp || (p.revents & (POLLERR | POLLHUP)) == (POLLERR | POLLHUP);
    EXPECT_TRUE(hungUp) << "no descriptor reports the unplug";
    timeval slice{0, 100000};
    libusb_handle_events_timeout_completed(host_->Context(), &slice, nullptr);
    libusb_free_transfer(read);
}

INSTANTIATE_TEST_SUITE_P(, PhoneOverLibusb,
                         ::testing::Values(PhoneWorld::IoctlPath::Socket, PhoneWorld::IoctlPath::Interposed),
                         [](const auto& info) {
                             return info.param == PhoneWorld::IoctlPath::Socket ? "Socket" : "Interposed";
                         });

} // namespace
} // namespace emuphone
