#pragma once

#include <functional>

namespace fakeusb {

// libusb's event side. Each context owns a real non-blocking pipe whose read
// end is the context's only poll descriptor (POLLIN), listed by
// libusb_get_pollfds: it is readable exactly while completions are queued, so
// a thread that select()s on it wakes as it would on real libusb. libusb_exit
// announces its removal through the removed notifier before closing it.
class Events {
public:
    // What libusb_get_next_timeout reports: no time-out pending (answer 0, the
    // default), or this one (answer 1).
    static void SetNextTimeout(long seconds, long microseconds);
    static void ClearNextTimeout();

    // Runs at the start of every libusb_handle_events_timeout, outside the
    // double's lock, on the caller's thread; transfers it completes are
    // delivered by that same call. For devices that answer "later", and for
    // ending transfers whose cancellation was made to fail.
    static void SetHandleEventsHook(std::function<void()> hook);

    // From now until Reset, every open handle also has a descriptor of its own,
    // announced to the pollfd notifiers (POLLOUT) on libusb_open and removed on
    // libusb_close, as Linux's libusb does with the device file. It is never
    // ready, except that unplugging the device hangs it up.
    static void AnnounceDeviceDescriptors();

    // Completions queued for delivery, over all contexts.
    static int QueuedCompletions();
};

} // namespace fakeusb
