#include <chrono>
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

// Some phones come back from re-enumeration unconfigured: ours is
// configured, claimed and listened to at its new address.
TEST_F(AccessoryConnection, SwitchedPhoneThatComesBackUnconfiguredIsSetUpAtItsNewAddress) {
    PhoneScript script;
    script.comesBackAs[0].configuration = 0;
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
}

// Cheap phones share one serial. Another one already in accessory mode, on
// another port, is never taken for ours, not even by the fallback once ours
// has stayed away.
TEST_F(AccessoryConnection, AnotherPhoneWithOurSerialIsNotTakenWhenOursStaysAway) {
    fakeusb::DeviceSpec other = fakeusb::AccessoryPhone(1, 9, kSerial);
    other.ports = {3};
    const int otherId = fakeusb::Bus::Add(other);
    PhoneScript script;
    script.comesBackAs.clear();
    PlugPhone(script);
    ToolkitConnection& connection = Establish();
    toolkit.RunUntil([&] { return connection.TimerExpiries() >= kFallbackSearch + 2; }, std::chrono::seconds(10));
    EXPECT_THAT(fakeusb::Bus::ClaimedInterfaces(otherId), testing::IsEmpty());
    EXPECT_EQ(0, connection.Failure());
}

// Of two phones with our serial that come back after the switch, the one on
// our phone's port is ours, though listed second.
TEST_F(AccessoryConnection, OfTwoReturningPhonesWithOurSerialTheOneOnOurPortIsTaken) {
    fakeusb::DeviceSpec twin = fakeusb::AccessoryPhone(1, 7, kSerial);
    twin.ports = {2};
    PhoneScript script;
    script.comesBackAs = {twin, fakeusb::AccessoryPhone(1, 6, kSerial)};
    PlugPhone(script);
    Establish();
    const int connectedTo = AwaitTransfer(kIn).deviceId;
    ASSERT_EQ(2u, returned.size());
    EXPECT_EQ(returned[1], connectedTo);
    EXPECT_THAT(fakeusb::Bus::ClaimedInterfaces(returned[0]), testing::IsEmpty());
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
    // Each search opened the phone to read its serial and closed it again.
    EXPECT_EQ(CallCount("libusb_open(1:6)"), CallCount("libusb_close(1:6)") + 1);
    EXPECT_GE(CallCount("libusb_close(1:6)"), kFallbackSearch - 1);
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
