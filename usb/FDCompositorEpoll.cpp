#include "usb/FDCompositorEpoll.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <new>

namespace {

// libusb watches a handful of descriptors; one batch sees them all.
constexpr int kBatch = 16;

constexpr uint32_t kInterest = EPOLLIN | EPOLLOUT | EPOLLPRI;

} // namespace

FDCompositorEpoll::FDCompositorEpoll(LibUSBBearerConnection* owner)
    : FDCompositor(owner), epollFd(-1), noticeFd(-1), noticed(false), completed(false) {}

FDCompositorEpoll::~FDCompositorEpoll() {
    for (int fd : {epollFd, noticeFd}) {
        if (fd != -1) {
            close(fd);
        }
    }
}

int FDCompositorEpoll::Start() {
    epollFd = epoll_create1(EPOLL_CLOEXEC);
    if (epollFd == -1) {
        return 1;
    }
    noticeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = noticeFd;
    return noticeFd == -1 || epoll_ctl(epollFd, EPOLL_CTL_ADD, noticeFd, &event) != 0 ? 1 : 0;
}

void FDCompositorEpoll::Notify() {
    if (noticeFd != -1 && !noticed) {
        const uint64_t one = 1;
        noticed = write(noticeFd, &one, sizeof one) == sizeof one;
    }
}

int FDCompositorEpoll::GetEventHandle() { return epollFd; }

void FDCompositorEpoll::ActivityHook() { completed = true; }

void FDCompositorEpoll::Lock() {}

void FDCompositorEpoll::Unlock() {}

FDCompositorEpoll::Member* FDCompositorEpoll::Find(int fd) {
    for (Member& member : members) {
        if (member.fd == fd) {
            return &member;
        }
    }
    return nullptr;
}

int FDCompositorEpoll::Watch(const Member& member, bool known) {
    epoll_event event = {};
    // Urgent data is what select() reported as an exceptional condition.
    event.events = EPOLLPRI;
    if (member.wantRead) {
        event.events |= EPOLLIN;
    }
    if (member.wantWrite) {
        event.events |= EPOLLOUT;
    }
    event.data.fd = member.fd;
    // A descriptor closed and reopened under the same number has left the set
    // on its own; one that is new to us may still be in it from before.
    int operation = known ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
    if (epoll_ctl(epollFd, operation, member.fd, &event) == 0) {
        return 0;
    }
    if (errno != (known ? ENOENT : EEXIST)) {
        return errno;
    }
    operation = known ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
    return epoll_ctl(epollFd, operation, member.fd, &event) == 0 ? 0 : errno;
}

int FDCompositorEpoll::AddFd(int fd, bool wantRead, bool wantWrite) {
    if (Member* member = Find(fd)) {
        Member merged = *member;
        merged.wantRead = merged.wantRead || wantRead;
        merged.wantWrite = merged.wantWrite || wantWrite;
        merged.hungUp = false;
        merged.parked = false;
        int error = Watch(merged, !member->parked);
        if (error != 0) {
            errno = error;
            return 3;
        }
        *member = merged;
        return 0;
    }
    try {
        members.push_back(Member{fd, wantRead, wantWrite, false, false});
    } catch (const std::bad_alloc&) {
        return 2;
    }
    // epoll refuses regular files (EPERM) and what is not open (EBADF): the
    // owner hears of it rather than waiting on a descriptor never watched.
    int error = Watch(members.back(), false);
    if (error != 0) {
        members.pop_back();
        errno = error;
        return 3;
    }
    return 0;
}

int FDCompositorEpoll::RemoveFd(int fd) {
    for (auto it = members.begin(); it != members.end(); ++it) {
        if (it->fd == fd) {
            if (!it->parked) {
                // Fails harmlessly when libusb has closed it already.
                epoll_ctl(epollFd, EPOLL_CTL_DEL, fd, nullptr);
            }
            members.erase(it);
            break;
        }
    }
    return 0;
}

// Level-triggered readiness needs no re-arming; what remains is hang-up.
// libusb has just handled its events, so a member still reporting only
// hang-up or error is one libusb has seen and kept. It is parked at its
// second sighting in a row, not its first: a hang-up that arrived after
// libusb polled is then certain to have been in front of libusb once, in the
// pass between the two sightings, before the compositor stops watching it.
//
// A pass that completed a transfer skips the look, and the system call it
// costs: it did work, so it was no spin, and a streaming link completes
// something in nearly every pass. Skipping only delays parking: sightings
// still come from passes after libusb has polled, and a toolkit woken by a
// hang-up alone meets a pass without completions, where the look is taken.
void FDCompositorEpoll::Rearm() {
    if (noticed) {
        uint64_t notices = 0;
        noticed = read(noticeFd, &notices, sizeof notices) != sizeof notices;
    }
    bool worked = completed;
    completed = false;
    if (worked || epollFd == -1 || members.empty()) {
        return;
    }
    epoll_event events[kBatch];
    int count = epoll_wait(epollFd, events, kBatch, 0);
    for (Member& member : members) {
        if (member.parked) {
            continue;
        }
        bool hungUp = false;
        for (int i = 0; i < count; ++i) {
            if (events[i].data.fd == member.fd) {
                hungUp = (events[i].events & kInterest) == 0;
            }
        }
        if (hungUp && member.hungUp) {
            epoll_ctl(epollFd, EPOLL_CTL_DEL, member.fd, nullptr);
            member.parked = true;
        }
        member.hungUp = hungUp;
    }
}
