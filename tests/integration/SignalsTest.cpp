// A toolkit's process takes signals: its timers, its children, its own
// threads. Whichever thread a signal lands on, the plug-in's among them, the
// connection goes on and no byte is lost.
#include <cstdio>

#include "PhoneStory.h"
#include "SignalStorm.h"

TEST_F(PhoneStory, SignalsOnEveryThreadFromPlugInToLastByteLoseNothing) {
    SignalStorm storm;
    emuphone::EmulatedPhone& phone = Plug();
    ToolkitConnection& connection = Connect(phone);
    ASSERT_TRUE(RunUntilConnected(connection));

    const uint64_t total = 16 << 20;
    const EchoRun run = Echo(*toolkit, connection, total, 16000, Ms(60000));
    EXPECT_EQ(0, run.error);
    EXPECT_EQ(total, run.returned);
    EXPECT_EQ(total, phone.Report().bytesFromHost);
    EXPECT_GT(storm.Delivered(), 1000u);
    std::printf("[ figure ] signals delivered: %llu (of %llu sent) while connecting and echoing %llu bytes in %.2f s\n",
                static_cast<unsigned long long>(storm.Delivered()), static_cast<unsigned long long>(storm.Sent()),
                static_cast<unsigned long long>(total), run.seconds);
}
