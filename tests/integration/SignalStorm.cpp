#include "SignalStorm.h"

#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <iterator>
#include <vector>

namespace {

constexpr int kSignals[] = {SIGUSR1, SIGALRM, SIGCHLD};
// Between rounds over all threads: often enough that every wait of every thread is cut short many times.
constexpr std::chrono::microseconds kRoundGap(300);

std::atomic<uint64_t> gDelivered{0};

void Count(int) { gDelivered.fetch_add(1, std::memory_order_relaxed); }

// Once per process and never undone: a signal still pending on some thread
// when a storm ends would otherwise meet the default action and end the process.
uint64_t InstallHandlers() {
    static const bool installed = [] {
        struct sigaction action {};
        action.sa_handler = Count;
        sigemptyset(&action.sa_mask);
        action.sa_flags = 0; // no SA_RESTART
        for (int signal : kSignals) {
            if (sigaction(signal, &action, nullptr) != 0) {
                std::abort();
            }
        }
        return true;
    }();
    (void)installed;
    return gDelivered.load();
}

std::vector<pid_t> Threads() {
    std::vector<pid_t> threads;
    DIR* directory = opendir("/proc/self/task");
    for (dirent* entry = directory != nullptr ? readdir(directory) : nullptr; entry != nullptr;
         entry = readdir(directory)) {
        if (entry->d_name[0] != '.') {
            threads.push_back(static_cast<pid_t>(std::atol(entry->d_name)));
        }
    }
    if (directory != nullptr) {
        closedir(directory);
    }
    return threads;
}

} // namespace

SignalStorm::SignalStorm() : deliveredBefore_(InstallHandlers()), sender_([this] { Send(); }) {}

SignalStorm::~SignalStorm() {
    stop_ = true;
    sender_.join();
}

uint64_t SignalStorm::Delivered() const { return gDelivered.load() - deliveredBefore_; }

// The list of threads is read afresh each round: the plug-in and libusb start theirs as they go.
void SignalStorm::Send() {
    const pid_t process = getpid();
    for (size_t round = 0; !stop_; ++round) {
        for (pid_t thread : Threads()) {
            if (tgkill(process, thread, kSignals[round % std::size(kSignals)]) == 0) {
                ++sent_;
            }
        }
        std::this_thread::sleep_for(kRoundGap);
    }
}
