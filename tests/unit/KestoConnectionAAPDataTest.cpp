#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "KestoConnectionAAPFixture.h"
#include "SelectFaults.h"

namespace aap {
namespace {

using fakeusb::Failures;
using fakeusb::Function;

std::vector<unsigned> ReadTimeouts() {
    std::vector<unsigned> timeouts;
    for (const Submission& s : Submitted(kIn)) {
        timeouts.push_back(s.timeout);
    }
    return timeouts;
}

// Until the phone's handshake comes, one handshake read is out at a time: an
// empty packet asks again, a wrong handshake is logged (what followed it in
// the same transfer is dropped), and silence claims the interface again, in
// case the phone missed the claim. Data reads wait until our answer is out.
TEST_F(AccessoryConnection, PhoneIsListenedToUntilItsHandshakeComes) {
    const std::pair<Bytes, int> attempts[] = {{{}, kCompleted},
                                              {{0x44, 0x45, 0x56}, kCompleted},
                                              {{}, LIBUSB_TRANSFER_TIMED_OUT},
                                              {Join(kHostHandshake, Text("junk")), kCompleted},
                                              {{}, LIBUSB_TRANSFER_TIMED_OUT}};
    phone = fakeusb::Bus::Add(fakeusb::AccessoryPhone(1, 5, kSerial));
    ToolkitConnection& connection = Establish();
    for (const auto& [bytes, status] : attempts) {
        PhoneSends(bytes, status);
        ASSERT_EQ(1u, Transfers::InFlight().size());
        EXPECT_EQ(kIn, Transfers::InFlight()[0].endpoint);
    }
    EXPECT_THAT(connection.Log(),
                ElementsAre("Device already in accessory mode.", "Kesto server may need to be started manually.",
                            "Completed read of length 0", "Device handshake wasn't as expected: 0x44 0x45 0x56",
                            "Device handshake wasn't as expected: 0xff 0xff 0x00 0x00 0x0a 0x0a 0x48 0x4f 0x53"));
    EXPECT_EQ(2, fakeusb::Calls::Count("libusb_release_interface"));
    EXPECT_EQ(3, CallCount("libusb_claim_interface(1:5, 0)"));
    EXPECT_THAT(fakeusb::Bus::ClaimedInterfaces(phone), ElementsAre(0));
    EXPECT_EQ(std::vector<unsigned>(6, 3000u), ReadTimeouts()); // one more per attempt
    EXPECT_TRUE(Submitted(kOut).empty());
    PhoneSends(kDeviceHandshake);
    EXPECT_FALSE(Transfers::OldestInFlight(kIn).has_value()) << "a read is open during the host handshake";
    ASSERT_EQ(1u, Submitted(kOut).size());
    EXPECT_EQ(kHostHandshake, Submitted(kOut)[0].data);
    EXPECT_EQ(0u, Submitted(kOut)[0].timeout);
    EXPECT_EQ(0, connection.Failure());
}

// The phone's first application bytes ride in the handshake's transfer: the
// first Read yields exactly them. A buffer too small takes nothing and is told
// the chunk's length. Data reads wait as long as the phone does, and a second
// write waits for the first.
TEST_F(AccessoryConnection, FirstBytesRideWithTheHandshakeAndASecondWriteWaits) {
    ToolkitConnection& connection = Connected(Join(kDeviceHandshake, Text("hello")));
    EXPECT_THAT(ReadTimeouts(), ElementsAre(3000u, 0u, 0u, 0u)); // the handshake's slot holds "hello"
    EXPECT_EQ(KestoBearerActivityReadable | KestoBearerActivityWritable, connection.Activity());
    const Toolkit::Transfer small = toolkit.Read(connection, 4);
    EXPECT_EQ(KestoBearerErrorBufferTooSmall, small.result);
    EXPECT_EQ(5u, small.length);
    const Toolkit::Transfer first = toolkit.Read(connection, 64);
    EXPECT_EQ(KestoBearerErrorNone, first.result);
    EXPECT_EQ(Text("hello"), first.bytes);
    EXPECT_EQ(0u, toolkit.Read(connection, 64).length);

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
    PhoneSends(Text("unread")); // destroyed with reads and a write in flight, and data unread
    toolkit.Write(connection, Text("unsent"));
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

// A submission the device refuses is kept for the next GetActivity, which
// may be all a toolkit asks. The bytes a Read copied are the toolkit's all
// the same: the Read that delivered them succeeds.
TEST_F(AccessoryConnection, RefusedSubmissionsAreReportedByTheNextGetActivity) {
    for (const bool reading : {true, false}) {
        ToolkitConnection& connection = Connected();
        PhoneSends(Text("kept"));
        Failures::Fail(Function::SubmitTransfer, LIBUSB_ERROR_NO_DEVICE);
        if (reading) {
            ASSERT_TRUE(Transfers::CompleteOldest(kIn, kCompleted, Text("held"))); // no pass has collected it
            const Toolkit::Transfer read = toolkit.Read(connection, 64);
            EXPECT_EQ(KestoBearerErrorNone, read.result);
            EXPECT_EQ(Text("kept"), read.bytes);
            EXPECT_EQ("Failed to submit libusb transfer for read", connection.Log().back());
            // What the phone sent before the failure comes first, then the failure, then nothing.
            EXPECT_EQ(Text("held"), toolkit.Read(connection, 64).bytes);
            EXPECT_EQ(KestoBearerErrorFailed, toolkit.Read(connection, 64).result);
            ASSERT_TRUE(Transfers::CompleteOldest(kIn, kCompleted, Text("late")));
            EXPECT_EQ(KestoBearerErrorFailed, toolkit.Interface().connectionTimerExpired(connection.Handle()));
            const Toolkit::Transfer empty = toolkit.Read(connection, 64);
            EXPECT_EQ(KestoBearerErrorFailed, empty.result);
            EXPECT_EQ(0u, empty.length);
        } else {
            const Toolkit::Transfer write = toolkit.Write(connection, Text("lost"));
            EXPECT_EQ(KestoBearerErrorFailed, write.result);
            EXPECT_EQ(0u, write.length);
            EXPECT_EQ("Failed to submit libusb transfer for write", connection.Log().back());
        }
        uint32_t activity = 0;
        EXPECT_EQ(KestoBearerErrorFailed,
                  toolkit.Interface().connectionGetActivity(connection.Handle(), &activity));
        fakeusb::Bus::Unplug(phone); // destroyed with the phone gone
        NextStory(connection);
    }
}

// A data read that ends with nothing is submitted again; one that cannot be
// is the next GetActivity's error, and so is one that ends in error. A cancel
// the plug-in did not ask for counts as ending with nothing.
TEST_F(AccessoryConnection, ReadsEndingEmptyOrInErrorAreLogged) {
    struct Row { int status; bool refused; const char* logged; bool fails; };
    const Row rows[] = {
        {kCompleted, false, "Completed read of length 0", false},
        {LIBUSB_TRANSFER_CANCELLED, false, "Pending read cancelled", false},
        {kCompleted, true, "Attempt to re-read, returning error 11", true},
        {LIBUSB_TRANSFER_TIMED_OUT, true, "Read resubmit on error, returned error 11", true},
        {LIBUSB_TRANSFER_ERROR, false, "Error in read completion status 1", true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.logged);
        ToolkitConnection& connection = Connected();
        if (row.refused) {
            Failures::Fail(Function::SubmitTransfer, LIBUSB_ERROR_NO_DEVICE);
        }
        PhoneSends({}, row.status);
        EXPECT_EQ(row.logged, connection.Log().back());
        EXPECT_EQ(row.fails ? 3u : 4u, Transfers::InFlight().size()); // the four data reads
        uint32_t activity = 0;
        EXPECT_EQ(row.fails ? KestoBearerErrorFailed : 0,
                  toolkit.Interface().connectionGetActivity(connection.Handle(), &activity));
        NextStory(connection);
    }
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

// A toolkit serves its timer as the phone's bytes land: the timer's pass
// takes them in, and the event handle must still say that they wait.
TEST_F(AccessoryConnection, BytesTakenInByATimerStillWakeTheToolkit) {
    fakeusb::Events::SetNextTimeout(3, 0); // libusb keeps the handshake read's time-out, as on QNX
    ToolkitConnection& connection = Connected();
    ASSERT_TRUE(connection.TimerPending());
    ASSERT_TRUE(Transfers::CompleteOldest(kIn, kCompleted, Text("hello")));
    EXPECT_EQ(0, toolkit.Interface().connectionTimerExpired(connection.Handle()));
    int handle = -1;
    toolkit.Interface().connectionGetEventHandle(connection.Handle(), &handle, nullptr);
    pollfd ready{handle, POLLIN, 0};
    EXPECT_EQ(1, poll(&ready, 1, 100)) << "the phone's bytes wait and the handle is quiet";
    // A second call before the toolkit looks takes in nothing and must not quiet it.
    EXPECT_EQ(0, toolkit.Interface().connectionTimerExpired(connection.Handle()));
    EXPECT_EQ(1, poll(&ready, 1, 100)) << "a second timer call quieted the handle";
}

TEST_F(AccessoryConnection, TransportAndMediumAreUsb) {
    ToolkitConnection& connection = toolkit.CreateConnection();
    EXPECT_EQ("USB", toolkit.ConnectionProperty(connection, KestoConnectionPropertyTransport));
    EXPECT_EQ("USB", toolkit.ConnectionProperty(connection, KestoConnectionPropertyMedium));
    for (int property : {0, 1, 4, -1}) {
        EXPECT_EQ(std::nullopt, toolkit.ConnectionProperty(connection, property)) << property;
    }
}

} // namespace
} // namespace aap
