#pragma once

#include <atomic>
#include <cstdint>
#include <thread>

// Signals with handlers, sent again and again to every thread of the process,
// as a toolkit's own timers and child processes send them. The handlers are
// installed without SA_RESTART, so a call that was waiting fails with EINTR.
class SignalStorm {
public:
    SignalStorm();
    // Stops sending; the handlers stay installed.
    ~SignalStorm();
    SignalStorm(const SignalStorm&) = delete;
    SignalStorm& operator=(const SignalStorm&) = delete;

    uint64_t Sent() const { return sent_; }
    // Handler runs since the storm began; fewer than sent, as a signal already
    // pending on a thread absorbs the next one of its kind.
    uint64_t Delivered() const;

private:
    void Send();

    const uint64_t deliveredBefore_;
    std::atomic<bool> stop_{false};
    std::atomic<uint64_t> sent_{0};
    std::thread sender_;
};
