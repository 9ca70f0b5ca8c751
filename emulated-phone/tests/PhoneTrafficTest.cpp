// What travels on the accessory's bulk pipe: the handshakes in their variants,
// the phone's read rules, the applications, the link, and an idle line.
#include "PhoneFixture.h"

#include "emulated-phone/StreamPattern.h"

#include <poll.h>

namespace emuphone {
namespace {

using namespace std::chrono_literals;

class PhoneTraffic : public PhoneFixture {
protected:
    // An accessory-mode phone, claimed, with the phone's handshake not yet read.
    EmulatedPhone& Claimed(PhoneOptions options)
    {
        options.startInAccessoryMode = true;
        EmulatedPhone& phone = Plug(options);
        EXPECT_TRUE(OpenAccessory(phone));
        return phone;
    }
    EmulatedPhone& Connected(PhoneOptions options)
    {
        options.startInAccessoryMode = true;
        EmulatedPhone& phone = Plug(options);
        EXPECT_TRUE(Connect(phone));
        EXPECT_TRUE(phone.WaitFor(PhoneStage::HandshakeDone, kPatience));
        return phone;
    }
    std::vector<uint8_t> ReadOnce(size_t capacity = 16384)
    {
        std::vector<uint8_t> bytes;
        EXPECT_EQ(0, Host().Read(bytes, capacity, kTimeoutMs));
        return bytes;
    }
    static std::vector<uint8_t> Pattern(size_t length)
    {
        std::vector<uint8_t> bytes(length);
        StreamPattern::Fill(0, bytes.data(), length);
        return bytes;
    }
};

TEST_P(PhoneTraffic, HandshakeCanComeInPiecesAfterEmptyReads)
{
    PhoneOptions options;
    options.zeroLengthBeforeHandshake = 1;
    options.handshakeChunk = 4;
    Claimed(options);
    EXPECT_EQ(0u, ReadOnce().size());
    EXPECT_EQ(4u, ReadOnce().size());
    EXPECT_EQ(4u, ReadOnce().size());
    EXPECT_EQ(1u, ReadOnce().size());
}

TEST_P(PhoneTraffic, PhoneSendsTheHandshakeItWasGiven)
{
    PhoneOptions options;
    options.handshake = {0x44, 0x45, 0x56};
    Claimed(options);
    EXPECT_EQ(options.handshake, ReadOnce());
}

TEST_P(PhoneTraffic, HostHandshakeThatDoesNotMatchIsRefusedAndKept)
{
    EmulatedPhone& phone = Claimed({});
    ReadOnce();
    ASSERT_EQ(0, Host().Write({'H', 'E', 'L', 'L', 'O', ' ', 'W', 'O', 'R', 'L', 'D'}, kTimeoutMs));
    ASSERT_TRUE(phone.WaitFor(PhoneStage::HandshakeFailed, kPatience));
    PhoneReport report = phone.Report();
    EXPECT_FALSE(report.Reached(PhoneStage::HandshakeDone));
    EXPECT_EQ(std::vector<uint8_t>({'H', 'E', 'L', 'L', 'O', ' ', 'W', 'O', 'R', 'L'}), report.hostHandshake);
}

TEST_P(PhoneTraffic, PhoneDriverRuleHoldsFullPacketsUntilAShortOneEndsTheRead)
{
    PhoneOptions options;
    options.readRule = PhoneOptions::ReadRule::PhoneDriver;
    EmulatedPhone& phone = Connected(options);
    ASSERT_EQ(0, Host().Write(Pattern(1024), kTimeoutMs));
    EXPECT_FALSE(phone.WaitUntil([](const PhoneReport& r) { return r.bytesFromHost > 0; }, 50ms));
    ASSERT_EQ(0, Host().Write(Pattern(10), kTimeoutMs));
    EXPECT_EQ(1034u, ReadOnce().size());
}

TEST_P(PhoneTraffic, PhoneDriverRuleFollowsAFullPacketEchoWithAnEmptyPacket)
{
    PhoneOptions options;
    options.readRule = PhoneOptions::ReadRule::PhoneDriver;
    EmulatedPhone& phone = Connected(options);
    ASSERT_EQ(0, Host().Write(Pattern(16384), kTimeoutMs));
    EXPECT_EQ(16384u, ReadOnce().size());
    EXPECT_EQ(0u, ReadOnce().size());
    EXPECT_EQ(1u, phone.Report().zeroLengthToHost);
}

TEST_P(PhoneTraffic, AsItComesRuleEchoesEachWriteAsOneRead)
{
    Connected({});
    ASSERT_EQ(0, Host().Write(Pattern(1024), kTimeoutMs));
    EXPECT_EQ(Pattern(1024), ReadOnce());
}

TEST_P(PhoneTraffic, SinkHashesEverythingItReads)
{
    PhoneOptions options;
    options.application = PhoneOptions::Application::Sink;
    EmulatedPhone& phone = Connected(options);
    std::vector<uint8_t> bytes = Pattern(100000);
    ASSERT_EQ(0, Host().Write(bytes, kTimeoutMs));
    ASSERT_TRUE(phone.WaitUntil([](const PhoneReport& r) { return r.bytesFromHost == 100000; }, kPatience));
    EXPECT_EQ(StreamPattern::Hash(StreamPattern::kHashSeed, bytes.data(), bytes.size()), phone.Report().hashFromHost);
}

TEST_P(PhoneTraffic, SourceSendsThePatternUntilItsCountIsReached)
{
    PhoneOptions options;
    options.application = PhoneOptions::Application::Source;
    options.sourceBytes = 40000;
    Connected(options);
    std::vector<uint8_t> received;
    while (received.size() < 40000) {
        std::vector<uint8_t> bytes = ReadOnce();
        ASSERT_FALSE(bytes.empty());
        received.insert(received.end(), bytes.begin(), bytes.end());
    }
    EXPECT_EQ(Pattern(40000), received);
    std::vector<uint8_t> more;
    EXPECT_EQ(LIBUSB_ERROR_TIMEOUT, Host().Read(more, 512, 30));
}

TEST_P(PhoneTraffic, PhoneThatAcceptsLessCompletesTheWriteShort)
{
    PhoneOptions options;
    options.outCompletionCap = 100;
    Connected(options);
    std::vector<uint8_t> bytes = Pattern(1000);
    int transferred = 0;
    ASSERT_EQ(0, libusb_bulk_transfer(Handle(), Host().Out(), bytes.data(), 1000, &transferred, kTimeoutMs));
    EXPECT_EQ(100, transferred);
}

TEST_P(PhoneTraffic, LinkModelIsNeverFasterThanItsBandwidth)
{
    PhoneOptions options;
    options.link = LinkModel{10e6, 0us};
    Connected(options);
    AccessoryHost::EchoResult echo = Host().Echo(1 << 20, 16384, 2);
    ASSERT_EQ(0, echo.error) << echo.problem;
    // 1 MiB each way over a 10 MB/s wire.
    EXPECT_GE(echo.seconds, 2.0 * (1 << 20) / 10e6 * 0.95);
}

// With a read pending on a silent phone, libusb's descriptors stay quiet; the
// unplug then wakes them at once.
TEST_P(PhoneTraffic, IdleLineDoesNotWakeLibusbAndAnUnplugDoes)
{
    PhoneOptions options;
    options.sendHandshake = false;
    EmulatedPhone& phone = Claimed(options);
    std::vector<uint8_t> buffer(512);
    libusb_transfer* read = libusb_alloc_transfer(0);
    libusb_fill_bulk_transfer(read, Handle(), Host().In(), buffer.data(), 512, [](libusb_transfer*) {}, nullptr, 0);
    ASSERT_EQ(0, libusb_submit_transfer(read));
    // Hotplug notices of the phone's arrival are still waiting to be handled.
    timeval none{0, 0};
    libusb_handle_events_timeout_completed(Host().Context(), &none, nullptr);
    const libusb_pollfd** fds = libusb_get_pollfds(Host().Context());
    std::vector<pollfd> set;
    for (int i = 0; fds[i]; ++i)
        set.push_back({fds[i]->fd, fds[i]->events, 0});
    libusb_free_pollfds(fds);
    EXPECT_EQ(0, poll(set.data(), set.size(), 200));
    phone.Unplug();
    ASSERT_GE(poll(set.data(), set.size(), 200), 1);
    bool hungUp = false;
    for (const pollfd& p : set)
        hungUp = hungUp || (p.revents & (POLLERR | POLLHUP)) == (POLLERR | POLLHUP);
    EXPECT_TRUE(hungUp) << "no descriptor reports the unplug";
    timeval slice{0, 100000};
    libusb_handle_events_timeout_completed(Host().Context(), &slice, nullptr);
    libusb_free_transfer(read);
}

INSTANTIATE_FOR_BOTH_PATHS(PhoneTraffic);

} // namespace
} // namespace emuphone
