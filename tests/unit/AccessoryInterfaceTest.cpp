#include <gtest/gtest.h>

#include <vector>

#include "aap/AccessoryInterface.h"

namespace {

using Outcome = AccessoryInterface::Outcome;

libusb_endpoint_descriptor Endpoint(uint8_t address, uint8_t type = LIBUSB_TRANSFER_TYPE_BULK) {
    libusb_endpoint_descriptor endpoint{};
    endpoint.bEndpointAddress = address;
    endpoint.bmAttributes = type;
    endpoint.wMaxPacketSize = 512;
    return endpoint;
}
const uint8_t kInterrupt = LIBUSB_TRANSFER_TYPE_INTERRUPT;

struct Alt {
    uint8_t number;
    std::vector<libusb_endpoint_descriptor> endpoints;
    uint8_t alternate = 0;
    uint8_t subClass = 0xFF; // 0x42 with protocol 1 is the debug bridge
    uint8_t protocol = 0;
};
Alt Bridge(uint8_t number) { return {number, {Endpoint(0x82), Endpoint(0x02)}, 0, 0x42, 1}; }

// A configuration descriptor as libusb hands it over, built from interfaces
// of alternate settings; the vectors own what the pointers point at.
class Config {
public:
    explicit Config(const std::vector<std::vector<Alt>>& layout) : alts(layout.size()), endpoints(layout) {
        for (size_t i = 0; i < layout.size(); ++i) {
            for (size_t j = 0; j < layout[i].size(); ++j) {
                const Alt& alt = layout[i][j];
                libusb_interface_descriptor d{};
                d.bInterfaceNumber = alt.number;
                d.bAlternateSetting = alt.alternate;
                d.bInterfaceClass = 0xFF;
                d.bInterfaceSubClass = alt.subClass;
                d.bInterfaceProtocol = alt.protocol;
                d.bNumEndpoints = static_cast<uint8_t>(alt.endpoints.size());
                d.endpoint = endpoints[i][j].endpoints.data();
                alts[i].push_back(d);
            }
            interfaces.push_back({alts[i].data(), static_cast<int>(alts[i].size())});
        }
        config.bNumInterfaces = static_cast<uint8_t>(interfaces.size());
        config.interface = interfaces.empty() ? nullptr : interfaces.data();
    }
    libusb_config_descriptor config{};

private:
    std::vector<std::vector<libusb_interface_descriptor>> alts;
    std::vector<std::vector<Alt>> endpoints;
    std::vector<libusb_interface> interfaces;
};

struct Choice {
    const char* story;
    std::vector<std::vector<Alt>> layout;
    int wantedInterface;
    int wantedAlternate;
    Outcome outcome;
    int number; // the interface chosen, or named by kNoBulkPair
    int alternate;
    uint8_t in;
    uint8_t out;
};

TEST(AccessoryInterface, IsChosenFromTheDescriptorAlone) {
    const Choice choices[] = {
        {"the accessory alone", {{{0, {Endpoint(0x81), Endpoint(0x01)}}}}, -1, -1, Outcome::kChosen, 0, 0, 0x81, 0x01},
        {"debug bridge listed first", {{Bridge(0)}, {{1, {Endpoint(0x81), Endpoint(0x01)}}}}, -1, -1,
         Outcome::kChosen, 1, 0, 0x81, 0x01},
        {"OUT endpoint before IN", {{{0, {Endpoint(0x03), Endpoint(0x84)}}}}, -1, -1, Outcome::kChosen, 0, 0, 0x84,
         0x03},
        {"lowest interface number wins, not the first listed",
         {{{2, {Endpoint(0x84), Endpoint(0x04)}}}, {{1, {Endpoint(0x81), Endpoint(0x01)}}}}, -1, -1, Outcome::kChosen,
         1, 0, 0x81, 0x01},
        {"given interface and alternate setting",
         {{{0, {Endpoint(0x81), Endpoint(0x01)}}, {0, {Endpoint(0x83), Endpoint(0x03)}, 1}}}, 0, 1, Outcome::kChosen,
         0, 1, 0x83, 0x03},
        {"given interface may be the debug bridge", {{Bridge(0)}}, 0, -1, Outcome::kChosen, 0, 0, 0x82, 0x02},
        {"first bulk endpoint of each direction",
         {{{0, {Endpoint(0x85, kInterrupt), Endpoint(0x81), Endpoint(0x82), Endpoint(0x01), Endpoint(0x02)}}}}, -1,
         -1, Outcome::kChosen, 0, 0, 0x81, 0x01},
        {"two OUT endpoints make an interface ineligible",
         {{{0, {Endpoint(0x01), Endpoint(0x02)}}}, {{1, {Endpoint(0x83), Endpoint(0x03)}}}}, -1, -1, Outcome::kChosen,
         1, 0, 0x83, 0x03},
        {"given interface has one endpoint",
         {{{0, {Endpoint(0x81), Endpoint(0x01)}}}, {{1, {Endpoint(0x83)}}}}, 1, -1, Outcome::kNoBulkPair, 1, -1, 0, 0},
        {"given interface has two IN endpoints",
         {{{0, {Endpoint(0x81), Endpoint(0x01)}}}, {{1, {Endpoint(0x83), Endpoint(0x84)}}}}, 1, -1,
         Outcome::kNoBulkPair, 1, -1, 0, 0},
        {"interrupt IN with bulk OUT", {{{0, {Endpoint(0x81, kInterrupt), Endpoint(0x01)}}}}, -1, -1,
         Outcome::kNoSuitableInterface, -1, -1, 0, 0},
        {"given interface absent", {{{0, {Endpoint(0x81), Endpoint(0x01)}}}}, 3, -1, Outcome::kNoSuitableInterface,
         -1, -1, 0, 0},
        {"given alternate setting absent", {{{0, {Endpoint(0x81), Endpoint(0x01)}}}}, 0, 2,
         Outcome::kNoSuitableInterface, -1, -1, 0, 0},
        {"only the debug bridge", {{Bridge(0)}}, -1, -1, Outcome::kNoSuitableInterface, -1, -1, 0, 0},
        {"first interface has one endpoint",
         {{{0, {Endpoint(0x81)}}}, {{1, {Endpoint(0x83), Endpoint(0x03)}}}}, -1, -1, Outcome::kTooFewEndpoints, -1,
         -1, 0, 0},
        {"first interface has no setting", {{}, {{1, {Endpoint(0x83), Endpoint(0x03)}}}}, -1, -1,
         Outcome::kTooFewEndpoints, -1, -1, 0, 0},
        {"a later interface has no setting", {{{0, {Endpoint(0x81), Endpoint(0x01)}}}, {}}, -1, -1, Outcome::kChosen,
         0, 0, 0x81, 0x01},
        {"no interfaces", {}, -1, -1, Outcome::kNoInterfaces, -1, -1, 0, 0},
    };
    for (const Choice& c : choices) {
        SCOPED_TRACE(c.story);
        const Config config(c.layout);
        const AccessoryInterface chosen = AccessoryInterface::Choose(config.config, c.wantedInterface,
                                                                     c.wantedAlternate);
        EXPECT_EQ(c.outcome, chosen.outcome);
        EXPECT_EQ(c.number, chosen.number);
        EXPECT_EQ(c.alternate, chosen.alternateSetting);
        EXPECT_EQ(c.in, chosen.inEndpoint);
        EXPECT_EQ(c.out, chosen.outEndpoint);
    }
}

} // namespace
