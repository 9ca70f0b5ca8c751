// Streams under the phone's read rule: its driver ends a read only on a short
// or zero-length packet, so a write that fills its last packet reaches the
// phone's application only if the host ends it with a zero-length packet. And
// a toolkit's process takes signals (its timers, its children, its own
// threads): whichever thread one lands on, the plug-in's among them, the
// connection goes on and no byte is lost.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <random>
#include <thread>

#include "PhoneStory.h"

namespace {

constexpr int kSignals[] = {SIGUSR1, SIGALRM, SIGCHLD};
std::atomic<uint64_t> gDelivered{0};

// Signals with handlers, sent again and again to every thread of the process,
// as a toolkit's own timers and child processes send them. The handlers are
// installed without SA_RESTART, so a call that was waiting fails with EINTR,
// and stay installed: a signal still pending on some thread when the storm
// ends would otherwise meet the default action and end the process.
class SignalStorm {
public:
    SignalStorm() {
        struct sigaction action {};
        action.sa_handler = [](int) { gDelivered.fetch_add(1, std::memory_order_relaxed); };
        for (int signal : kSignals) {
            sigaction(signal, &action, nullptr);
        }
        // The threads are listed afresh each round, as the plug-in and libusb start
        // theirs as they go; a round every 300 us cuts every wait short many times.
        sender_ = std::thread([this] {
            std::error_code error;
            for (size_t round = 0; !stop_; ++round) {
                for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", error)) {
                    const pid_t thread = static_cast<pid_t>(std::stol(task.path().filename().string()));
                    sent += tgkill(getpid(), thread, kSignals[round % std::size(kSignals)]) == 0;
                }
                std::this_thread::sleep_for(std::chrono::microseconds(300));
            }
        });
    }
    ~SignalStorm() {
        stop_ = true;
        sender_.join();
    }

    std::atomic<uint64_t> sent{0};

private:
    std::atomic<bool> stop_{false};
    std::thread sender_;
};

class Streams : public PhoneStory {
protected:
    emuphone::EmulatedPhone& phone = Plug();
    ToolkitConnection& Linked() {
        ToolkitConnection& connection = Connect(phone);
        EXPECT_TRUE(RunUntilConnected(connection));
        return connection;
    }
};

// Each message is the last thing the toolkit says until the answer comes:
// nothing that follows can end the phone's read for it.
TEST_F(Streams, LoneMessagesOfWholePacketsComeBackWithinASecond) {
    ToolkitConnection& connection = Linked();
    for (size_t size : {512u, 1024u, 15872u, 16384u}) {
        // Each echo starts its pattern afresh: one left behind would garble the next.
        const EchoRun run = Echo(*toolkit, connection, size, size, Ms(1000));
        ASSERT_EQ(size, run.returned) << "a lone message of " << size << " bytes";
        ASSERT_EQ(0, run.error);
        std::printf("[ figure ] a lone message of %zu bytes echoed in %.1f ms\n", size, run.seconds * 1000);
    }
}

// A stream that ends on a whole packet is the lone messages' story.
TEST_F(Streams, RandomSizesAmongThemWholePacketsArriveIntactThroughSignalsOnEveryThread) {
    SignalStorm storm;
    ToolkitConnection& connection = Linked();
    // A third whole packets of 512, a third multiples of 64, the rest anything
    // up to two and a half phone reads, each chosen by where the write starts.
    const auto pieces = [](uint64_t sent) -> size_t {
        std::mt19937 random(static_cast<uint32_t>(sent));
        switch (random() % 3) {
        case 0: return 512 * (1 + random() % 64);
        case 1: return 64 * (1 + random() % 256);
        default: return 1 + random() % 40960;
        }
    };
    const uint64_t total = 16 << 20;
    const EchoRun run = Echo(*toolkit, connection, total, pieces, Ms(60000));
    EXPECT_EQ(0, run.error);
    EXPECT_EQ(total, run.returned);
    EXPECT_EQ(total, phone.Report().bytesFromHost);
    // Fewer delivered than sent: a signal pending on a thread absorbs the next one of its kind.
    EXPECT_GT(gDelivered.load(), 1000u);
    std::printf("[ figure ] 16 MiB in writes of random sizes echoed in %.2f s; signals delivered: %llu (of %llu sent)\n",
                run.seconds, static_cast<unsigned long long>(gDelivered.load()),
                static_cast<unsigned long long>(storm.sent.load()));
}

} // namespace
