#include "usb/FDCompositorThread.h"

#include <fcntl.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <new>

#include "usb/LibUSBBearerConnection.h"

namespace {

// Pipes are drained in small reads: at most a few bytes are ever pending.
constexpr int kDrainChunk = 10;

void Drain(int fd) {
    char discard[kDrainChunk];
    while (read(fd, discard, sizeof discard) > 0) {
    }
}

// 0, or the errno of a failed write. A full pipe is not a failure: its reader
// has a byte waiting already and will wake.
int WriteOneByte(int fd) {
    const char zero = 0;
    ssize_t written;
    do {
        written = write(fd, &zero, 1);
    } while (written < 0 && errno == EINTR);
    if (written > 0 || (written < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))) {
        return 0;
    }
    return written == 0 ? EIO : errno;
}

bool IsOpen(int fd) { return fcntl(fd, F_GETFD) != -1 || errno != EBADF; }

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
    : FDCompositor(owner), threadStarted(false), stopRequested(false), armed(false), failed(false), failure(0),
      failureLogged(false), thread(), mutexAttrInitialised(false), mutexAttr(), mutexInitialised(false), mutex(), wakeReadFd(-1),
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
    // The thread is born with every signal blocked, so that not even its
    // first instructions can run a toolkit's handler or be interrupted.
    sigset_t all, previous;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    int created = pthread_create(&thread, nullptr, ThreadEntry, this);
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    if (created != 0) {
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
    // A stopped thread's handle stays readable, so the toolkit keeps coming back to hear why.
    if (eventReadFd != -1 && !failed) {
        Drain(eventReadFd);
    }
    armed = true;
    if (wakeWriteFd != -1) {
        if (int written = WriteOneByte(wakeWriteFd); written != 0) {
            Fail(written);
        }
    }
    bool report = failed && !stopRequested;
    UnlockMutex();
    if (report) {
        ReportStop();
    }
}

// The byte the thread writes when it sees work; a stopped thread's handle is
// readable already.
void FDCompositorThread::Notify() {
    LockMutex();
    if (eventWriteFd != -1 && !failed) {
        WriteOneByte(eventWriteFd);
    }
    UnlockMutex();
}

void FDCompositorThread::Fail(int errorNumber) {
    if (!failed) {
        failure = errorNumber;
    }
    failed = true;
}

// Every time, so that a pump that clears the owner's error cannot forget it;
// logged once.
void FDCompositorThread::ReportStop() {
    if (owner == nullptr) {
        return;
    }
    LockMutex();
    bool log = !failureLogged;
    failureLogged = true;
    int reason = failure;
    UnlockMutex();
    if (log) {
        owner->Log("Error: USB event thread stopped: %s", std::strerror(reason));
    }
    owner->ReportError(11);
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

int FDCompositorThread::BuildSets(fd_set* readSet, fd_set* writeSet, fd_set* exceptSet, bool skipClosed) {
    FD_ZERO(readSet);
    FD_ZERO(writeSet);
    FD_ZERO(exceptSet);
    int highest = 0;
    auto add = [&highest, skipClosed](int fd, fd_set* set) {
        if (skipClosed && !IsOpen(fd)) {
            return;
        }
        FD_SET(fd, set);
        highest = fd > highest ? fd : highest;
    };
    if (armed) {
        for (int fd : allFds) add(fd, exceptSet);
        for (int fd : readFds) add(fd, readSet);
        for (int fd : writeFds) add(fd, writeSet);
    }
    add(wakeReadFd, readSet);
    return highest;
}

void FDCompositorThread::Loop() {
    LockMutex();
    bool skipClosed = false;
    while (!stopRequested && !failed) {
        fd_set readSet, writeSet, exceptSet;
        int highest = BuildSets(&readSet, &writeSet, &exceptSet, skipClosed);

        UnlockMutex();
        int count = select(highest + 1, &readSet, &writeSet, &exceptSet, nullptr);
        int waitError = errno;
        LockMutex();
        Drain(wakeReadFd);

        // libusb may close a descriptor between its removal from the lists and
        // this wait; the next pass is built without it. A descriptor that is
        // still listed but closed is left out of that one pass only, so a stale
        // entry cannot make the loop spin.
        skipClosed = count < 0 && waitError == EBADF;
        if (count < 0) {
            if (waitError != EINTR && waitError != EBADF) {
                Fail(waitError);
            }
        } else if (count == 0 || (count == 1 && FD_ISSET(wakeReadFd, &readSet))) {
            continue;
        } else {
            if (int written = WriteOneByte(eventWriteFd); written != 0) {
                Fail(written);
            }
            armed = false;
        }
    }
    if (failed && !stopRequested) {
        WriteOneByte(eventWriteFd); // wakes the toolkit, whose next Rearm reports the stop
    }
    UnlockMutex();
}
