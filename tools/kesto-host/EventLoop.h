#pragma once

#include <chrono>
#include <csignal>

#include "kesto-host/HostLog.h"
#include "kesto-host/StreamClient.h"
#include "kesto-host/ToolkitSession.h"

// The tool's event loop for one connection: the toolkit stand-in's loop, also
// waiting on the client's descriptors and the signal pipe, which hands the
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
    std::chrono::milliseconds MaxWait() const;

    ToolkitSession& session_;
    StreamClient& client_;
    HostLog& log_;
    const StreamClient::Clock::time_point started_;
    const std::chrono::milliseconds connectTimeout_;
    bool connected_ = false;
};
