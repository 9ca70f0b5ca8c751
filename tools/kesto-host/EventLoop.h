#pragma once

#include <chrono>
#include <csignal>

#include "kesto-host/HostLog.h"
#include "kesto-host/StreamClient.h"
#include "kesto-host/ToolkitSession.h"

// The toolkit's event loop for one connection: waits on the event handle, the
// client's descriptors and the plug-in's timer, calls GetActivity when the
// handle is readable and TimerExpired when the timer falls due, and hands the
// stream to the client once the connection reports connected.
class EventLoop {
public:
    static constexpr int kExitFailure = 1;
    static constexpr int kExitInterrupted = 130;

    // Makes SIGINT, SIGTERM and SIGHUP end the loop cleanly, on whichever thread
    // they land. Ignores SIGPIPE.
    static void PrepareSignals();

    // connectTimeout zero: wait for ever.
    EventLoop(ToolkitSession& session, StreamClient& client, HostLog& log, std::chrono::milliseconds connectTimeout);

    // Runs until the client finishes, the connection fails, connecting times out
    // or a signal arrives; returns the exit code.
    int Run();

private:
    bool WaitOnce(std::vector<pollfd>& fds);
    bool ServeConnection(bool handleReady, uint32_t& activity);
    StreamClient::Clock::time_point NextWake() const;

    ToolkitSession& session_;
    StreamClient& client_;
    HostLog& log_;
    const StreamClient::Clock::time_point started_;
    const std::chrono::milliseconds connectTimeout_;
    bool connected_ = false;
};
