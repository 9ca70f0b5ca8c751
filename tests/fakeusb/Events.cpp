#include "fakeusb/Events.h"

#include "fakeusb/World.h"

namespace fakeusb {

using namespace detail;

void Events::SetNextTimeout(long seconds, long microseconds) {
    Locked([&](World& w) { w.nextTimeout = timeval{seconds, microseconds}; });
}

void Events::ClearNextTimeout() {
    Locked([](World& w) { w.nextTimeout.reset(); });
}

void Events::SetHandleEventsHook(std::function<void()> hook) {
    Locked([&](World& w) { w.handleEventsHook = std::move(hook); });
}

void Events::AnnounceDeviceDescriptors() {
    Locked([](World& w) { w.deviceDescriptors = true; });
}

int Events::QueuedCompletions() {
    return Locked([](World& w) {
        size_t queued = 0;
        for (auto& c : w.contexts) {
            queued += c->completions.size();
        }
        return static_cast<int>(queued);
    });
}

} // namespace fakeusb
