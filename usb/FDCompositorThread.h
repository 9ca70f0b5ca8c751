#pragma once

#include <pthread.h>
#include <sys/select.h>

#include <list>

#include "usb/FDCompositor.h"

// The compositor as a background thread: select() over libusb's descriptors
// and a wake pipe, one byte into the event pipe per readiness, then unarmed
// until the next Rearm() so level-triggered readiness cannot spin.
//
// The thread runs with every signal blocked, so the toolkit's handlers never
// run on it, and it outlives interruptions and descriptors closed under it.
// Should it still have to stop, it leaves the event handle readable and the
// next Rearm() on the toolkit's thread reports the reason to the owner.
class FDCompositorThread : public FDCompositor {
public:
    explicit FDCompositorThread(LibUSBBearerConnection* owner);
    ~FDCompositorThread() override;

    int GetEventHandle() override;
    void Rearm() override;
    void Notify() override;
    void Lock() override;
    void Unlock() override;
    int Start() override;
    int AddFd(int fd, bool wantRead, bool wantWrite) override;
    int RemoveFd(int fd) override;

private:
    static void* ThreadEntry(void* self);
    void Loop();
    // Builds the sets; after a wait that failed with EBADF, descriptors that
    // are no longer open are left out (they stay listed).
    int BuildSets(fd_set* readSet, fd_set* writeSet, fd_set* exceptSet, bool skipClosed);
    // Records why the loop must end; the first reason is kept.
    void Fail(int errorNumber);
    // Logs and reports the stop to the owner; called on the toolkit's thread.
    void ReportStop();
    void LockMutex();
    void UnlockMutex();

    std::list<int> readFds;
    std::list<int> writeFds;
    std::list<int> allFds;
    bool threadStarted;
    bool stopRequested;
    bool armed;
    bool failed;
    int failure;       // errno that stopped the loop
    bool failureLogged;
    pthread_t thread;
    bool mutexAttrInitialised;
    pthread_mutexattr_t mutexAttr;
    bool mutexInitialised;
    pthread_mutex_t mutex;
    int wakeReadFd;
    int wakeWriteFd;
    int eventWriteFd;
    int eventReadFd;
};
