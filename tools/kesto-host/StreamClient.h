#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

#include <poll.h>

class ToolkitSession;

// A mode that uses the connected stream (the bridge, the echo check). The event
// loop calls it only once the connection is up, and only on the loop's thread.
class StreamClient {
public:
    using Clock = std::chrono::steady_clock;

    virtual ~StreamClient() = default;

    // Appends the descriptors it waits on besides the event handle, noting where
    // they are; the same vector comes back to Serve with its revents filled in.
    virtual void AddPollFds(std::vector<pollfd>& fds) = 0;
    // One turn of the loop: moves what it can. activity holds the bits of the
    // GetActivity made this turn, 0 when there was none.
    virtual void Serve(ToolkitSession& session, const std::vector<pollfd>& fds, uint32_t activity) = 0;
    // When it wants a turn even if nothing becomes ready; Clock::time_point::max() for never.
    virtual Clock::time_point WakeAt() const = 0;
    virtual bool Finished() const = 0;
    // The process exit code once finished.
    virtual int ExitCode() const = 0;
};
