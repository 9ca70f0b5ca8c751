#include "kesto-host/EventLoop.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace {

volatile std::sig_atomic_t gSignal = 0;
// Written by the handler, watched by the loop: the handler may run on any
// thread of the process, the plug-in's included, and the byte wakes the loop
// wherever it ran.
int gSignalPipe[2] = {-1, -1};

constexpr int kCaughtSignals[] = {SIGINT, SIGTERM, SIGHUP};

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
        uint32_t activity = 0;
        if (!WaitOnce(fds) || !ServeConnection(fds[0].revents != 0, activity)) {
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

// Waits for the event handle (always fds[0]), the client's descriptors or the
// next deadline. False when waiting is impossible (reported).
bool EventLoop::WaitOnce(std::vector<pollfd>& fds) {
    fds.clear();
    int handle = -1;
    int rc = session_.EventHandle(handle);
    if (rc != KestoBearerErrorNone) {
        session_.ReportFailure("connectionGetEventHandle", rc);
        return false;
    }
    if (handle < 0) {
        log_.Error("connectionGetEventHandle gave no descriptor (%d)", handle);
        return false;
    }
    fds.push_back({handle, POLLIN, 0});
    if (gSignalPipe[0] >= 0) {
        fds.push_back({gSignalPipe[0], POLLIN, 0});
    }
    if (connected_) {
        client_.AddPollFds(fds);
    }
    StreamClient::Clock::time_point wake = NextWake();
    timespec timeout{};
    if (wake != StreamClient::Clock::time_point::max()) {
        auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(wake - StreamClient::Clock::now()).count();
        ns = std::max<decltype(ns)>(ns, 0);
        timeout.tv_sec = static_cast<time_t>(ns / 1000000000);
        timeout.tv_nsec = static_cast<long>(ns % 1000000000);
    }
    bool bounded = wake != StreamClient::Clock::time_point::max();
    int n = ppoll(fds.data(), fds.size(), bounded ? &timeout : nullptr, nullptr);
    if (n < 0) {
        if (errno != EINTR) {
            log_.Error("poll failed: %s", std::strerror(errno));
            return false;
        }
        for (pollfd& fd : fds) {
            fd.revents = 0;
        }
    }
    if ((fds[0].revents & (POLLNVAL | POLLERR | POLLHUP)) != 0 && (fds[0].revents & POLLIN) == 0) {
        log_.Error("the event handle %d failed (poll events 0x%x)", handle, fds[0].revents);
        return false;
    }
    return true;
}

// Lets the plug-in advance: TimerExpired when its deadline has come, and
// GetActivity when the handle is readable. Once the stream is up GetActivity
// also follows every TimerExpired: events processed inside the timer call do
// not make the handle readable again. Before that it does not, so that the
// delay the plug-in asked for inside TimerExpired stands as asked.
bool EventLoop::ServeConnection(bool handleReady, uint32_t& activity) {
    bool advanced = handleReady;
    std::optional<StreamClient::Clock::time_point> deadline = session_.TimerDeadline();
    if (deadline && *deadline <= StreamClient::Clock::now()) {
        int rc = session_.TimerExpired();
        if (rc != KestoBearerErrorNone) {
            session_.ReportFailure("connectionTimerExpired", rc);
            return false;
        }
        advanced = advanced || connected_;
    }
    if (advanced) {
        int rc = session_.GetActivity(activity);
        if (rc != KestoBearerErrorNone) {
            session_.ReportFailure("connectionGetActivity", rc);
            return false;
        }
    }
    return true;
}

StreamClient::Clock::time_point EventLoop::NextWake() const {
    StreamClient::Clock::time_point wake = StreamClient::Clock::time_point::max();
    if (std::optional<StreamClient::Clock::time_point> timer = session_.TimerDeadline()) {
        wake = std::min(wake, *timer);
    }
    if (!connected_ && connectTimeout_.count() > 0) {
        wake = std::min(wake, started_ + connectTimeout_);
    }
    if (connected_) {
        wake = std::min(wake, client_.WakeAt());
    }
    return wake;
}
