// The phone's driver ends a read only on a short or zero-length packet, so a
// write that fills its last packet reaches the phone's application only if the
// host ends it with a zero-length packet.
#include <cstdio>
#include <map>
#include <random>

#include "PhoneStory.h"

namespace {

class WholePackets : public PhoneStory {
protected:
    ToolkitConnection& Linked() {
        emuphone::EmulatedPhone& phone = Plug();
        ToolkitConnection& connection = Connect(phone);
        EXPECT_TRUE(RunUntilConnected(connection));
        return connection;
    }
};

// Each message is the last thing the toolkit says until the answer comes:
// nothing that follows can end the phone's read for it.
TEST_F(WholePackets, LoneMessagesOfWholePacketsComeBackWithinASecond) {
    ToolkitConnection& connection = Linked();
    for (size_t size : {512u, 1024u, 15872u, 16384u}) {
        // Each echo starts its pattern afresh: one left behind would garble the next.
        const EchoRun run = Echo(*toolkit, connection, size, size, Ms(1000));
        ASSERT_EQ(size, run.returned) << "a lone message of " << size << " bytes";
        ASSERT_EQ(0, run.error);
        std::printf("[ figure ] a lone message of %zu bytes echoed in %.1f ms\n", size, run.seconds * 1000);
    }
}

TEST_F(WholePackets, StreamOfRandomSizesAmongThemWholePacketsArrivesIntact) {
    ToolkitConnection& connection = Linked();
    // Where each write starts, and its size: a third whole packets of 512, a
    // third multiples of 64, the rest anything up to two and a half phone reads.
    std::mt19937 random(20240611);
    std::map<uint64_t, size_t> pieces;
    uint64_t total = 0;
    int wholePackets = 0;
    for (int i = 0; i < 600; ++i) {
        size_t size = 0;
        switch (random() % 3) {
        case 0: size = 512 * (1 + random() % 64); break;
        case 1: size = 64 * (1 + random() % 256); break;
        default: size = 1 + random() % 40960; break;
        }
        // The last one must end the stream on a full packet.
        size = i == 599 ? 8192 : size;
        wholePackets += size % 512 == 0;
        pieces[total] = size;
        total += size;
    }
    const EchoRun run = Echo(*toolkit, connection, total, [&](uint64_t sent) { return pieces.at(sent); }, Ms(20000));
    EXPECT_EQ(0, run.error);
    EXPECT_EQ(total, run.returned);
    std::printf("[ figure ] %llu bytes in 600 writes, %d of them whole packets, echoed in %.2f s\n",
                static_cast<unsigned long long>(total), wholePackets, run.seconds);
}

} // namespace
