// Phones that go away, and toolkits that give up: whatever the stage, the
// toolkit hears of it or stops the connection itself, and nothing is left over.
#include <chrono>
#include <cstdio>
#include <functional>
#include <future>
#include <thread>

#include "PhoneStory.h"

using emuphone::PhoneOptions;
using emuphone::PhoneStage;

namespace {

struct Unplug {
    const char* name;
    PhoneStage stage;
    int handshakeDelayMs = 0;
    // Mid-stream: the phone's sink application takes this much of a megabyte
    // the toolkit wrote, and the toolkit, with nothing more to say, sits idle.
    int afterBytes = 0;
};

class PhoneUnplugged : public PhoneStory, public testing::WithParamInterface<Unplug> {};

// An idle toolkit neither reads nor writes: it asks for activity when the
// handle wakes it and now and then besides. The unplug must reach it, and
// every later call must say the same until it gives up.
TEST_P(PhoneUnplugged, ErrorReachesTheToolkitAndStaysReported) {
    const Unplug& unplug = GetParam();
    PhoneOptions options;
    options.unplugAt = unplug.stage;
    options.handshakeDelay = Ms(unplug.handshakeDelayMs);
    options.unplugAfterBytes = unplug.afterBytes;
    if (unplug.afterBytes != 0) {
        options.application = PhoneOptions::Application::Sink;
    }
    emuphone::EmulatedPhone& phone = Plug(options);
    ToolkitConnection& connection = Connect(phone);
    if (unplug.afterBytes != 0) {
        ASSERT_TRUE(RunUntilConnected(connection));
        ASSERT_EQ(1u << 20, toolkit->Write(connection, std::vector<uint8_t>(1 << 20, 0x5A)).length);
    }

    const KestoBearerInterface& bearer = toolkit->Interface();
    void* const handle = connection.Handle();
    int asked = 0;
    ASSERT_TRUE(toolkit->RunUntil([&] {
        uint32_t activity = 0;
        asked = unplug.afterBytes != 0 ? bearer.connectionGetActivity(handle, &activity) : 0;
        return connection.Failure() != 0 || asked != 0;
    })) << "the phone took " << phone.Report().bytesFromHost << " bytes";
    EXPECT_EQ(KestoBearerErrorFailed, connection.Failure() != 0 ? connection.Failure() : asked);
    EXPECT_TRUE(phone.Report().Reached(PhoneStage::Unplugged));
    for (int call = 1; call <= 3; ++call) {
        std::this_thread::sleep_for(Ms(20));
        uint32_t activity = 0;
        int descriptor = -1;
        intptr_t extra = 0;
        EXPECT_EQ(KestoBearerErrorFailed, bearer.connectionGetActivity(handle, &activity)) << "call " << call;
        EXPECT_EQ(KestoBearerErrorFailed, bearer.connectionGetEventHandle(handle, &descriptor, &extra))
            << "call " << call;
        EXPECT_EQ(KestoBearerErrorFailed, bearer.connectionTimerExpired(handle)) << "call " << call;
    }
    toolkit->Destroy(connection);
}

INSTANTIATE_TEST_SUITE_P(, PhoneUnplugged,
                         testing::Values(Unplug{"DuringTheSwitch", PhoneStage::VersionQueried},
                                         Unplug{"DuringTheHandshake", PhoneStage::InterfaceClaimed, 300},
                                         Unplug{"MidStreamToAnIdleToolkit", PhoneStage::HandshakeDone, 0, 256 << 10}),
                         [](const testing::TestParamInfo<Unplug>& info) { return info.param.name; });

// The phone vanishes while what it sent waits unread, part of it taken in by
// the host but not yet by the plug-in: a toolkit that reads until the failure
// gets every byte the phone sent, and the failure then stays.
class UnreadWhenUnplugged : public PhoneStory {};

TEST_F(UnreadWhenUnplugged, EveryByteSentIsReadBeforeTheFailureAndNoneAfter) {
    PhoneOptions options;
    options.application = PhoneOptions::Application::Source;
    options.sourceChunk = 4000; // each ends one read of the host's
    emuphone::EmulatedPhone& phone = Plug(options);
    ToolkitConnection& connection = Connect(phone);
    ASSERT_TRUE(RunUntilConnected(connection));
    ASSERT_TRUE(toolkit->RunUntil([&] { return (connection.Activity() & KestoBearerActivityReadable) != 0; }));
    uint64_t read = toolkit->Read(connection, 1 << 16).bytes.size();
    // The plug-in's four reads full again, then the cable goes.
    ASSERT_TRUE(phone.WaitUntil([](const emuphone::PhoneReport& r) { return r.bytesToHost >= 20000; }, Ms(1000)));
    phone.Unplug();
    Toolkit::Transfer next;
    while ((next = toolkit->Read(connection, 1 << 16)).result == KestoBearerErrorNone && !next.bytes.empty()) {
        read += next.bytes.size();
    }
    EXPECT_EQ(phone.Report().bytesToHost, read);
    EXPECT_EQ(KestoBearerErrorFailed, next.result);
    EXPECT_EQ(KestoBearerErrorFailed, toolkit->Interface().connectionTimerExpired(connection.Handle()));
    EXPECT_EQ(KestoBearerErrorFailed, toolkit->Read(connection, 1 << 16).result);
}

struct DestroyPoint {
    const char* name;
    std::function<void(PhoneOptions&)> phone;
    // Where to drive the connection first: a point in the phone's story; without one, connected.
    std::function<bool(const emuphone::PhoneReport&)> until;
    size_t writeBytes = 0; // then written
    int settleMs = 0;
    bool transferInFlight = true;
};

class DestroyedAt : public PhoneStory, public testing::WithParamInterface<DestroyPoint> {};

// A connectionDestroy that hangs would hang the run: after five seconds the
// phone is pulled, which ends whatever the plug-in still waits for, and the
// time it took tells the failure.
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
    } else {
        ASSERT_TRUE(RunUntilConnected(connection));
    }
    if (point.writeBytes != 0) {
        EXPECT_EQ(point.writeBytes, toolkit->Write(connection, std::vector<uint8_t>(point.writeBytes, 0x5A)).length);
    }
    toolkit->RunFor(Ms(point.settleMs));
    EXPECT_EQ(0, connection.Failure());
    const int discardedBefore = phone.Report().discardedTransfers;

    std::promise<void> returned;
    std::thread watchdog([&phone, done = returned.get_future()] {
        if (done.wait_for(std::chrono::seconds(5)) == std::future_status::timeout) {
            phone.Unplug();
        }
    });
    const auto start = std::chrono::steady_clock::now();
    toolkit->Destroy(connection);
    const std::chrono::duration<double, std::milli> ms = std::chrono::steady_clock::now() - start;
    returned.set_value();
    watchdog.join();
    EXPECT_LT(ms.count(), 2000) << "connectionDestroy took " << ms.count() << " ms";
    std::printf("[ figure ] connectionDestroy returned in %.1f ms\n", ms.count());
    if (point.transferInFlight) {
        EXPECT_GT(phone.Report().discardedTransfers, discardedBefore);
    }
}

