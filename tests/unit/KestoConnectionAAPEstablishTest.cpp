#include <climits>
#include <functional>
#include <optional>

#include "KestoConnectionAAPFixture.h"
#include "support/AllocationFailures.h"

namespace aap {
namespace {

using fakeusb::AltSetting;
using fakeusb::Bulk;
using fakeusb::Failures;
using fakeusb::Function;
using Lookup = ToolkitConnection::Lookup;

const char kAltWithoutInterface[] = "Error: altsetting present but interface field missing from command string.";

// Each text goes into "bus", "dev" and "interface"; no phone sits anywhere.
TEST_F(AccessoryConnection, NumericFieldsAreReadAsLeadingDecimalNumbers) {
    const std::pair<const char*, int> texts[] = {{"007", 7}, {"12abc", 12}, {" 4", 4},  {"0x1f", 0},
                                                 {"+5", 5},  {"-3", -3},    {"abc", 0}, {"", 0},
                                                 {"99999999999", INT_MAX},  {"-99999999999", INT_MIN}};
    for (const auto& [text, value] : texts) {
        ToolkitConnection& connection =
            Establish({{"bus", text}, {"dev", text}, {"interface", text}}, KestoBearerErrorCannotOpenDevice);
        const std::string n = std::to_string(value);
        EXPECT_EQ("Using USB interface number " + n, connection.Log().front()) << '"' << text << '"';
        EXPECT_EQ("Error: Could not open android device on bus " + n + " at address " + n + " (libusb error -5)",
                  connection.Log().back());
    }
}

// A command string that cannot work is refused before anything starts: bus
// and dev are both asked for before either is judged, and an alternate
// setting needs an interface other than -1. A transport or phone that cannot
// start fails Establish; Connecting is reported only once the transport runs.
// Either way every slot then answers with the failure, takes no bytes and
// touches no transfer.
TEST_F(AccessoryConnection, EstablishThatCannotStartIsAnsweredByEverySlot) {
    const std::string kMissing = "Error: missing bus or dev fields from command string.";
    const Fields kBusAndDev{{"bus", "1"}, {"dev", "5"}};
    struct EarlyFailure {
        Fields fields;
        std::function<void()> arrange;
        int result;
        std::vector<std::string> log;
        bool connecting;
    };
    const EarlyFailure failures[] = {
        {{{"bus", "1"}}, nullptr, KestoBearerErrorInvalidParameter, {kMissing}, false},
        {{{"dev", "5"}}, nullptr, KestoBearerErrorInvalidParameter, {kMissing}, false},
        {{}, nullptr, KestoBearerErrorInvalidParameter, {kMissing}, false},
        {{{"bus", "1"}, {"dev", "5"}, {"altsetting", "2"}}, nullptr, KestoBearerErrorInvalidParameter,
         {"Using USB alternate setting number 2", kAltWithoutInterface}, false},
        {{{"bus", "1"}, {"dev", "5"}, {"interface", "-1"}, {"altsetting", "0"}}, nullptr,
         KestoBearerErrorInvalidParameter,
         {"Using USB interface number -1", "Using USB alternate setting number 0", kAltWithoutInterface}, false},
        {kBusAndDev, [] { Failures::Fail(Function::Init, LIBUSB_ERROR_ACCESS); }, KestoBearerErrorFailed,
         {"Error, could not initialise libusb", "Failed to initialise LibUSBBearerConnection: libusb error -3"}, false},
        {kBusAndDev, [] { Failures::Fail(Function::AllocTransfer, 0); }, KestoBearerErrorFailed,
         {"Could not allocate transfer for read transfers",
          "Failed to initialise LibUSBBearerConnection: libusb error -11"},
         false},
        {kBusAndDev, [] { AllocationFailures::FailAfter(0); }, KestoBearerErrorFailed,
         {"Out of memory allocating connection instance"}, false},
        {kBusAndDev, [] { Failures::Fail(Function::Open, LIBUSB_ERROR_ACCESS); }, KestoBearerErrorCannotOpenDevice,
         {"Error: Couldn't open device with libusb error -3", "Error: Could not open device on bus 1 at address 5",
          "Error: Could not open android device on bus 1 at address 5 (libusb error -5)"},
         true},
        {kBusAndDev, [] { Failures::Fail(Function::GetDeviceDescriptor, LIBUSB_ERROR_IO); }, KestoBearerErrorFailed,
         {"Unable to get device descriptor with error -1"}, true},
        {kBusAndDev, [] { Failures::Fail(Function::GetDeviceDescriptor, LIBUSB_ERROR_IO, 1); },
         KestoBearerErrorFailed, {"Unable to get device descriptor, error -1"}, true},
    };
    const char* const asked[] = {"bus", "dev", "interface", "altsetting"};
    for (const EarlyFailure& failure : failures) {
        fakeusb::Bus::Add(fakeusb::AndroidPhone(1, 5, kSerial));
        ScopedAllocationFailures allocations;
        if (failure.arrange) {
            failure.arrange();
        }
        ToolkitConnection& connection = toolkit.CreateConnection(failure.fields);
        EXPECT_EQ(failure.result, toolkit.Establish(connection));
        EXPECT_THAT(connection.Log(), ElementsAreArray(failure.log));
        ASSERT_EQ(failure.log.back() == kMissing ? 2u : 4u, connection.Lookups().size());
        for (size_t i = 0; i < connection.Lookups().size(); ++i) {
            EXPECT_EQ((Lookup{asked[i], 0, false, failure.fields.count(asked[i]) == 1}), connection.Lookups()[i]);
        }
        EXPECT_EQ(failure.connecting, !connection.Statuses().empty());
        if (failure.result == KestoBearerErrorInvalidParameter) {
            EXPECT_EQ(0, fakeusb::Calls::Count("libusb_init"));
        }
        const KestoBearerInterface& api = toolkit.Interface();
        uint8_t buffer[1024] = {};
        uint32_t length = sizeof buffer;
        EXPECT_EQ(failure.result, api.connectionWrite(connection.Handle(), buffer, &length));
        EXPECT_EQ(0u, length);
        length = sizeof buffer;
        EXPECT_EQ(failure.result, api.connectionRead(connection.Handle(), buffer, &length));
        EXPECT_EQ(0u, length);
        uint32_t activity = 0xA5;
        EXPECT_EQ(failure.result, api.connectionGetActivity(connection.Handle(), &activity));
        EXPECT_EQ(0xA5u, activity);
        int eventHandle = 0;
        EXPECT_EQ(failure.result, api.connectionGetEventHandle(connection.Handle(), &eventHandle, nullptr));
        EXPECT_EQ(failure.result, api.connectionTimerExpired(connection.Handle()));
        EXPECT_THAT(Submitted(kOut), testing::IsEmpty());
        NextStory(connection);
    }
}

TEST_F(AccessoryConnection, ConnectionIsEstablishedOnceAndUsedOnlyAfterwards) {
    const KestoBearerInterface& api = toolkit.Interface();
    void* never = toolkit.CreateConnection().Handle();
    uint8_t buffer[8] = {};
    uint32_t length = sizeof buffer;
    uint32_t activity = 0;
    EXPECT_EQ(KestoBearerErrorFailed, api.connectionGetActivity(never, &activity));
    EXPECT_EQ(KestoBearerErrorFailed, api.connectionRead(never, buffer, &length));
    EXPECT_EQ(0u, length);
    EXPECT_EQ(KestoBearerErrorFailed, api.connectionWrite(never, buffer, &length));

    fakeusb::Bus::Add(fakeusb::AccessoryPhone(1, 5, kSerial));
    ToolkitConnection& twice = Establish();
    EXPECT_EQ(KestoBearerErrorFailed, api.connectionEstablish(twice.Handle()));
    EXPECT_EQ(1, fakeusb::Calls::Count("libusb_init"));
    EXPECT_EQ(4u, twice.Lookups().size());
}

// ---- A phone already in accessory mode: its interface is chosen and set up ----

AltSetting Accessory(uint8_t number, std::vector<fakeusb::Endpoint> endpoints, uint8_t alternate = 0) {
    return AltSetting{number, alternate, 0xFF, 0xFF, 0x00, std::move(endpoints)};
}

fakeusb::Endpoint Interrupt(uint8_t address) { return fakeusb::Endpoint{address, 64, LIBUSB_TRANSFER_TYPE_INTERRUPT}; }

AltSetting DebugBridge(uint8_t number) { return AltSetting{number, 0, 0xFF, 0x42, 0x01, {Bulk(0x82), Bulk(0x02)}}; }

// The interfaces claimed, then the endpoints cleared of halts (IN, then OUT): "1: 0x81 0x01".
std::string SetUpOn(int phone) {
    std::string text;
    for (int number : fakeusb::Bus::ClaimedInterfaces(phone)) {
        text += std::to_string(number) + ":";
    }
    for (const std::string& call : fakeusb::Calls::Named("libusb_clear_halt")) {
        text += " " + call.substr(call.size() - 5, 4);
    }
    return text;
}

const fakeusb::Interface kAccessory01{Accessory(0, {Bulk(0x81), Bulk(0x01)})};
const char kStartManually[] = "Kesto server may need to be started manually.";
const char kNoneSuitable[] = "Failed to find suitable interface for AAP from device.";
const char kTooFewEndpoints[] = "There are less than 2 endpoints exposed by the android device.";
const char kNoBulkPairOn1[] = "Error: interface 1 lacks a bulk IN and a bulk OUT endpoint";

// A phone already in accessory mode, laid out as the row says; set up, or not
// (nothing claimed) with the row's message.
struct Layout {
    const char* story;
    std::vector<fakeusb::Interface> interfaces;
    Fields fields;
    std::string lastLog;
    std::string setUp;
    int configuration = 1;
    std::optional<std::pair<Function, int>> failing = std::nullopt;
};

TEST_F(AccessoryConnection, AccessoryInterfaceAndEndpointsAreChosenAndSetUp) {
    const Layout layouts[] = {
        {"debug bridge listed first", {{DebugBridge(0)}, {Accessory(1, {Bulk(0x81), Bulk(0x01)})}}, {}, kStartManually,
         "1: 0x81 0x01"},
        {"OUT endpoint before IN", {{Accessory(0, {Bulk(0x03), Bulk(0x84)})}}, {}, kStartManually, "0: 0x84 0x03"},
        {"lowest interface number wins, not the first listed",
         {{Accessory(2, {Bulk(0x84), Bulk(0x04)})}, {Accessory(1, {Bulk(0x81), Bulk(0x01)})}}, {}, kStartManually,
         "1: 0x81 0x01"},
        {"given interface and alternate setting", {{kAccessory01[0], Accessory(0, {Bulk(0x83), Bulk(0x03)}, 1)}},
         {{"interface", "0"}, {"altsetting", "1"}}, kStartManually, "0: 0x83 0x03"},
        {"given interface may be the debug bridge", {{DebugBridge(0)}}, {{"interface", "0"}}, kStartManually,
         "0: 0x82 0x02"},
        {"first bulk endpoint of each direction",
         {{Accessory(0, {Interrupt(0x85), Bulk(0x81), Bulk(0x82), Bulk(0x01), Bulk(0x02)})}}, {}, kStartManually,
         "0: 0x81 0x01"},
        {"two OUT endpoints make an interface ineligible",
         {{Accessory(0, {Bulk(0x01), Bulk(0x02)})}, {Accessory(1, {Bulk(0x83), Bulk(0x03)})}}, {}, kStartManually,
         "1: 0x83 0x03"},
        {"a later interface has no setting", {kAccessory01, {}}, {}, kStartManually, "0: 0x81 0x01"},
        {"unconfigured phone", {kAccessory01}, {}, kStartManually, "0: 0x81 0x01", 0},
        {"configuration unreadable", {kAccessory01}, {}, "Error getting current configuration: -1", "0: 0x81 0x01", 1,
         {{Function::GetConfiguration, LIBUSB_ERROR_IO}}},
        {"configuration refused", {kAccessory01}, {}, "Error setting configuration: -6, in configuration 0", "", 0,
         {{Function::SetConfiguration, LIBUSB_ERROR_BUSY}}},
        {"given interface has one endpoint", {kAccessory01, {Accessory(1, {Bulk(0x83)})}}, {{"interface", "1"}},
         kNoBulkPairOn1, ""},
        {"given interface has two IN endpoints", {kAccessory01, {Accessory(1, {Bulk(0x83), Bulk(0x84)})}},
         {{"interface", "1"}}, kNoBulkPairOn1, ""},
        {"interrupt IN with bulk OUT", {{Accessory(0, {Interrupt(0x81), Bulk(0x01)})}}, {}, kNoneSuitable, ""},
        {"given interface absent", {kAccessory01}, {{"interface", "3"}}, kNoneSuitable, ""},
        {"given alternate setting absent", {kAccessory01}, {{"interface", "0"}, {"altsetting", "2"}}, kNoneSuitable,
         ""},
        {"only the debug bridge", {{DebugBridge(0)}}, {}, kNoneSuitable, ""},
        {"first interface has one endpoint", {{Accessory(0, {Bulk(0x81)})}, {Accessory(1, {Bulk(0x83), Bulk(0x03)})}},
         {}, kTooFewEndpoints, ""},
        {"first interface has no setting", {{}, {Accessory(1, {Bulk(0x83), Bulk(0x03)})}}, {}, kTooFewEndpoints, ""},
        {"no interfaces", {}, {}, "No interfaces on attached device.", ""},
    };
    for (const Layout& layout : layouts) {
        SCOPED_TRACE(layout.story);
        fakeusb::DeviceSpec described = fakeusb::AccessoryPhone(1, 5, kSerial);
        described.interfaces = layout.interfaces;
        described.configuration = layout.configuration;
        const int id = fakeusb::Bus::Add(described);
        if (layout.failing) {
            Failures::Fail(layout.failing->first, layout.failing->second);
        }
        const bool setUp = !layout.setUp.empty();
        ToolkitConnection& connection = Establish(layout.fields, setUp ? KestoBearerErrorNone : KestoBearerErrorFailed);
        EXPECT_EQ(layout.lastLog, connection.Log().back());
        EXPECT_EQ(layout.setUp, SetUpOn(id));
        EXPECT_EQ(layout.configuration == 0 ? 1 : 0, fakeusb::Calls::Count("libusb_set_configuration"));
        EXPECT_EQ(0, fakeusb::Calls::Count("libusb_set_interface_alt_setting"));
        if (setUp) { // the handshake read goes out on the chosen IN endpoint
            const auto in = static_cast<unsigned char>(std::stoi(layout.setUp.substr(2), nullptr, 16));
            const std::optional<Submission> read = Transfers::OldestInFlight(in);
            ASSERT_TRUE(read.has_value());
            EXPECT_EQ(16384, read->length);
            EXPECT_TRUE(read->interfaceClaimed);
        }
        NextStory(connection);
    }
}

} // namespace
} // namespace aap
