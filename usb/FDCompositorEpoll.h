#pragma once

#include <vector>

#include "usb/FDCompositor.h"

// The compositor as an epoll descriptor: libusb's descriptors are its members,
// level-triggered, so the event handle is readable exactly while one of them
// is ready, or while Notify's counter (an eventfd, also a member) is set. No
// thread, no pipes, no lock.
//
// epoll always reports hang-up and error, which select() did not. A member
// that keeps reporting only those after libusb has handled its events would
// keep the handle readable for good and the toolkit would spin; Rearm() takes
// such a member out of the set until libusb removes or re-adds it. It looks
// only after a pass that completed no transfer: a pass that did was no spin.
class FDCompositorEpoll : public FDCompositor {
public:
    explicit FDCompositorEpoll(LibUSBBearerConnection* owner);
    ~FDCompositorEpoll() override;

    int GetEventHandle() override;
    void Rearm() override;
    void Notify() override;
    void ActivityHook() override;
    void Lock() override;
    void Unlock() override;
    int Start() override;
    // Returns 3 with errno set when epoll refuses fd (a regular file, say).
    int AddFd(int fd, bool wantRead, bool wantWrite) override;
    int RemoveFd(int fd) override;

private:
    struct Member {
        int fd;
        bool wantRead;
        bool wantWrite;
        bool hungUp;  // reported only hang-up or error at the last Rearm
        bool parked;  // out of the epoll set until libusb removes or re-adds it
    };

    Member* Find(int fd);
    // Registers (or updates) fd with its merged interests; 0 or an errno.
    int Watch(const Member& member, bool known);

    std::vector<Member> members;
    int epollFd;
    int noticeFd; // readable from Notify until Rearm
    bool noticed; // noticeFd is readable: Rearm takes its count
    // A transfer completed since the last Rearm.
    bool completed;
};
