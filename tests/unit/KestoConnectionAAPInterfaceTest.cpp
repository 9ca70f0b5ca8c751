#include <optional>

#include "KestoConnectionAAPFixture.h"

namespace aap {
namespace {

using fakeusb::AltSetting;
using fakeusb::Bulk;
using fakeusb::Failures;
using fakeusb::Function;

AltSetting Accessory(uint8_t number, std::vector<fakeusb::Endpoint> endpoints, uint8_t alternate = 0) {
    return AltSetting{number, alternate, 0xFF, 0xFF, 0x00, std::move(endpoints)};
}

fakeusb::Endpoint Interrupt(uint8_t address) { return fakeusb::Endpoint{address, 64, LIBUSB_TRANSFER_TYPE_INTERRUPT}; }

AltSetting DebugBridge(uint8_t number) { return AltSetting{number, 0, 0xFF, 0x42, 0x01, {Bulk(0x82), Bulk(0x02)}}; }

const std::vector<fakeusb::Interface> kAccessoryOnly{{Accessory(0, {Bulk(0x81), Bulk(0x01)})}};
const char kStartManually[] = "Kesto server may need to be started manually.";
const char kTooFewEndpoints[] = "There are less than 2 endpoints exposed by the android device.";

// A phone already in accessory mode, laid out as the row says.
struct Layout {
    const char* story;
    std::vector<fakeusb::Interface> interfaces;
    Fields fields;
    int configuration;
    std::optional<std::pair<Function, int>> failing;
    int result;
    std::string lastLog;
    std::vector<int> claimed;
    std::vector<std::string> endpoints; // as cleared of halts: IN, then OUT
    bool setsConfiguration;
};

TEST_F(AccessoryConnection, AccessoryInterfaceAndEndpointsAreChosenAndSetUp) {
    // Which interface wins is AccessoryInterface's; these rows show the
    // choice set up on the phone, and each way set-up ends with its message.
    const Layout layouts[] = {
        {"debug bridge listed first", {{DebugBridge(0)}, {Accessory(1, {Bulk(0x81), Bulk(0x01)})}}, {}, 1, {}, 0,
         kStartManually, {1}, {"0x81", "0x01"}, false},
        {"given interface and alternate setting",
         {{Accessory(0, {Bulk(0x81), Bulk(0x01)}), Accessory(0, {Bulk(0x83), Bulk(0x03)}, 1)}},
         {{"interface", "0"}, {"altsetting", "1"}}, 1, {}, 0, kStartManually, {0}, {"0x83", "0x03"}, false},
        {"unconfigured phone", kAccessoryOnly, {}, 0, {}, 0, kStartManually, {0}, {"0x81", "0x01"}, true},
        {"configuration unreadable", kAccessoryOnly, {}, 1, {{Function::GetConfiguration, LIBUSB_ERROR_IO}}, 0,
         "Error getting current configuration: -1", {0}, {"0x81", "0x01"}, false},
        {"configuration refused", kAccessoryOnly, {}, 0, {{Function::SetConfiguration, LIBUSB_ERROR_BUSY}},
         KestoBearerErrorFailed, "Error setting configuration: -6, in configuration 0", {}, {}, true},
        {"given interface has one endpoint",
         {{Accessory(0, {Bulk(0x81), Bulk(0x01)})}, {Accessory(1, {Bulk(0x83)})}}, {{"interface", "1"}}, 1, {},
         KestoBearerErrorFailed, "Error: interface 1 lacks a bulk IN and a bulk OUT endpoint", {}, {}, false},
        {"interrupt IN with bulk OUT", {{Accessory(0, {Interrupt(0x81), Bulk(0x01)})}}, {}, 1, {},
         KestoBearerErrorFailed, "Failed to find suitable interface for AAP from device.", {}, {}, false},
        {"first interface has one endpoint", {{Accessory(0, {Bulk(0x81)})}, {Accessory(1, {Bulk(0x83), Bulk(0x03)})}},
         {}, 1, {}, KestoBearerErrorFailed, kTooFewEndpoints, {}, {}, false},
        {"no interfaces", {}, {}, 1, {}, KestoBearerErrorFailed, "No interfaces on attached device.", {}, {}, false},
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
        ToolkitConnection& connection = Establish(layout.fields, layout.result);
        EXPECT_EQ(layout.lastLog, connection.Log().back());
        EXPECT_THAT(fakeusb::Bus::ClaimedInterfaces(id), ElementsAreArray(layout.claimed));
        std::vector<std::string> cleared;
        for (const std::string& call : fakeusb::Calls::Named("libusb_clear_halt")) {
            cleared.push_back(call.substr(call.size() - 5, 4));
        }
        EXPECT_THAT(cleared, ElementsAreArray(layout.endpoints));
        EXPECT_EQ(layout.setsConfiguration ? 1 : 0, fakeusb::Calls::Count("libusb_set_configuration"));
        EXPECT_EQ(0, fakeusb::Calls::Count("libusb_set_interface_alt_setting"));
        const std::optional<Submission> read = Transfers::OldestInFlight(
            layout.endpoints.empty() ? kIn : static_cast<unsigned char>(std::stoi(layout.endpoints[0], nullptr, 16)));
        EXPECT_EQ(layout.result == KestoBearerErrorNone, read.has_value());
        if (read) {
            EXPECT_EQ(16384, read->length);
            EXPECT_TRUE(read->interfaceClaimed);
        }
        NextStory(connection);
    }
}

} // namespace
} // namespace aap
