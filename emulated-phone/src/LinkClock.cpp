#include "LinkClock.h"

#include <algorithm>

namespace emuphone {

LinkClock::LinkClock(const LinkModel& model) : model_(model), busyUntil_(Scheduler::Clock::now()) {}

bool LinkClock::Instant() const { return model_.IsInstant(); }

Scheduler::Clock::time_point LinkClock::Reserve(size_t bytes)
{
    auto now = Scheduler::Clock::now();
    busyUntil_ = std::max(busyUntil_, now);
    if (model_.bytesPerSecond > 0.0) {
        std::chrono::duration<double> crossing(static_cast<double>(bytes) / model_.bytesPerSecond);
        busyUntil_ += std::chrono::duration_cast<Scheduler::Clock::duration>(crossing);
    }
    return busyUntil_ + model_.latency;
}

} // namespace emuphone
