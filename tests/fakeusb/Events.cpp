#include "fakeusb/Events.h"

#include <algorithm>
#include <utility>

#include "fakeusb/World.h"

namespace fakeusb {

using namespace detail;

namespace {

using Lock = std::lock_guard<std::mutex>;

// Notifiers run after the lock is dropped, so they may call back into libusb.
using Notification = std::function<void()>;

void Run(const std::vector<Notification>& notifications) {
    for (const Notification& n : notifications) {
        n();
    }
}

} // namespace

void Events::SetNextTimeout(long seconds, long microseconds) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    timeval tv{};
    tv.tv_sec = seconds;
    tv.tv_usec = microseconds;
    w.nextTimeout = tv;
}

void Events::ClearNextTimeout() {
    World& w = TheWorld();
    Lock lock(w.mutex);
    w.nextTimeout.reset();
}

void Events::AddPollFd(int fd, short events) {
    World& w = TheWorld();
    std::vector<Notification> notifications;
    {
        Lock lock(w.mutex);
        for (auto& context : w.contexts) {
            if (context->live) {
                context->extraFds.push_back(libusb_pollfd{fd, events});
                if (context->added != nullptr) {
                    notifications.push_back(
                        [=, added = context->added, data = context->notifierData] { added(fd, events, data); });
                }
            }
        }
    }
    Run(notifications);
}

void Events::RemovePollFd(int fd) {
    World& w = TheWorld();
    std::vector<Notification> notifications;
    {
        Lock lock(w.mutex);
        for (auto& context : w.contexts) {
            auto& fds = context->extraFds;
            auto it = std::find_if(fds.begin(), fds.end(), [&](const libusb_pollfd& p) { return p.fd == fd; });
            if (context->live && it != fds.end()) {
                fds.erase(it);
                if (context->removed != nullptr) {
                    notifications.push_back(
                        [=, removed = context->removed, data = context->notifierData] { removed(fd, data); });
                }
            }
        }
    }
    Run(notifications);
}

void Events::SetHandleEventsHook(std::function<void()> hook) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    w.handleEventsHook = std::move(hook);
}

int Events::PollFd(const libusb_context* context) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    for (auto& c : w.contexts) {
        if (c.get() == context && c->live) {
            return c->readFd;
        }
    }
    return -1;
}

int Events::QueuedCompletions() {
    World& w = TheWorld();
    Lock lock(w.mutex);
    size_t queued = 0;
    for (auto& c : w.contexts) {
        queued += c->completions.size();
    }
    return static_cast<int>(queued);
}

int Events::HandleEventsCalls() {
    World& w = TheWorld();
    Lock lock(w.mutex);
    return w.handleEventsCalls;
}

int Events::PollfdListsHandedOut() {
    World& w = TheWorld();
    Lock lock(w.mutex);
    return w.pollfdListsHandedOut;
}

} // namespace fakeusb
