#include "kesto-host/EventLoop.h"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

namespace {

volatile std::sig_atomic_t gSignal = 0;
// Written by the handler, watched by the loop: the handler may run on any
// thread of the process, the plug-in's included, and the byte wakes the loop
// wherever it ran.
int gSignalPipe[2] = {-1, -1};

constexpr int kCaughtSignals[] = {SIGINT, SIGTERM, SIGHUP};

// The loop wakes at least this often when nothing else bounds its wait.
constexpr std::chrono::hours kLongestWait(1);

void OnSignal(int signal) {
    int savedErrno = errno;
    gSignal = signal;
    char byte = 0;
    (void)!write(gSignalPipe[1], &byte, 1);
    errno = savedErrno;
}

double SecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

} // namespace

void EventLoop::PrepareSignals() {
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, nullptr);
    if (pipe2(gSignalPipe, O_NONBLOCK | O_CLOEXEC) != 0) {
        gSignalPipe[0] = gSignalPipe[1] = -1;
    }
    // Nothing is blocked: with the pipe the loop needs no mask to hear of a
    // signal, and a toolkit's process takes signals on every thread, so the
    // plug-in's threads get them too, as they would in a toolkit.
    struct sigaction caught {};
    caught.sa_handler = OnSignal;
    sigemptyset(&caught.sa_mask);
    for (int signal : kCaughtSignals) {
        sigaction(signal, &caught, nullptr);
    }
}

EventLoop::EventLoop(ToolkitSession& session, StreamClient& client, HostLog& log,
                     std::chrono::milliseconds connectTimeout)
    : session_(session), client_(client), log_(log), started_(StreamClient::Clock::now()),
      connectTimeout_(connectTimeout) {}

int EventLoop::Run() {
    std::vector<pollfd> fds;
    while (gSignal == 0) {
        if (connected_ && client_.Finished()) {
            return client_.ExitCode();
        }
        fds.clear();
        if (gSignalPipe[0] >= 0) {
            fds.push_back({gSignalPipe[0], POLLIN, 0});
        }
        if (connected_) {
            client_.AddPollFds(fds);
        }
        uint32_t activity = 0;
        if (!session_.RunOnce(MaxWait(), fds, activity)) {
            if (!connected_) {
                session_.ReportStage();
            }
            return kExitFailure;
        }
        if (!connected_ && session_.Connected()) {
            connected_ = true;
            log_.Note("connected after %.3f s", SecondsSince(started_));
        }
        if (connected_) {
            client_.Serve(session_, fds, activity);
        } else if (connectTimeout_.count() > 0 && StreamClient::Clock::now() >= started_ + connectTimeout_) {
            log_.Error("not connected after %.1f s", SecondsSince(started_));
            session_.ReportStage();
            std::string last = session_.LastPluginLine();
            log_.Error("last plug-in log line: %s", last.empty() ? "(none)" : last.c_str());
            return kExitFailure;
        }
    }
    log_.Note("stopped by signal %d", static_cast<int>(gSignal));
    return kExitInterrupted;
}

// Until the connect time-out or the client's next turn; the plug-in's timer
// bounds the wait inside the toolkit's loop.
std::chrono::milliseconds EventLoop::MaxWait() const {
    StreamClient::Clock::time_point wake = StreamClient::Clock::time_point::max();
    if (!connected_ && connectTimeout_.count() > 0) {
        wake = std::min(wake, started_ + connectTimeout_);
    }
    if (connected_) {
        wake = std::min(wake, client_.WakeAt());
    }
    if (wake == StreamClient::Clock::time_point::max()) {
        return kLongestWait;
    }
    return std::max(std::chrono::ceil<std::chrono::milliseconds>(wake - StreamClient::Clock::now()),
                    std::chrono::milliseconds(0));
}
