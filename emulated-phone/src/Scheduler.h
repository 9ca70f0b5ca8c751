#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

namespace emuphone {

// One thread that runs actions at given times: link completions, the phone's
// drop and return, delayed handshakes. Actions run without the bus lock and
// take it themselves; actions due at the same time run in the order given.
class Scheduler {
public:
    using Clock = std::chrono::steady_clock;

    Scheduler();
    ~Scheduler();
    Scheduler(const Scheduler&) = delete;
    Scheduler& operator=(const Scheduler&) = delete;

    void At(Clock::time_point when, std::function<void()> action);
    void After(Clock::duration delay, std::function<void()> action);
    // Joins the thread; actions not yet run are dropped. Idempotent.
    void Stop();

private:
    void Run();

    std::mutex lock_;
    std::condition_variable wake_;
    std::multimap<Clock::time_point, std::function<void()>> due_;
    bool stopping_ = false;
    std::thread thread_;
};

} // namespace emuphone
