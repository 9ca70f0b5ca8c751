#pragma once

#include <libusb.h>

#include <functional>

namespace fakeusb {

// libusb's event side. Each context owns a real non-blocking pipe whose read
// end is the context's poll descriptor (POLLIN): libusb_get_pollfds lists it
// first, and it is readable exactly while completions are queued, so a thread
// that select()s on it wakes as it would on real libusb. libusb_exit announces
// the removal of every descriptor through the removed notifier before closing.
class Events {
public:
    // What libusb_get_next_timeout reports: no time-out pending (answer 0, the
    // default), or this one (answer 1). For an error answer:
    // Failures::Fail(Function::GetNextTimeout, LIBUSB_ERROR_OTHER).
    static void SetNextTimeout(long seconds, long microseconds);
    static void ClearNextTimeout();

    // Adds fd to the descriptors of every live context and calls their added
    // notifiers; it is then listed by libusb_get_pollfds after the pipe.
    static void AddPollFd(int fd, short events);
    // Withdraws fd from every live context that has it, calling the removed notifiers.
    static void RemovePollFd(int fd);

    // Runs at the start of every libusb_handle_events_timeout, outside the
    // double's lock, on the caller's thread; transfers it completes are
    // delivered by that same call. For devices that answer "later", and for
    // ending transfers whose cancellation was made to fail.
    static void SetHandleEventsHook(std::function<void()> hook);

    // The poll descriptor of `context`; -1 when it is not a live context.
    static int PollFd(const libusb_context* context);
    // Completions queued for delivery, over all contexts.
    static int QueuedCompletions();
    static int HandleEventsCalls();
    // libusb_get_pollfds lists handed out. Their release is not counted: the
    // caller frees them with free(); LeakSanitizer reports one that is not.
    static int PollfdListsHandedOut();
};

} // namespace fakeusb