// Each point is reached by waiting for it, never by waiting a while: the
// transfers expected in flight are known to be there when the toolkit gives up.
INSTANTIATE_TEST_SUITE_P(
    , DestroyedAt,
    testing::Values(
        DestroyPoint{"RightAfterEstablish", nullptr, [](const emuphone::PhoneReport&) { return true; }, 0, 0, false},
        // Never answered: the request stays in flight until the connection cancels it.
        DestroyPoint{"VersionQueryUnanswered", [](PhoneOptions& o) { o.controlFaults = {{51, 1, 0}}; },
                     [](const emuphone::PhoneReport& r) { return r.heldRequests > 0; }},
        // Searching: nothing is in flight between the steps.
        DestroyPoint{"WhilePhoneIsAway", [](PhoneOptions& o) { o.returnDelay = Ms(-1); },
                     [](const emuphone::PhoneReport& r) { return r.Reached(PhoneStage::Detached); }, 0, 250, false},
        DestroyPoint{"ConnectedAndIdle", nullptr, nullptr},
        DestroyPoint{"WriteHalfTaken", nullptr, nullptr, 16 << 20, 50},
        // The phone takes one byte of each transfer, at once: a completion
        // that leaves the rest of the write to send is always at hand.
        DestroyPoint{"WriteTakenAByteAtATime",
                     [](PhoneOptions& o) {
                         o.application = PhoneOptions::Application::Sink;
                         o.outCompletionCap = 1;
                         o.link = emuphone::LinkModel::Instant();
                     },
                     nullptr, 16 << 20, 50}),
    [](const testing::TestParamInfo<DestroyPoint>& info) { return info.param.name; });

} // namespace
