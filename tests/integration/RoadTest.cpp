// Phones that connect over the real libusb: the whole road, and phones told
// apart by their serial or by where they sit on the bus. The variations a phone brings to
// the road (already an accessory, debug bridge first, no serial, a wrong
// handshake) are the unit stories, where libusb's answers are exact.
#include <poll.h>

#include <cstdio>
#include <thread>

#include <gmock/gmock.h>

#include "PhoneStory.h"

using emuphone::PhoneOptions;
using emuphone::PhoneStage;
using testing::ElementsAre;

TEST_F(PhoneStory, WholeRoadThenSixtyFourMegabytesEchoedOnAHighSpeedLink) {
    PhoneOptions options;
    options.link = emuphone::LinkModel::HighSpeed();
    emuphone::EmulatedPhone& phone = Plug(options);
    ToolkitConnection& connection = Connect(phone);
    ASSERT_TRUE(RunUntilConnected(connection));

    EXPECT_THAT(connection.Statuses(), ElementsAre(KestoConnectionStatusConnecting, KestoConnectionStatusConnected));
    EXPECT_TRUE(Logged(connection, "Device supports Android Accessory Protocol version 2"));
    EXPECT_TRUE(Logged(connection, "Located device with matching serial number"));
    emuphone::PhoneReport report = phone.Report();
    EXPECT_EQ(1, report.versionQueries);
    EXPECT_EQ(6, report.identityRequests);
    EXPECT_EQ(1, report.startRequests);
    EXPECT_EQ("Norvane", report.identity[0].value_or(""));
    EXPECT_EQ("serial_number", report.identity[5].value_or(""));
    EXPECT_TRUE(report.Reached(PhoneStage::HandshakeDone));

    const uint64_t total = 64ull << 20;
    const EchoRun run = Echo(*toolkit, connection, total, 16000, Ms(120000));
    EXPECT_EQ(0, run.error);
    EXPECT_EQ(total, run.returned);
    report = phone.Report();
    EXPECT_EQ(total, report.bytesFromHost);
    EXPECT_EQ(0, report.unclaimedSubmissions);
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

TEST_F(PhoneStory, OfTwoAccessoriesTheOneWithTheSerialIsChosenThoughListedSecond) {
    emuphone::EmulatedPhone& phone = Plug();
    ToolkitConnection& connection = Connect(phone);
    ASSERT_TRUE(toolkit->RunUntil([&] { return phone.Report().Reached(PhoneStage::StartRequested); }));
    // The toolkit sits still, so the plug-in cannot search until both are on the bus.
    ASSERT_TRUE(phone.WaitFor(PhoneStage::AccessoryAttached, Ms(2000)));
    PhoneOptions other;
    other.startInAccessoryMode = true;
    other.serial = "ANOTHER0002";
    emuphone::EmulatedPhone& stranger = Plug(other);
    // libusb lists the newest device first once its hotplug thread has seen it.
    std::this_thread::sleep_for(Ms(150));
    ASSERT_TRUE(RunUntilConnected(connection));

    EXPECT_TRUE(Logged(connection, "Located device with matching serial number"));
    EXPECT_TRUE(phone.Report().Reached(PhoneStage::HandshakeDone));
    EXPECT_FALSE(stranger.Report().Reached(PhoneStage::InterfaceClaimed));
}

// Two phones of one make and serial: the other one is an accessory already,
// set up by someone else, and must be left alone. Its place on the bus tells
// the two apart, whichever of them libusb lists first.
class TwinPhones : public PhoneStory, public testing::WithParamInterface<bool> {};

TEST_P(TwinPhones, TheSwitchedOneIsTakenNotTheTwinAlreadyAnAccessory) {
    PhoneOptions asked;
    PhoneOptions twin;
    twin.startInAccessoryMode = true;
    asked.port = GetParam() ? 1 : 2;
    twin.port = GetParam() ? 2 : 1;
    emuphone::EmulatedPhone& phone = Plug(asked);
    emuphone::EmulatedPhone& other = Plug(twin);
    ToolkitConnection& connection = Connect(phone);
    ASSERT_TRUE(RunUntilConnected(connection));

    EXPECT_TRUE(phone.Report().Reached(PhoneStage::HandshakeDone));
    EXPECT_FALSE(other.Report().Reached(PhoneStage::InterfaceClaimed));
    EXPECT_EQ(100000u, Echo(*toolkit, connection, 100000).returned);
    EXPECT_EQ(100000u, phone.Report().bytesFromHost);
    EXPECT_EQ(0u, other.Report().bytesFromHost);
}

INSTANTIATE_TEST_SUITE_P(, TwinPhones, testing::Bool(), [](const testing::TestParamInfo<bool>& info) {
    return info.param ? "TwinOnTheHigherPort" : "TwinOnTheLowerPort";
});
