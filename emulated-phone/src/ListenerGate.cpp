#include "ListenerGate.h"

#include "IoctlHooks.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstddef>
#include <cstring>
#include <sys/un.h>

namespace emuphone {

void ListenerGate::Install()
{
    static std::atomic<bool> installed{false};
    if (emuphone_hooks_reach_libraries() && !installed.exchange(true))
        emuphone_set_listener_hooks(&ListenerGate::OnChange, &ListenerGate::OnChanged);
}

// Never destroyed: close() keeps arriving while the process exits.
std::mutex& ListenerGate::Turn()
{
    static std::mutex* turn = new std::mutex;
    return *turn;
}

int ListenerGate::OnChange(int fd, const sockaddr* address)
{
    bool listener = address ? Binding(fd, *address) : Listener(fd);
    if (listener)
        Turn().lock();
    return listener;
}

void ListenerGate::OnChanged() { Turn().unlock(); }

// libudev binds its monitor with a netlink address to a socket that umockdev's
// preload made a local one; the preload then names it <root>/event<descriptor>,
// first unlinking any stale socket of that name. A real netlink socket (GLib's
// network monitor, say) is left alone.
bool ListenerGate::Binding(int fd, const sockaddr& address)
{
    int domain = 0;
    socklen_t length = sizeof domain;
    return address.sa_family == AF_NETLINK && getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &length) == 0 &&
           domain == AF_UNIX;
}

// A socket named like umockdev's listeners. umockdev's own sending socket has
// no name, or an abstract one, so the sender never waits for itself. No
// allocation: close() may come from a signal handler.
bool ListenerGate::Listener(int fd)
{
    sockaddr_un name{};
    socklen_t length = sizeof name;
    constexpr socklen_t kPathOffset = offsetof(sockaddr_un, sun_path);
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&name), &length) != 0 || name.sun_family != AF_UNIX ||
        length <= kPathOffset || name.sun_path[0] == '\0')
        return false;
    size_t size = strnlen(name.sun_path, std::min<size_t>(length - kPathOffset, sizeof name.sun_path));
    const char* end = name.sun_path + size;
    const char* digits = end;
    while (digits > name.sun_path && std::isdigit(static_cast<unsigned char>(digits[-1])))
        --digits;
    constexpr char kPrefix[] = "/event";
    constexpr size_t kPrefixLength = sizeof kPrefix - 1;
    return digits < end && static_cast<size_t>(digits - name.sun_path) >= kPrefixLength &&
           std::memcmp(digits - kPrefixLength, kPrefix, kPrefixLength) == 0;
}

} // namespace emuphone
