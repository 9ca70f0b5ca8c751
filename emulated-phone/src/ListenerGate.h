#pragma once

#include <mutex>
#include <sys/socket.h>

namespace emuphone {

// umockdev delivers a uevent by connecting to each listener's socket by name
// and then sending on it; in 0.17 a listener that closes between the two makes
// the send fail and umockdev abort the process. A real bus never minds a
// listener going away, and libusb opens and closes one with every context. So
// in this process a listener is created or closed only between uevents: the
// testbed holds Turn() while it sends, and the interposed bind() and close()
// take it for udev monitor sockets. Another process's listeners are beyond it.
class ListenerGate {
public:
    // Hooks bind() and close() when the executable exports ours; idempotent.
    static void Install();
    static std::mutex& Turn();

private:
    static int OnChange(int fd, const sockaddr* address);
    static void OnChanged();
    static bool Binding(int fd, const sockaddr& address);
    static bool Listener(int fd);
};

} // namespace emuphone
