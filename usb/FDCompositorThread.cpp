#include "usb/FDCompositorThread.h"

#include <fcntl.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <new>

namespace {

// Pipes are drained in small reads: at most a few bytes are ever pending.
constexpr int kDrainChunk = 10;

void Drain(int fd) {
    char discard[kDrainChunk];
    while (read(fd, discard, sizeof discard) > 0) {
    }
}

bool WriteOneByte(int fd) {
    const char zero = 0;
    return write(fd, &zero, 1) > 0;
}

// fd_set has room for descriptors below FD_SETSIZE only; FD_SET beyond it
// writes past the set.
bool Selectable(int fd) { return fd >= 0 && fd < FD_SETSIZE; }

bool MakePipe(int* readFd, int* writeFd) {
    int fds[2];
    if (pipe(fds) != 0) {
        return false;
    }
    *readFd = fds[0];
    *writeFd = fds[1];
    return fcntl(*writeFd, F_SETFL, O_NONBLOCK) == 0 && fcntl(*readFd, F_SETFL, O_NONBLOCK) == 0 &&
           Selectable(*readFd);
}

} // namespace

FDCompositorThread::FDCompositorThread(LibUSBBearerConnection* owner)
    : FDCompositor(owner), threadStarted(false), stopRequested(false), armed(false), failed(false),
      thread(), mutexAttrInitialised(false), mutexAttr(), mutexInitialised(false), mutex(), wakeReadFd(-1),
      wakeWriteFd(-1), eventWriteFd(-1), eventReadFd(-1) {}

FDCompositorThread::~FDCompositorThread() {
    // Under the lock, so the loop's read of the flag is ordered after it.
    LockMutex();
    stopRequested = true;
    UnlockMutex();
    FDCompositorThread::Rearm();
    if (threadStarted) {
        pthread_join(thread, nullptr);
        threadStarted = false;
    }
    for (int* fd : {&eventWriteFd, &eventReadFd, &wakeReadFd, &wakeWriteFd}) {
        if (*fd != -1) {
            close(*fd);
            *fd = -1;
        }
    }
    if (mutexInitialised) {
        pthread_mutex_destroy(&mutex);
        mutexInitialised = false;
    }
    if (mutexAttrInitialised) {
        pthread_mutexattr_destroy(&mutexAttr);
        mutexAttrInitialised = false;
    }
}

int FDCompositorThread::Start() {
    if (!MakePipe(&eventReadFd, &eventWriteFd) || !MakePipe(&wakeReadFd, &wakeWriteFd)) {
        return 1;
    }
    if (pthread_mutexattr_init(&mutexAttr) != 0) {
        return 1;
    }
    mutexAttrInitialised = true;
    pthread_mutexattr_settype(&mutexAttr, PTHREAD_MUTEX_RECURSIVE);
    if (pthread_mutex_init(&mutex, &mutexAttr) != 0) {
        return 1;
    }
    mutexInitialised = true;
    if (pthread_create(&thread, nullptr, ThreadEntry, this) != 0) {
        return 1;
    }
    threadStarted = true;
    return 0;
}

int FDCompositorThread::GetEventHandle() { return eventReadFd; }

void FDCompositorThread::Lock() {}

void FDCompositorThread::Unlock() {}

// A destructor reached after a failed Start may have no mutex yet; with no
// thread running there is nothing to guard against then.
void FDCompositorThread::LockMutex() {
    if (mutexInitialised) {
        pthread_mutex_lock(&mutex);
    }
}

void FDCompositorThread::UnlockMutex() {
    if (mutexInitialised) {
        pthread_mutex_unlock(&mutex);
    }
}

void FDCompositorThread::Rearm() {
    LockMutex();
    if (eventReadFd != -1) {
        Drain(eventReadFd);
    }
    armed = true;
    if (wakeWriteFd != -1 && !WriteOneByte(wakeWriteFd)) {
        failed = true;
    }
    UnlockMutex();
}

int FDCompositorThread::AddFd(int fd, bool wantRead, bool wantWrite) {
    // A descriptor select() cannot watch is refused rather than silently
    // missed: the owner hears of it and the connection fails visibly.
    if (!Selectable(fd)) {
        errno = EBADF;
        return 3;
    }
    LockMutex();
    try {
        allFds.push_back(fd);
        if (wantRead) {
            readFds.push_back(fd);
        }
        if (wantWrite) {
            writeFds.push_back(fd);
        }
    } catch (const std::bad_alloc&) {
        UnlockMutex();
        return 2;
    } catch (...) {
        UnlockMutex();
        throw;
    }
    Rearm();
    UnlockMutex();
    return 0;
}

int FDCompositorThread::RemoveFd(int fd) {
    LockMutex();
    allFds.remove(fd);
    readFds.remove(fd);
    writeFds.remove(fd);
    Rearm();
    UnlockMutex();
    return 0;
}

void* FDCompositorThread::ThreadEntry(void* self) {
    static_cast<FDCompositorThread*>(self)->Loop();
    return nullptr;
}

void FDCompositorThread::Loop() {
    sigset_t pipeOnly;
    sigemptyset(&pipeOnly);
    sigaddset(&pipeOnly, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeOnly, nullptr);

    LockMutex();
    while (!stopRequested && !failed) {
        fd_set readSet, writeSet, exceptSet;
        FD_ZERO(&readSet);
        FD_ZERO(&writeSet);
        FD_ZERO(&exceptSet);
        int highest = 0;
        auto add = [&highest](int fd, fd_set* set) {
            FD_SET(fd, set);
            highest = fd > highest ? fd : highest;
        };
        if (armed) {
            for (int fd : allFds) add(fd, &exceptSet);
            for (int fd : readFds) add(fd, &readSet);
            for (int fd : writeFds) add(fd, &writeSet);
        }
        add(wakeReadFd, &readSet);

        UnlockMutex();
        int count = select(highest + 1, &readSet, &writeSet, &exceptSet, nullptr);
        LockMutex();
        Drain(wakeReadFd);

        if (count < 0) {
            // No retry, EINTR included: a failed loop stays failed.
            failed = true;
        } else if (count == 0 || (count == 1 && FD_ISSET(wakeReadFd, &readSet))) {
            continue;
        } else {
            if (!WriteOneByte(eventWriteFd)) {
                failed = true;
            }
            armed = false;
        }
    }
    UnlockMutex();
}
