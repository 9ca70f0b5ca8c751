#pragma once

#include "Scheduler.h"

#include "emulated-phone/LinkModel.h"

#include <cstddef>

namespace emuphone {

// The wire's occupancy: transfers cross one after another at the link's
// bandwidth, and each completion reaches the host a latency later.
class LinkClock {
public:
    explicit LinkClock(const LinkModel& model);

    bool Instant() const;
    // Reserves the wire for `bytes` that are ready to cross now; returns when
    // the host learns that they have.
    Scheduler::Clock::time_point Reserve(size_t bytes);

private:
    LinkModel model_;
    Scheduler::Clock::time_point busyUntil_;
};

} // namespace emuphone
