// A toolkit's process takes signals: its timers, its children, its own
// threads. Whichever thread a signal lands on, the plug-in's among them, the
// connection goes on and no byte is lost.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <thread>

#include "PhoneStory.h"

namespace {

constexpr int kSignals[] = {SIGUSR1, SIGALRM, SIGCHLD};
// Between rounds over all threads: often enough that every wait of every thread is cut short many times.
constexpr std::chrono::microseconds kRoundGap(300);

std::atomic<uint64_t> gDelivered{0};

void Count(int) { gDelivered.fetch_add(1, std::memory_order_relaxed); }

std::vector<pid_t> Threads() {
    std::vector<pid_t> threads;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task", error)) {
        threads.push_back(static_cast<pid_t>(std::stol(entry.path().filename().string())));
    }
    return threads;
}

// Signals with handlers, sent again and again to every thread of the process,
// as a toolkit's own timers and child processes send them. The handlers are
// installed without SA_RESTART, so a call that was waiting fails with EINTR,
// and stay installed: a signal still pending on some thread when the storm
// ends would otherwise meet the default action and end the process.
class SignalStorm {
public:
    SignalStorm() {
        struct sigaction action {};
        action.sa_handler = Count;
        sigemptyset(&action.sa_mask);
        for (int signal : kSignals) {
            if (sigaction(signal, &action, nullptr) != 0) {
                std::abort();
            }
        }
        sender_ = std::thread([this] { Send(); });
    }
    ~SignalStorm() {
        stop_ = true;
        sender_.join();
    }

    std::atomic<uint64_t> sent{0};

private:
    // The list of threads is read afresh each round: the plug-in and libusb start theirs as they go.
    void Send() {
        const pid_t process = getpid();
        for (size_t round = 0; !stop_; ++round) {
            for (pid_t thread : Threads()) {
                sent += tgkill(process, thread, kSignals[round % std::size(kSignals)]) == 0;
            }
            std::this_thread::sleep_for(kRoundGap);
        }
    }

    std::atomic<bool> stop_{false};
    std::thread sender_;
};

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
    // Fewer delivered than sent: a signal pending on a thread absorbs the next one of its kind.
    EXPECT_GT(gDelivered.load(), 1000u);
    std::printf("[ figure ] signals delivered: %llu (of %llu sent) while connecting and echoing %llu bytes in %.2f s\n",
                static_cast<unsigned long long>(gDelivered.load()), static_cast<unsigned long long>(storm.sent.load()),
                static_cast<unsigned long long>(total), run.seconds);
}

} // namespace
