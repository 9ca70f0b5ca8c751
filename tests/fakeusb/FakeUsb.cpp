#include "fakeusb/FakeUsb.h"

#include "fakeusb/World.h"

namespace fakeusb {

void Reset() {
    // The responder and hook may hold test objects: destroy them unlocked.
    std::function<void(const Submission&)> responder;
    std::function<void()> hook;
    detail::Locked([&](detail::World& w) {
        responder.swap(w.responder);
        hook.swap(w.handleEventsHook);
        w.Clear();
    });
}

void AbortOnMisuse() {
    detail::World::abortOnMisuse = true;
}

} // namespace fakeusb
