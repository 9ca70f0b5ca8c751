#include <chrono>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "KestoConnectionAAPFixture.h"

namespace aap {
namespace {

using fakeusb::Failures;
using fakeusb::Function;
using testing::Not;
using Clock = std::chrono::steady_clock;

// The first search that takes any accessory when no serial matches.
constexpr int kFallbackSearch = 22;

// ThreadSanitizer and qemu run the stream several times slower; they move less of it.
#if defined(__SANITIZE_THREAD__) || defined(__arm__)
constexpr size_t kStreamBytes = 2 * 1024 * 1024;
#else
constexpr size_t kStreamBytes = 8 * 1024 * 1024;
#endif

Bytes RandomBytes(std::mt19937& random, size_t n) {
    Bytes bytes(n);
    for (uint8_t& b : bytes) {
        b = static_cast<uint8_t>(random());
    }
    return bytes;
}

// The phone's end of the accessory link in the data phase: it answers reads
// with the next piece of its stream (sometimes the later read first, sometimes
// with nothing, sometimes after a time-out) and takes writes partly or whole.
struct PhoneEnd {
    int device;
    std::mt19937& random;
    const Bytes& stream;
    size_t sent;
    Bytes received;
    int outOfOrder = 0, emptyReads = 0, partialWrites = 0;

    Bytes Next(const Submission& read) {
        const size_t n = std::min(stream.size() - sent, 1 + random() % static_cast<size_t>(read.length));
        sent += n;
        return Bytes(stream.begin() + static_cast<long>(sent - n), stream.begin() + static_cast<long>(sent));
    }

