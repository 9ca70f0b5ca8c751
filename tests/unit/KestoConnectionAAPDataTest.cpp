#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>

#include "KestoConnectionAAPFixture.h"
#include "SelectFaults.h"

namespace aap {
namespace {

using fakeusb::Failures;
using fakeusb::Function;
using testing::HasSubstr;
using testing::Not;

std::vector<unsigned> ReadTimeouts() {
    std::vector<unsigned> timeouts;
    for (const Submission& s : Submitted(kIn)) {
        timeouts.push_back(s.timeout);
    }
    return timeouts;
}

TEST_F(AccessoryConnection, HandshakeIsAnsweredAndConnectedIsReportedOnce) {
    ToolkitConnection& connection = Connected();
    const std::vector<Submission> writes = Submitted(kOut);
    ASSERT_EQ(1u, writes.size());
    EXPECT_EQ(kHostHandshake, writes[0].data);
    EXPECT_EQ(0u, writes[0].timeout);
    EXPECT_THAT(ReadTimeouts(), ElementsAre(3000u, 0u, 0u, 0u, 0u)); // data reads wait as long as the phone does
    EXPECT_EQ(unsigned(KestoBearerActivityWritable), connection.Activity());
    EXPECT_THAT(connection.Statuses(), ElementsAre(3, 4));
}

// The phone's first application bytes ride in the handshake's transfer: the
// first Read yields exactly them, with their length. A buffer too small takes
// nothing and is told exactly what is left of the chunk.
TEST_F(AccessoryConnection, ApplicationBytesBehindTheHandshakeAreTheFirstRead) {
    ToolkitConnection& connection = Connected(Join(kDeviceHandshake, Text("hello")));
    EXPECT_EQ(KestoBearerActivityReadable | KestoBearerActivityWritable, connection.Activity());
    const Toolkit::Transfer small = toolkit.Read(connection, 4);
    EXPECT_EQ(KestoBearerErrorBufferTooSmall, small.result);
    EXPECT_EQ(5u, small.length);
    const Toolkit::Transfer first = toolkit.Read(connection, 64);
    EXPECT_EQ(KestoBearerErrorNone, first.result);
    EXPECT_EQ(5u, first.length);
    EXPECT_EQ(Text("hello"), first.bytes);
    EXPECT_EQ(0u, toolkit.Read(connection, 64).length);
}

// The phone's first attempts are wrong; what follows a wrong handshake in the
// same transfer is dropped, and the right handshake is then accepted.
TEST_F(AccessoryConnection, WrongHandshakeIsLoggedAndReadAgain) {
    const std::pair<Bytes, std::string> attempts[] = {
        {{0x44, 0x45, 0x56}, " 0x44 0x45 0x56"},
        {Join(kHostHandshake, Text("junk")), " 0xff 0xff 0x00 0x00 0x0a 0x0a 0x48 0x4f 0x53"},
    };
    phone = fakeusb::Bus::Add(fakeusb::AccessoryPhone(1, 5, kSerial));
    ToolkitConnection& connection = Establish();
    for (const auto& [bytes, dump] : attempts) {
        PhoneSends(bytes);
        EXPECT_EQ("Device handshake wasn't as expected:" + dump, connection.Log().back());
        EXPECT_TRUE(Transfers::OldestInFlight(kIn));
    }
    EXPECT_THAT(ReadTimeouts(), ElementsAre(3000u, 3000u, 3000u));
    EXPECT_TRUE(Submitted(kOut).empty());
    PhoneSends(kDeviceHandshake);
    ASSERT_TRUE(Transfers::CompleteOldest(kOut));
    Settle();
    EXPECT_THAT(connection.Statuses(), ElementsAre(3, 4));
    EXPECT_EQ(0u, toolkit.Read(connection, 64).length);
}

TEST_F(AccessoryConnection, SilentPhoneIsClaimedAgainAndListenedToAgain) {
    phone = fakeusb::Bus::Add(fakeusb::AccessoryPhone(1, 5, kSerial));
    ToolkitConnection& connection = Establish();
    for (int timeout = 0; timeout < 2; ++timeout) {
        PhoneSends({}, LIBUSB_TRANSFER_TIMED_OUT);
    }
    EXPECT_THAT(fakeusb::Calls::Named("libusb_release_interface"),
                ElementsAre("libusb_release_interface(1:5, 0)", "libusb_release_interface(1:5, 0)"));
    EXPECT_EQ(3, CallCount("libusb_claim_interface(1:5, 0)"));
    EXPECT_THAT(fakeusb::Bus::ClaimedInterfaces(phone), ElementsAre(0));
    EXPECT_THAT(ReadTimeouts(), ElementsAre(3000u, 3000u, 3000u));
    EXPECT_EQ(0, connection.Failure());
    EXPECT_THAT(connection.Log(),
                ElementsAre("Device already in accessory mode.", "Kesto server may need to be started manually."));
}

// A failed write still completes the handshake; its error follows.
TEST_F(AccessoryConnection, HandshakeWriteThatFailsFailsTheConnection) {
    for (const bool refused : {true, false}) {
        if (refused) {
            Failures::Fail(Function::SubmitTransfer, LIBUSB_ERROR_IO, 1);
        }
        ToolkitConnection& connection = AtHandshake(kDeviceHandshake);
        if (!refused) {
            Transfers::CompleteOldest(kOut, LIBUSB_TRANSFER_STALL);
        }
        RunUntilFailed(connection);
        EXPECT_EQ(KestoBearerErrorFailed, connection.Failure());
        EXPECT_EQ(refused ? "Failed to submit handshake write, -1" : "Write failed with status: 4",
                  connection.Log().back());
        EXPECT_EQ(refused ? 1u : 2u, connection.Statuses().size());
        NextStory(connection);
    }
}

TEST_F(AccessoryConnection, SecondWriteWaitsForTheFirst) {
    ToolkitConnection& connection = Connected();
    ASSERT_EQ(5u, toolkit.Write(connection, Text("first")).length);
    const Toolkit::Transfer second = toolkit.Write(connection, Text("second"));
    EXPECT_EQ(KestoBearerErrorNone, second.result);
    EXPECT_EQ(0u, second.length);
    uint32_t activity = 0;
    EXPECT_EQ(0, toolkit.Interface().connectionGetActivity(connection.Handle(), &activity));
    EXPECT_EQ(0u, activity & KestoBearerActivityWritable);
    ASSERT_TRUE(Transfers::CompleteOldest(kOut));
    Settle();
    EXPECT_EQ(unsigned(KestoBearerActivityWritable), connection.Activity());
}

// A dead link is reported to a toolkit that only asks, and the flags are
// left as they were.
TEST_F(AccessoryConnection, StoredErrorIsReportedWithoutTouchingTheFlags) {
    ToolkitConnection& connection = Connected();
    PhoneSends(Text("lost"), LIBUSB_TRANSFER_ERROR);
    EXPECT_EQ(KestoBearerErrorFailed, connection.Failure());
    EXPECT_EQ("Error in read completion status 1", connection.Log().back());
    const KestoBearerInterface& api = toolkit.Interface();
    EXPECT_EQ(KestoBearerErrorFailed, api.connectionTimerExpired(connection.Handle()));
    uint32_t activity = 0xA5A5;
    EXPECT_EQ(KestoBearerErrorFailed, api.connectionGetActivity(connection.Handle(), &activity));
    EXPECT_EQ(0xA5A5u, activity);
    int handle = -1;
    EXPECT_EQ(KestoBearerErrorFailed, api.connectionGetEventHandle(connection.Handle(), &handle, nullptr));
    EXPECT_NE(-1, handle);
}

// A submission the device refuses is kept for the next GetActivity, which
// may be all a toolkit asks. The bytes a Read copied are the toolkit's all
// the same: the Read that delivered them succeeds.
TEST_F(AccessoryConnection, RefusedSubmissionsAreReportedByTheNextGetActivity) {
    for (const bool reading : {true, false}) {
        ToolkitConnection& connection = Connected();
        PhoneSends(Text("kept"));
        Failures::Fail(Function::SubmitTransfer, LIBUSB_ERROR_NO_DEVICE);
        if (reading) {
            const Toolkit::Transfer read = toolkit.Read(connection, 64);
            EXPECT_EQ(KestoBearerErrorNone, read.result);
            EXPECT_EQ(Text("kept"), read.bytes);
            EXPECT_EQ("Failed to submit libusb transfer for read", connection.Log().back());
            Failures::Fail(Function::SubmitTransfer, LIBUSB_ERROR_NO_DEVICE);
            const Toolkit::Transfer empty = toolkit.Read(connection, 64); // nothing left: only the refusal
            EXPECT_EQ(KestoBearerErrorFailed, empty.result);
            EXPECT_EQ(0u, empty.length);
        } else {
            const Toolkit::Transfer write = toolkit.Write(connection, Text("lost"));
            EXPECT_EQ(KestoBearerErrorFailed, write.result);
            EXPECT_EQ(0u, write.length);
        }
        uint32_t activity = 0;
        EXPECT_EQ(KestoBearerErrorFailed,
                  toolkit.Interface().connectionGetActivity(connection.Handle(), &activity));
        NextStory(connection);
    }
}

// A data read that ends with nothing is submitted again; one that cannot be
// is the next GetActivity's error. A cancel the plug-in did not ask for counts
// as ending with nothing.
TEST_F(AccessoryConnection, ReadsEndingEmptyAreLoggedAndSubmittedAgain) {
    struct Row { int status; bool refused; const char* logged; int result; };
    const Row rows[] = {
        {kCompleted, false, "Completed read of length 0", KestoBearerErrorNone},
        {LIBUSB_TRANSFER_CANCELLED, false, "Pending read cancelled", KestoBearerErrorNone},
        {kCompleted, true, "Attempt to re-read, returning error 11", KestoBearerErrorFailed},
        {LIBUSB_TRANSFER_TIMED_OUT, true, "Read resubmit on error, returned error 11", KestoBearerErrorFailed},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.logged);
        ToolkitConnection& connection = Connected();
        if (row.refused) {
            Failures::Fail(Function::SubmitTransfer, LIBUSB_ERROR_NO_DEVICE);
        }
        PhoneSends({}, row.status);
        EXPECT_THAT(connection.Log(), Contains(row.logged));
        const std::vector<Submission> inFlight = Transfers::InFlight();
        EXPECT_EQ(row.refused ? 3 : 4, std::count_if(inFlight.begin(), inFlight.end(), [](const Submission& s) {
                      return s.endpoint == kIn;
                  }));
        uint32_t activity = 0;
        EXPECT_EQ(row.result, toolkit.Interface().connectionGetActivity(connection.Handle(), &activity));
        NextStory(connection);
    }
}

// An empty packet while the handshake is awaited asks for the handshake again,
// so data that follows the handshake has no read to land in before our answer.
TEST_F(AccessoryConnection, EmptyPacketBeforeTheHandshakeIsFollowedByOneHandshakeRead) {
    ToolkitConnection& connection = AtHandshake({});
    EXPECT_THAT(ReadTimeouts(), ElementsAre(3000u, 3000u));
    EXPECT_EQ(1u, Transfers::InFlight().size());
    PhoneSends(kDeviceHandshake);
    EXPECT_FALSE(Transfers::OldestInFlight(kIn).has_value()) << "a read is open during the host handshake";
    ASSERT_TRUE(Transfers::CompleteOldest(kOut));
    Settle();
    EXPECT_THAT(connection.Statuses(), ElementsAre(3, 4));
    EXPECT_THAT(connection.Log(), Not(Contains(HasSubstr("not expected"))));
}

// The event thread's wait fails in a way it cannot outlive: the toolkit hears
// of it on its own thread, at its next GetActivity, and from then on.
TEST_F(AccessoryConnection, EventThreadThatStopsIsReportedByGetActivity) {
#if KESTO_COMPOSITOR_EPOLL
    GTEST_SKIP() << "this build's compositor has no event thread";
#endif
    ToolkitConnection& connection = Connected();
    SelectFaults::FailNext(ENOMEM);
    ASSERT_TRUE(Transfers::CompleteOldest(kIn, kCompleted, Text("wake")));
    RunUntilFailed(connection);
    SelectFaults::Reset();
    EXPECT_EQ(KestoBearerErrorFailed, connection.Failure());
    EXPECT_EQ(1, std::count(connection.Log().begin(), connection.Log().end(),
                            "Error: USB event thread stopped: " + std::string(strerror(ENOMEM))));
    uint32_t activity = 0;
    EXPECT_EQ(KestoBearerErrorFailed, toolkit.Interface().connectionGetActivity(connection.Handle(), &activity));
}

TEST_F(AccessoryConnection, TransportAndMediumAreUsb) {
    ToolkitConnection& connection = toolkit.CreateConnection();
    EXPECT_EQ("USB", toolkit.ConnectionProperty(connection, KestoConnectionPropertyTransport));
    EXPECT_EQ("USB", toolkit.ConnectionProperty(connection, KestoConnectionPropertyMedium));
    for (int property : {0, 1, 4, -1}) {
        EXPECT_EQ(std::nullopt, toolkit.ConnectionProperty(connection, property)) << property;
    }
}

// Most stories end with the connection destroyed where they leave it; these
// stages are where destruction has the most to undo.
TEST_F(AccessoryConnection, DestructionAtAnyStageLeavesNothingBehind) {
    using Stage = std::function<ToolkitConnection&()>;
    const Stage stages[] = {
        [&]() -> ToolkitConnection& { // version query in flight
            PlugPhone(PhoneScript{{2, 0}, {}, false});
            return Establish();
        },
        [&]() -> ToolkitConnection& { // searching for a phone that never comes back
            PlugPhone(PhoneScript{{2, 0}, {}, true, {}});
            ToolkitConnection& searching = Establish();
            toolkit.RunUntil([&] { return searching.TimerExpiries() >= 3; });
            return searching;
        },
        [&]() -> ToolkitConnection& { return AtHandshake(kDeviceHandshake); }, // host handshake in flight
        [&]() -> ToolkitConnection& { // reads and a write in flight, data unread
            ToolkitConnection& streaming = Connected();
            PhoneSends(Text("unread"));
            toolkit.Write(streaming, Text("unsent"));
            return streaming;
        },
        [&]() -> ToolkitConnection& { // phone gone
            ToolkitConnection& failed = Connected();
            fakeusb::Bus::Unplug(phone);
            RunUntilFailed(failed);
            return failed;
        },
    };
    for (const Stage& reach : stages) {
        ToolkitConnection& connection = reach();
        toolkit.Destroy(connection);
        EXPECT_THAT(connection.Log(), Not(Contains(HasSubstr("not expected"))));
        EXPECT_THAT(connection.Log(), Not(Contains("Closing so not starting new read")));
        NextStory(connection);
    }
}

} // namespace
} // namespace aap
