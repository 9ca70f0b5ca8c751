// Phones that connect over the real libusb: the whole road, and a phone found
// again after the switch by its serial and where it sits on the bus. The
// variations a phone brings to the road (already an accessory, debug bridge
// first, no serial, a wrong handshake) are the unit stories, where libusb's
// answers are exact.
#include <poll.h>

#include <cstdio>
#include <thread>

#include "PhoneStory.h"

using emuphone::PhoneOptions;
using emuphone::PhoneStage;

TEST_F(PhoneStory, WholeRoadThenSixtyFourMegabytesEchoedOnAHighSpeedLink) {
    PhoneOptions options;
    options.link = emuphone::LinkModel::HighSpeed();
    emuphone::EmulatedPhone& phone = Plug(options);
    ToolkitConnection& connection = Connect(phone);
    ASSERT_TRUE(RunUntilConnected(connection));
    EXPECT_TRUE(phone.Report().Reached(PhoneStage::HandshakeDone));

    const uint64_t total = 64ull << 20;
    const EchoRun run = Echo(*toolkit, connection, total, 16000, Ms(120000));
    EXPECT_EQ(0, run.error);
    EXPECT_EQ(total, run.returned);
    EXPECT_EQ(total, phone.Report().bytesFromHost);
    EXPECT_EQ(0, phone.Report().unclaimedSubmissions);
    std::printf("[ figure ] 64 MiB echoed on the high-speed link model in %.2f s: %.1f MB/s each way\n", run.seconds,
                total / 1e6 / run.seconds);

    // Once the toolkit has caught up, an idle link wakes nobody: the event
    // handle falls quiet within a few last completions and stays so.
    const KestoBearerInterface& api = toolkit->Interface();
    int fd = -1;
    intptr_t extra = 0;
    ASSERT_EQ(0, api.connectionGetEventHandle(connection.Handle(), &fd, &extra));
    int wakeups = 0;
    for (pollfd waiter{fd, POLLIN, 0}; wakeups < 5 && poll(&waiter, 1, 300) != 0; ++wakeups) {
        uint32_t activity = 0;
        ASSERT_EQ(0, api.connectionGetActivity(connection.Handle(), &activity));
    }
    EXPECT_LT(wakeups, 5);
}

// Rediscovery has no time limit: while the phone is away the search goes on,
// passing over a twin of its make and serial that someone else switched and
// that was there all along, until the phone is plugged back in. A stranger
// accessory plugged last is listed first and passed over too.
TEST_F(PhoneStory, PhonePulledWhileAwayIsFoundWhenPluggedBackPastATwinAndAStranger) {
    PhoneOptions ours, twin, stranger;
    ours.unplugAt = PhoneStage::Detached;
    twin.startInAccessoryMode = stranger.startInAccessoryMode = true;
    stranger.serial = "ANOTHER0002";
    emuphone::EmulatedPhone& phone = Plug(ours);
    emuphone::EmulatedPhone& other = Plug(twin);
    ToolkitConnection& connection = Connect(phone);
    ASSERT_TRUE(toolkit->RunUntil([&] { return phone.Report().Reached(PhoneStage::Unplugged); }));
    toolkit->RunFor(Ms(400));
    EXPECT_FALSE(connection.Connected());
    EXPECT_EQ(0, connection.Failure());
    EXPECT_TRUE(connection.TimerPending()) << "the search stopped";

    // The toolkit sits still, so the plug-in cannot search until both are on
    // the bus; libusb lists the newest first once its hotplug thread has seen it.
    ours.startInAccessoryMode = true;
    ours.unplugAt.reset();
    emuphone::EmulatedPhone& again = Plug(ours);
    emuphone::EmulatedPhone& last = Plug(stranger);
    std::this_thread::sleep_for(Ms(150));
    ASSERT_TRUE(RunUntilConnected(connection));
    EXPECT_TRUE(again.Report().Reached(PhoneStage::HandshakeDone));
    EXPECT_FALSE(other.Report().Reached(PhoneStage::InterfaceClaimed));
    EXPECT_FALSE(last.Report().Reached(PhoneStage::InterfaceClaimed));
    EXPECT_EQ(100000u, Echo(*toolkit, connection, 100000).returned);
    EXPECT_EQ(100000u, again.Report().bytesFromHost);
    EXPECT_EQ(0u, other.Report().bytesFromHost);
}
