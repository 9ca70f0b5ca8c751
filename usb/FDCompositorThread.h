#pragma once

#include <pthread.h>

#include <list>

#include "usb/FDCompositor.h"

// The compositor as a background thread: select() over libusb's descriptors
// and a wake pipe, one byte into the event pipe per readiness, then unarmed
// until the next Rearm() so level-triggered readiness cannot spin.
class FDCompositorThread : public FDCompositor {
public:
    explicit FDCompositorThread(LibUSBBearerConnection* owner);
    ~FDCompositorThread() override;

    int GetEventHandle() override;
    void Rearm() override;
    void Lock() override;
    void Unlock() override;
    int Start() override;
    int AddFd(int fd, bool wantRead, bool wantWrite) override;
    int RemoveFd(int fd) override;

private:
    static void* ThreadEntry(void* self);
    void Loop();
    void LockMutex();
    void UnlockMutex();

    std::list<int> readFds;
    std::list<int> writeFds;
    std::list<int> allFds;
    bool threadStarted;
    bool stopRequested;
    bool armed;
    bool failed;
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