    void Step() {
        std::vector<Submission> reads, writes;
        for (const Submission& s : Transfers::InFlight()) {
            if (s.deviceId == device) {
                (s.endpoint == kIn ? reads : writes).push_back(s);
            }
        }
        if (!writes.empty()) {
            const Submission& w = writes.front();
            const size_t taken = random() % 3 == 0 ? 1 + random() % w.data.size() : w.data.size();
            partialWrites += taken < w.data.size();
            received.insert(received.end(), w.data.begin(), w.data.begin() + static_cast<long>(taken));
            Transfers::Complete(w.id, kCompleted, {}, static_cast<int>(taken));
        }
        if (reads.empty() || sent == stream.size()) {
            return;
        }
        const unsigned roll = random() % 10;
        if (reads.size() >= 2 && roll < 3) {
            const Bytes first = Next(reads[0]);
            Transfers::Complete(reads[1].id, kCompleted, Next(reads[1]));
            Transfers::Complete(reads[0].id, kCompleted, first);
            ++outOfOrder;
        } else if (roll == 3) {
            Transfers::Complete(reads[0].id, kCompleted, {});
            ++emptyReads;
        } else if (roll == 4) {
            Transfers::Complete(reads[0].id, LIBUSB_TRANSFER_TIMED_OUT, {});
        } else {
            Transfers::Complete(reads[0].id, roll == 5 ? LIBUSB_TRANSFER_TIMED_OUT : kCompleted,
                                Next(reads[0]));
        }
    }
};

TEST_F(AccessoryConnection, PhoneIsSwitchedFoundAgainAndCarriesMegabytesBothWays) {
    PhoneScript script;
    script.comesBackAs[0].configuration = 0; // unconfigured after re-enumeration
    PlugPhone(script);
    ToolkitConnection& connection = Establish();
    const Submission handshakeRead = AwaitTransfer(kIn);
    ASSERT_EQ(1u, returned.size());
    EXPECT_EQ(returned[0], handshakeRead.deviceId);
    EXPECT_EQ(3000u, handshakeRead.timeout);
    EXPECT_THAT(connection.Log(), Contains("Located device with matching serial number"));
    EXPECT_THAT(fakeusb::Calls::Named("libusb_set_configuration"), ElementsAre("libusb_set_configuration(1:6, 1)"));
    EXPECT_THAT(fakeusb::Calls::Named("libusb_claim_interface"), ElementsAre("libusb_claim_interface(1:6, 0)"));
    EXPECT_THAT(fakeusb::Bus::ClaimedInterfaces(returned[0]), ElementsAre(0));

    std::mt19937 random(2565);
    const Bytes down = RandomBytes(random, kStreamBytes);
    const Bytes up = RandomBytes(random, kStreamBytes);
    PhoneEnd phoneEnd{returned[0], random, down, 1000, {}};
    // The phone's first application bytes travel with its handshake.
    PhoneSends(Join(kDeviceHandshake, Bytes(down.begin(), down.begin() + 1000)));
    EXPECT_EQ(kHostHandshake, AwaitTransfer(kOut).data);
    ASSERT_TRUE(Transfers::CompleteOldest(kOut));
    Settle();
    EXPECT_THAT(connection.Statuses(), ElementsAre(3, 4));

    const Clock::time_point start = Clock::now();
    Bytes got;
    size_t written = 0;
    while ((got.size() < down.size() || phoneEnd.received.size() < up.size()) &&
           Clock::now() - start < std::chrono::seconds(60)) {
        phoneEnd.Step();
        toolkit.RunOnce(std::chrono::milliseconds(2));
        for (;;) {
            Toolkit::Transfer read = toolkit.Read(connection, random() % 4 == 0 ? 64 : 16384);
            if (read.result == KestoBearerErrorBufferTooSmall) {
                read = toolkit.Read(connection, read.length);
            }
            ASSERT_EQ(KestoBearerErrorNone, read.result);
            if (read.length == 0) {
                break;
            }
            got.insert(got.end(), read.bytes.begin(), read.bytes.end());
        }
        if (written < up.size()) {
            const size_t n = std::min(up.size() - written, 1 + random() % 40000);
            const auto from = up.begin() + static_cast<long>(written);
            const Toolkit::Transfer write = toolkit.Write(connection, Bytes(from, from + static_cast<long>(n)));
            ASSERT_EQ(KestoBearerErrorNone, write.result);
            written += write.length;
        }
        ASSERT_EQ(0, connection.Failure());
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    EXPECT_TRUE(got == down) << got.size() << " of " << down.size() << " bytes reached the toolkit";
    EXPECT_TRUE(phoneEnd.received == up) << phoneEnd.received.size() << " of " << up.size() << " reached the phone";
    EXPECT_THAT(connection.Statuses(), ElementsAre(3, 4));
    EXPECT_GT(phoneEnd.outOfOrder, 0);
    EXPECT_GT(phoneEnd.emptyReads, 0);
    EXPECT_GT(phoneEnd.partialWrites, 0);
    std::printf("[ stream   ] %zu bytes each way in %.2f s (%d reads out of order, %d empty, %d partial writes)\n",
                kStreamBytes, seconds, phoneEnd.outOfOrder, phoneEnd.emptyReads, phoneEnd.partialWrites);
    RecordProperty("bytes_each_way", static_cast<int>(kStreamBytes));
    RecordProperty("milliseconds", static_cast<int>(seconds * 1000));
}

// A stranger in accessory mode is on the bus first; the phone itself comes
// back a few searches later, listed after the stranger.
TEST_F(AccessoryConnection, ReturnedPhoneIsChosenBySerialOverAStranger) {
    PhoneScript script;
    script.comesBackAs = {fakeusb::AccessoryPhone(1, 7, "STRANGER")};
    PlugPhone(script);
    ToolkitConnection& connection = Establish();
    toolkit.RunUntil([&] { return connection.TimerExpiries() >= 5; });
    EXPECT_EQ(0, fakeusb::Calls::Count("libusb_claim_interface"));
    const int phoneAgain = fakeusb::Bus::Add(fakeusb::AccessoryPhone(1, 6, kSerial));
    EXPECT_EQ(phoneAgain, AwaitTransfer(kIn).deviceId);
    EXPECT_THAT(fakeusb::Calls::Named("libusb_claim_interface"), ElementsAre("libusb_claim_interface(1:6, 0)"));
    EXPECT_EQ(1, std::count(connection.Log().begin(), connection.Log().end(),
                            "Located device with matching serial number"));
    EXPECT_GE(CallCount("libusb_close(1:7)"), 6);
}

// Cheap phones share one serial. Another one already in accessory mode is
// never taken for ours, not even by the fallback; of two that come back, the
// one on our phone's port is.
TEST_F(AccessoryConnection, SwitchedPhoneIsTheOneThatComesBackNotAnotherWithItsSerial) {
    fakeusb::DeviceSpec other = fakeusb::AccessoryPhone(1, 9, kSerial);
    other.ports = {3};
    for (const bool comesBack : {true, false}) {
        const int otherId = fakeusb::Bus::Add(other);
        PhoneScript script;
        if (!comesBack) {
            script.comesBackAs.clear();
        }
        PlugPhone(script);
        ToolkitConnection& connection = Establish();
        if (comesBack) {
            const int connectedTo = AwaitTransfer(kIn).deviceId;
            ASSERT_EQ(1u, returned.size());
            EXPECT_EQ(returned[0], connectedTo);
        } else {
            toolkit.RunUntil([&] { return connection.TimerExpiries() >= kFallbackSearch + 2; },
                             std::chrono::seconds(10));
        }
        EXPECT_THAT(fakeusb::Bus::ClaimedInterfaces(otherId), testing::IsEmpty());
        NextStory(connection);
    }

    PhoneScript script;
    fakeusb::DeviceSpec twin = fakeusb::AccessoryPhone(1, 7, kSerial);
    twin.ports = {2};
    script.comesBackAs = {twin, fakeusb::AccessoryPhone(1, 6, kSerial)};
    PlugPhone(script);
    ToolkitConnection& again = Establish();
    const int connectedTo = AwaitTransfer(kIn).deviceId;
    ASSERT_EQ(2u, returned.size());
    EXPECT_EQ(returned[1], connectedTo);
    EXPECT_THAT(fakeusb::Bus::ClaimedInterfaces(returned[0]), testing::IsEmpty());
    EXPECT_EQ(0, again.Failure());
}

// A toolkit may ask for activity as often as it likes: while the phone is
// away that must not put off the next search, which a new timer request would.
TEST_F(AccessoryConnection, EagerToolkitDoesNotPutOffTheSearch) {
    PhoneScript script;
    script.comesBackAs.clear();
    PlugPhone(script);
    ToolkitConnection& connection = Establish();
    toolkit.RunUntil([&] { return connection.TimerExpiries() >= 2; }); // away, searched for
    const int phoneAgain = fakeusb::Bus::Add(fakeusb::AccessoryPhone(1, 6, kSerial));
    const Clock::time_point start = Clock::now();
    while (!Transfers::OldestInFlight(kIn) && Clock::now() - start < std::chrono::seconds(2)) {
        uint32_t activity = 0;
        ASSERT_EQ(0, toolkit.Interface().connectionGetActivity(connection.Handle(), &activity));
        toolkit.RunOnce(std::chrono::milliseconds(10));
    }
    EXPECT_EQ(phoneAgain, AwaitTransfer(kIn, std::chrono::milliseconds(1)).deviceId);
}

// Without the serial the phone is taken as the first accessory on the bus,
// but only from the twenty-second search on: two at once, then ten a second.
TEST_F(AccessoryConnection, PhoneWithoutReadableSerialIsFoundByFallbackAfterTwoSeconds) {
    fakeusb::DeviceSpec described = fakeusb::AndroidPhone(1, 5, kSerial);
    described.strings.erase(fakeusb::DeviceSpec::kSerialIndex);
    PlugPhone({}, described);
    ToolkitConnection& connection = Establish();
    EXPECT_THAT(connection.Log(), Contains("Failed to retrieve serial number for device"));
    const Clock::time_point start = Clock::now();
    AwaitTransfer(kIn, std::chrono::seconds(10));
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(2000));
    EXPECT_EQ(22, connection.TimerExpiries());
    // 1 ms on entering the search and after the first search, then 100 ms
    // each; the activity call that saw the switch accepted finds one due.
    std::vector<int> delays{1, 1};
    delays.resize(22, 100);
    EXPECT_EQ(delays, connection.TimerRequests());
    EXPECT_THAT(connection.Log(), Not(Contains("Located device with matching serial number")));
}

// A search that fails is tried again on the next tick; a phone found but
// not set up fails the connection.
TEST_F(AccessoryConnection, FaultsAfterTheSwitchAreRetriedOrReported) {
    const std::tuple<Function, int, int, std::vector<std::string>, bool> faults[] = {
        {Function::GetDeviceList, LIBUSB_ERROR_NO_MEM, 1, // the first list is taken before the switch
         {"Failed to retrieve device list when reading descriptors, error -11", "Failed to rediscover device"}, false},
        {Function::Open, LIBUSB_ERROR_ACCESS, 1,
         {"Located device with matching serial number", "Error: Couldn't open device with libusb error -3",
          "Failed to open desired device with error -3", "Failed to rediscover device"},
         false},
        {Function::GetConfigDescriptorByValue, LIBUSB_ERROR_IO, 0,
         {"Located device with matching serial number",
          "Error getting config descriptor for device when finding endpoints."},
         true},
        {Function::ClaimInterface, LIBUSB_ERROR_BUSY, 0,
         {"Error: Unable to claim interface 0: libusb error -6", "Error claiming USB interface: -6"}, true},
        {Function::GetMaxPacketSize, LIBUSB_ERROR_OTHER, 0,
         {"Error: couldn't determine maximum packet size for device endpoint 0x81: libusb error -99",
          "Error initialising endpoints: -99"},
         true},
    };
    for (const auto& [function, error, skip, log, fatal] : faults) {
        PlugPhone();
        ToolkitConnection& connection = Establish();
        Failures::Fail(function, error, skip);
        toolkit.RunUntil([&] { return connection.Failure() != 0 || Transfers::OldestInFlight(kIn).has_value(); });
        EXPECT_EQ(fatal ? KestoBearerErrorFailed : 0, connection.Failure());
        EXPECT_EQ(!fatal, Transfers::OldestInFlight(kIn).has_value());
        const std::vector<std::string>& all = connection.Log();
        const auto from = std::find(all.begin(), all.end(), log.front());
        const auto to = from + std::min<std::ptrdiff_t>(all.end() - from, log.size());
        EXPECT_EQ(log, std::vector<std::string>(from, to));
        NextStory(connection);
    }
}

} // namespace
} // namespace aap
