// Phones that go away, and toolkits that give up: whatever the stage, the
// toolkit hears of it or stops the connection itself, and nothing is left over.
#include <functional>
#include <optional>

#include "PhoneStory.h"

using emuphone::PhoneOptions;
using emuphone::PhoneStage;

namespace {

struct Unplug {
    const char* name;
    PhoneStage stage;
    uint64_t afterBytes = 0;
    int handshakeDelayMs = 0;
};

class PhoneUnplugged : public PhoneStory, public testing::WithParamInterface<Unplug> {};

TEST_P(PhoneUnplugged, ErrorReachesTheToolkit) {
    PhoneOptions options;
    options.unplugAt = GetParam().stage;
    options.unplugAfterBytes = GetParam().afterBytes;
    options.handshakeDelay = Ms(GetParam().handshakeDelayMs);
    emuphone::EmulatedPhone& phone = Plug(options);
    ToolkitConnection& connection = Connect(phone);

    int error = 0;
    if (GetParam().afterBytes > 0) {
        ASSERT_TRUE(RunUntilConnected(connection));
        error = Echo(*toolkit, connection, 8 * GetParam().afterBytes).error;
    } else {
        ASSERT_TRUE(toolkit->RunUntil([&] { return connection.Failure() != 0; }));
        error = connection.Failure();
    }
    EXPECT_EQ(KestoBearerErrorFailed, error);
    EXPECT_TRUE(phone.Report().Reached(PhoneStage::Unplugged));
    toolkit->Destroy(connection);
}

INSTANTIATE_TEST_SUITE_P(, PhoneUnplugged,
                         testing::Values(Unplug{"DuringTheSwitch", PhoneStage::VersionQueried},
                                         Unplug{"DuringTheHandshake", PhoneStage::InterfaceClaimed, 0, 300},
                                         Unplug{"MidStream", PhoneStage::HandshakeDone, 1 << 20}),
                         [](const testing::TestParamInfo<Unplug>& info) { return info.param.name; });

// Rediscovery has no time limit: the search goes on until the phone is back
// or the toolkit gives up, so here it is the toolkit that hears nothing.
TEST_F(PhoneStory, PhonePulledWhileAwayIsFoundWhenPluggedBackInAccessoryMode) {
    PhoneOptions options;
    options.unplugAt = PhoneStage::Detached;
    emuphone::EmulatedPhone& phone = Plug(options);
    ToolkitConnection& connection = Connect(phone);
    ASSERT_TRUE(toolkit->RunUntil([&] { return phone.Report().Reached(PhoneStage::Unplugged); }));
    toolkit->RunFor(Ms(400));
    EXPECT_FALSE(Connected(connection));
    EXPECT_EQ(0, connection.Failure());
    EXPECT_TRUE(connection.TimerPending()) << "the search stopped";

    PhoneOptions back;
    back.startInAccessoryMode = true;
    emuphone::EmulatedPhone& again = Plug(back);
    ASSERT_TRUE(RunUntilConnected(connection));
    EXPECT_TRUE(Logged(connection, "Located device with matching serial number"));
    EXPECT_TRUE(again.Report().Reached(PhoneStage::HandshakeDone));
}

struct DestroyPoint {
    const char* name;
    std::function<void(PhoneOptions&)> phone;
    // Where to drive the connection first: a point in the phone's story, or connected.
    std::function<bool(const emuphone::PhoneReport&)> until;
    bool connected = false;
    bool writing = false;
    int settleMs = 0;
    bool transferInFlight = true;
};

class DestroyedAt : public PhoneStory, public testing::WithParamInterface<DestroyPoint> {};

// Never answered: the request stays in flight until the connection cancels it.
PhoneOptions::ControlFault Unanswered(uint8_t request) { return {request, 1, 0}; }

bool Holding(const emuphone::PhoneReport& report) { return report.heldRequests > 0; }

std::function<bool(const emuphone::PhoneReport&)> Reached(PhoneStage stage) {
    return [stage](const emuphone::PhoneReport& report) { return report.Reached(stage); };
}

TEST_P(DestroyedAt, CancelsWhatIsInFlightAndReturns) {
    const DestroyPoint& point = GetParam();
    PhoneOptions options;
    if (point.phone) {
        point.phone(options);
    }
    emuphone::EmulatedPhone& phone = Plug(options);
    ToolkitConnection& connection = Connect(phone);
    if (point.until) {
        ASSERT_TRUE(toolkit->RunUntil([&] { return point.until(phone.Report()); }));
    }
    if (point.connected) {
        ASSERT_TRUE(RunUntilConnected(connection));
    }
    if (point.writing) {
        EXPECT_EQ(1u << 20, toolkit->Write(connection, std::vector<uint8_t>(1 << 20, 0x5A)).length);
    }
    toolkit->RunFor(Ms(point.settleMs));
    EXPECT_EQ(0, connection.Failure());
    const int discardedBefore = phone.Report().discardedTransfers;

    toolkit->Destroy(connection);
    if (point.transferInFlight) {
        EXPECT_GT(phone.Report().discardedTransfers, discardedBefore);
    }
}

// Each point is reached by waiting for it, never by waiting a while: the
// transfers expected in flight are known to be there when the toolkit gives up.
INSTANTIATE_TEST_SUITE_P(
    , DestroyedAt,
    testing::Values(
        DestroyPoint{"RightAfterEstablish", nullptr, nullptr, false, false, 0, false},
        DestroyPoint{"VersionQueryUnanswered", [](PhoneOptions& o) { o.controlFaults = {Unanswered(51)}; }, Holding},
        DestroyPoint{"IdentityStringUnanswered", [](PhoneOptions& o) { o.controlFaults = {Unanswered(52)}; },
                     Holding},
        DestroyPoint{"StartRequestUnanswered", [](PhoneOptions& o) { o.controlFaults = {Unanswered(53)}; }, Holding},
        // Searching: nothing is in flight between the steps.
        DestroyPoint{"WhilePhoneIsAway", [](PhoneOptions& o) { o.returnDelay = std::chrono::milliseconds(-1); },
                     Reached(PhoneStage::Detached), false, false, 250, false},
        // The handshake read goes out with the claim.
        DestroyPoint{"AwaitingTheHandshake", [](PhoneOptions& o) { o.sendHandshake = false; },
                     Reached(PhoneStage::InterfaceClaimed)},
        DestroyPoint{"ConnectedAndIdle", nullptr, nullptr, true},
        DestroyPoint{"WriteHalfTaken", [](PhoneOptions& o) { o.readRule = PhoneOptions::ReadRule::PhoneDriver; },
                     nullptr, true, true, 50}),
    [](const testing::TestParamInfo<DestroyPoint>& info) { return info.param.name; });

} // namespace
