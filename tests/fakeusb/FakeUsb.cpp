#include "fakeusb/FakeUsb.h"

#include "fakeusb/World.h"

namespace fakeusb {

void Reset() {
    detail::World& w = detail::TheWorld();
    // The responder and hook may hold test objects: destroy them unlocked.
    std::function<void(const Submission&)> responder;
    std::function<void()> hook;
    std::lock_guard<std::mutex> lock(w.mutex);
    responder.swap(w.responder);
    hook.swap(w.handleEventsHook);
    w.Clear();
}

} // namespace fakeusb
