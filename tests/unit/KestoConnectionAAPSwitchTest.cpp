#include <chrono>
#include <cstdio>

#include "KestoConnectionAAPFixture.h"
#include "aap/KestoConnectionAAP.h"

namespace aap {
namespace {

using fakeusb::Failures;
using fakeusb::Function;
using Lookup = ToolkitConnection::Lookup;
using testing::Not;
using Clock = std::chrono::steady_clock;

const char kVersionQuery[] = "c0 33 00 00 00 00 02 00";
const std::vector<std::string> kDefaultIdentity{"Norvane", "AAPTest", "Norvane AAP Bearer", "0.1",
                                                "https://norvane.example/kesto", "serial_number"};

// The identity strings sent, in order; their indexes are in the setup packets.
std::vector<std::string> IdentitySent() {
    std::vector<std::string> sent;
    for (const Submission& s : Transfers::Submitted()) {
        if (s.IsControl() && s.setup.request == 52) {
            sent.emplace_back(s.data.begin(), s.data.end());
        }
    }
    return sent;
}

// The whole switch: version query, each identity row, start request.
std::vector<std::string> SwitchSetups(const std::vector<std::string>& identity) {
    std::vector<std::string> setups{kVersionQuery};
    for (unsigned row = 0; row < identity.size(); ++row) {
        char setup[32];
        const size_t length = identity[row].size();
        std::snprintf(setup, sizeof setup, "40 34 00 00 %02x 00 %02x %02x", static_cast<uint8_t>(row),
                      static_cast<uint8_t>(length), static_cast<uint8_t>(length >> 8));
        setups.push_back(setup);
    }
    setups.push_back("40 35 00 00 00 00 00 00");
    return setups;
}

TEST_F(AccessoryConnection, OnlyGoogleAccessoryProductsSkipTheSwitch) {
    const std::tuple<uint16_t, uint16_t, bool> ids[] = {
        {0x18D1, 0x2D00, true}, {0x18D1, 0x2D01, true}, {0x18D1, 0x2D02, false}, {0x04E8, 0x2D00, false}};
    for (const auto& [vendor, product, accessory] : ids) {
        fakeusb::DeviceSpec described = fakeusb::AccessoryPhone(1, 5, kSerial);
        described.descriptor.idVendor = vendor;
        described.descriptor.idProduct = product;
        fakeusb::Bus::Add(described);
        ToolkitConnection& connection = Establish();
        const std::vector<Submission> inFlight = Transfers::InFlight();
        ASSERT_EQ(1u, inFlight.size());
        EXPECT_EQ(accessory ? kIn : 0x00, inFlight[0].endpoint) << std::hex << vendor << ":" << product;
        EXPECT_EQ(accessory ? 0 : 1, CallCount("libusb_get_string_descriptor_ascii(1:5, 3)"));
        NextStory(connection);
    }
}

// The version the phone supports is logged; the identity strings are those the
// command string gives, else the defaults, each looked up with its own flag.
TEST_F(AccessoryConnection, PhoneIsSwitchedWithTheGivenOrDefaultIdentity) {
    const Fields given{{"manufacturer", "Acme Motors"}, {"model", "Dash"}, {"desc", "Head unit"},
                       {"version", "7.2"}, {"uri", "https://acme.example/"}, {"serial", "HU-0042"}};
    const std::tuple<Fields, std::vector<std::string>, uint8_t> cases[] = {
        {{}, kDefaultIdentity, 2},
        {given, {"Acme Motors", "Dash", "Head unit", "7.2", "https://acme.example/", "HU-0042"}, 1},
    };
    for (const auto& [fields, identity, version] : cases) {
        PlugPhone(PhoneScript{{version, 0}});
        ToolkitConnection& connection = Establish(fields);
        toolkit.RunUntil([&] { return !connection.TimerRequests().empty(); }); // the search begins
        EXPECT_THAT(ControlSetups(), ElementsAreArray(SwitchSetups(identity)));
        EXPECT_EQ(identity, IdentitySent());
        for (const Submission& s : Transfers::Submitted()) {
            EXPECT_EQ(s.IsControl() ? 2000u : 3000u, s.timeout); // the search may have begun
        }
        const bool answered = !fields.empty();
        EXPECT_THAT(std::vector<Lookup>(connection.Lookups().begin() + 4, connection.Lookups().end()),
                    ElementsAre(Lookup{"manufacturer", 0, false, answered}, Lookup{"model", 0, false, answered},
                                Lookup{"desc", 1, false, answered}, Lookup{"version", 0, false, answered},
                                Lookup{"uri", 1, false, answered}, Lookup{"serial", 0, false, answered}));
        EXPECT_THAT(connection.Log(),
                    Contains("Device supports Android Accessory Protocol version " + std::to_string(version)));
        NextStory(connection);
    }
}

TEST_F(AccessoryConnection, PhoneEndsAControlRequestBadly) {
    const char kRow2[] = "40 34 00 00 02 00 12 00";
    struct Ending {
        const char* story;
        std::vector<int> statuses;
        std::vector<std::string> setups;
        std::vector<std::string> log;
        int failure;
        Bytes version = {2, 0};
        int refused = -1; // the control submission libusb refuses, counted from 0
    };
    const char kRefused[] = "Failed to submit libusb transfer for control transfer: libusb error -1";
    const char kVersion2[] = "Device supports Android Accessory Protocol version 2";
    const Ending endings[] = {
        {"version 0", {}, {kVersionQuery},
         {"Device does not support the Android Accessory Protocol, supports 0x0000"}, KestoBearerErrorFailed, {0, 0}},
        {"short version reply", {}, {kVersionQuery}, {"Failed to get control transfer of expected length, 1 of 2"},
         KestoBearerErrorFailed, {1}},
        {"an error is retried four times with the same row; the fifth fails",
         {0, 0, 0, 1, 1, 1, 1, 1},
         {kVersionQuery, "40 34 00 00 00 00 07 00", "40 34 00 00 01 00 07 00", kRow2, kRow2, kRow2, kRow2, kRow2},
         {kVersion2,
          "Retrying setup transfer with status 1, state: 2, retry: 1",
          "Retrying setup transfer with status 1, state: 2, retry: 2",
          "Retrying setup transfer with status 1, state: 2, retry: 3",
          "Retrying setup transfer with status 1, state: 2, retry: 4",
          "Setup transfer failed with status: 1, state: 2, retry: 5"},
         KestoBearerErrorFailed},
        {"timed out", {LIBUSB_TRANSFER_TIMED_OUT}, {kVersionQuery}, {}, KestoBearerErrorFailed},
        {"cancelled", {LIBUSB_TRANSFER_CANCELLED}, {kVersionQuery}, {}, 0},
        {"stall", {LIBUSB_TRANSFER_STALL}, {kVersionQuery}, {"Setup transfer failed with status: 4, state: 1"},
         KestoBearerErrorFailed},
        {"no device", {LIBUSB_TRANSFER_NO_DEVICE}, {kVersionQuery}, {"Setup transfer failed with status: 5, state: 1"},
         KestoBearerErrorFailed},
        {"overflow", {LIBUSB_TRANSFER_OVERFLOW}, {kVersionQuery}, {"Setup transfer failed with status: 6, state: 1"},
         KestoBearerErrorFailed},
        {"version query refused, inside Establish", {}, {kVersionQuery},
         {kRefused, "Failed to submit version query control message, -1"}, KestoBearerErrorFailed, {2, 0}, 0},
        {"version query's retry refused", {1}, {kVersionQuery, kVersionQuery},
         {"Retrying setup transfer with status 1, state: 1, retry: 1", kRefused,
          "Failed to submit version query control message, -1"},
         KestoBearerErrorFailed, {2, 0}, 1},
        {"identity string refused", {}, {kVersionQuery, "40 34 00 00 00 00 07 00", "40 34 00 00 01 00 07 00", kRow2},
         {kVersion2, kRefused, "Failed to submit identity string 2, -1"}, KestoBearerErrorFailed, {2, 0}, 3},
        {"identity string's retry refused", {0, 1},
         {kVersionQuery, "40 34 00 00 00 00 07 00", "40 34 00 00 00 00 07 00"},
         {kVersion2, "Retrying setup transfer with status 1, state: 2, retry: 1", kRefused,
          "Failed to submit identity string 0, -1"},
         KestoBearerErrorFailed, {2, 0}, 2},
        {"start request refused", {}, SwitchSetups(kDefaultIdentity),
         {kVersion2, kRefused, "Failed to submit switch to AAP control message, -1"}, KestoBearerErrorFailed, {2, 0}, 7},
    };
    for (const Ending& ending : endings) {
        SCOPED_TRACE(ending.story);
        PlugPhone(PhoneScript{ending.version, ending.statuses});
        if (ending.refused >= 0) {
            Failures::Fail(Function::SubmitTransfer, LIBUSB_ERROR_IO, ending.refused);
        }
        const bool atOnce = ending.refused == 0; // Establish itself fails; the toolkit never drives it
        ToolkitConnection& connection = Establish({}, atOnce ? ending.failure : KestoBearerErrorNone);
        Settle();
        toolkit.RunFor(std::chrono::milliseconds(20));
        EXPECT_EQ(atOnce ? 0 : ending.failure, connection.Failure());
        EXPECT_THAT(ControlSetups(), ElementsAreArray(ending.setups));
        EXPECT_THAT(connection.Log(), ElementsAreArray(ending.log));
        NextStory(connection);
    }
}

TEST_F(AccessoryConnection, EveryStepMayFailFourTimesBecauseRetriesCountPerStep) {
    PhoneScript script;
    for (int step = 0; step < 8; ++step) {
        script.statuses.insert(script.statuses.end(), {1, 1, 1, 1, 0});
    }
    PlugPhone(script);
    ToolkitConnection& connection = Establish();
    toolkit.RunUntil([&] { return connection.Failure() != 0 || !connection.TimerRequests().empty(); });
    EXPECT_EQ(40u, ControlSetups().size());
    EXPECT_EQ(30u, IdentitySent().size());
    EXPECT_EQ(32, std::count_if(connection.Log().begin(), connection.Log().end(), [](const std::string& line) {
                  return line.rfind("Retrying setup transfer with status 1", 0) == 0;
              }));
    EXPECT_EQ(0, connection.Failure());
}

TEST_F(AccessoryConnection, ControlCompletionInTheDataPhaseIsAnError) {
    ToolkitConnection& connection = Connected();
    const uint8_t setup[8] = {0x40, 53, 0, 0, 0, 0, 0, 0};
    static_cast<KestoConnectionAAP*>(static_cast<KestoConnectionImpl*>(connection.Handle()))
        ->OnControlComplete(kCompleted, setup, nullptr, 0);
    EXPECT_EQ("Control callback called when not expected (state = 7)", connection.Log().back());
    uint32_t activity = 0;
    EXPECT_EQ(KestoBearerErrorFailed, toolkit.Interface().connectionGetActivity(connection.Handle(), &activity));
}

// libusb cannot cancel the version query, and the phone answers it while the
// connection is being destroyed: the answer is ignored.
TEST_F(AccessoryConnection, ControlAnswerDuringDestructionIsIgnored) {
    PlugPhone(PhoneScript{{2, 0}, {}, false});
    ToolkitConnection& connection = Establish();
    const int query = Transfers::OldestInFlight(0x00)->id;
    Failures::Fail(Function::CancelTransfer, LIBUSB_ERROR_OTHER);
    fakeusb::Events::SetHandleEventsHook([query] { Transfers::Complete(query, kCompleted, {2, 0}); });
    toolkit.Destroy(connection);
    EXPECT_THAT(connection.Log(), ElementsAre("Error cancelling control transfer"));
}

// ---- After the switch: the phone is searched for and set up again ----

// The first search that takes any accessory when no serial matches.
constexpr int kFallbackSearch = 22;

// Of two phones with our serial that come back after the switch, the one on
// our phone's port is ours, though listed second. Some phones come back from
// re-enumeration unconfigured: ours is configured, claimed and listened to at
// its new address.
TEST_F(AccessoryConnection, SwitchedPhoneIsFoundBySerialAndPortAndSetUpAtItsNewAddress) {
    fakeusb::DeviceSpec twin = fakeusb::AccessoryPhone(1, 7, kSerial);
    twin.ports = {2};
    PhoneScript script;
    script.comesBackAs = {twin, fakeusb::AccessoryPhone(1, 6, kSerial)};
    script.comesBackAs[1].configuration = 0;
    PlugPhone(script);
    ToolkitConnection& connection = Establish();
    const Submission handshakeRead = AwaitTransfer(kIn);
    ASSERT_EQ(2u, returned.size());
    EXPECT_EQ(returned[1], handshakeRead.deviceId);
    EXPECT_EQ(3000u, handshakeRead.timeout);
    EXPECT_THAT(connection.Log(), Contains("Located device with matching serial number"));
    EXPECT_THAT(fakeusb::Calls::Named("libusb_set_configuration"), ElementsAre("libusb_set_configuration(1:6, 1)"));
    EXPECT_THAT(fakeusb::Calls::Named("libusb_claim_interface"), ElementsAre("libusb_claim_interface(1:6, 0)"));
    EXPECT_THAT(fakeusb::Bus::ClaimedInterfaces(returned[1]), ElementsAre(0));
}

// Cheap phones share one serial: another one already in accessory mode, on
// another port and listed first, is never taken for ours while ours is away.
// And a toolkit may ask for activity as often as it likes: that must not put
// off the next search, which a new timer request would.
TEST_F(AccessoryConnection, EagerToolkitFindsOursAgainNotAnotherWithOurSerial) {
    fakeusb::DeviceSpec other = fakeusb::AccessoryPhone(1, 9, kSerial);
    other.ports = {3};
    const int otherId = fakeusb::Bus::Add(other);
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
    EXPECT_THAT(fakeusb::Bus::ClaimedInterfaces(otherId), testing::IsEmpty());
}

// Without the serial the phone is taken as the first new accessory on the
// bus, but only from the twenty-second search on: two at once, then ten a
// second. One that was there before the switch is never taken, though listed first.
TEST_F(AccessoryConnection, PhoneWithoutReadableSerialIsFoundByFallbackAfterTwoSeconds) {
    fakeusb::DeviceSpec other = fakeusb::AccessoryPhone(1, 9, kSerial);
    other.ports = {3};
    const int otherId = fakeusb::Bus::Add(other);
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
    EXPECT_THAT(fakeusb::Bus::ClaimedInterfaces(otherId), testing::IsEmpty());
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
