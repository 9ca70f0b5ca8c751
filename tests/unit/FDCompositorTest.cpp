// The compositors with real descriptors: what makes the toolkit's event
// handle readable, and what must not.
#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <atomic>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "SelectFaults.h"
#include "usb/FDCompositorThread.h"
#if KESTO_HAVE_EPOLL
#include "usb/FDCompositorEpoll.h"
#endif

namespace {

constexpr int kSettleMs = 50;   // long enough for the thread to have reacted
constexpr int kWaitMs = 2000;   // a notification that is due arrives well within this

int Entries(const char* directory) {
    int count = 0;
    DIR* dir = opendir(directory);
    while (readdir(dir) != nullptr) {
        count++;
    }
    closedir(dir);
    return count;
}

int OpenDescriptors() { return Entries("/proc/self/fd"); }
int Threads() { return Entries("/proc/self/task"); }

bool Readable(int fd, int timeoutMs) {
    pollfd p = {fd, POLLIN, 0};
    return poll(&p, 1, timeoutMs) == 1 && (p.revents & POLLIN) != 0;
}

struct Pipe {
    int fds[2] = {-1, -1};
    Pipe() { EXPECT_EQ(pipe(fds), 0); }
    ~Pipe() {
        for (int fd : fds) {
            if (fd != -1) close(fd);
        }
    }
    int ReadEnd() const { return fds[0]; }
    void MakeReady() const { ASSERT_EQ(write(fds[1], "x", 1), 1); }
    // Takes what MakeReady wrote, so the read end is no longer ready.
    void Drain() const {
        char bytes[8];
        ASSERT_GT(read(fds[0], bytes, sizeof bytes), 0);
    }
};

// Builds an unstarted compositor of one kind.
struct Kind {
    const char* name;
    FDCompositor* (*make)();
};

FDCompositor* MakeThread() { return new FDCompositorThread(nullptr); }
#if KESTO_HAVE_EPOLL
FDCompositor* MakeEpoll() { return new FDCompositorEpoll(nullptr); }
#endif

// What every compositor owes the toolkit, whichever way it waits.
class EventHandle : public ::testing::TestWithParam<Kind> {
protected:
    void SetUp() override { ASSERT_EQ(compositor->Start(), 0); }
    int Handle() { return compositor->GetEventHandle(); }
    std::unique_ptr<FDCompositor> compositor{GetParam().make()};
    Pipe usb;
};

// Readable while a watched descriptor is ready for what it is watched for,
// again after each pass until it is drained, and never for nothing. FD_SETSIZE
// is beyond select()'s sets and not open: neither kind can watch it.
TEST_P(EventHandle, NotifiesWhileAWatchedDescriptorIsReadyAndOnlyThen) {
    errno = 0;
    EXPECT_NE(compositor->AddFd(FD_SETSIZE, true, false), 0);
    EXPECT_EQ(errno, EBADF);
    EXPECT_NE(compositor->AddFd(-1, true, false), 0);
    Pipe out; // a pipe's write end is always writable, never readable
    usb.MakeReady();
    compositor->AddFd(out.fds[1], false, false);
    EXPECT_FALSE(Readable(Handle(), kSettleMs)); // usb is not watched yet, out not for writing
    compositor->AddFd(out.fds[1], false, true); // added again: watched for both
    ASSERT_TRUE(Readable(Handle(), kWaitMs));
    EXPECT_EQ(compositor->RemoveFd(out.fds[1]), 0); // forgotten at one removal
    EXPECT_EQ(compositor->RemoveFd(12345), 0);      // unknown: harmless

    compositor->AddFd(usb.ReadEnd(), true, false);
    ASSERT_TRUE(Readable(Handle(), kWaitMs));
    compositor->Rearm(); // the toolkit processed events but left the data unread
    EXPECT_TRUE(Readable(Handle(), kWaitMs));
    usb.Drain();
    for (int i = 0; i < 5; ++i) {
        compositor->Rearm();
    }
    // A wait under way at the removal may still have watched out: quiet now,
    // after notifications for usb, out is forgotten.
    EXPECT_FALSE(Readable(Handle(), kSettleMs));
}

TEST_P(EventHandle, WatchesExceptionalConditionsWithoutReadOrWriteInterest) {
    int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener, 1), 0);
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    int client = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    int server = accept(listener, nullptr, nullptr);

    compositor->AddFd(server, false, false);
    ASSERT_EQ(send(client, "!", 1, MSG_OOB), 1); // urgent data is an exceptional condition
    EXPECT_TRUE(Readable(Handle(), kWaitMs));
    compositor->RemoveFd(server);
    for (int fd : {server, client, listener}) close(fd);
}

INSTANTIATE_TEST_SUITE_P(Kinds, EventHandle,
                         ::testing::Values(Kind{"Thread", MakeThread}
#if KESTO_HAVE_EPOLL
                                           ,
                                           Kind{"Epoll", MakeEpoll}
#endif
                                           ),
                         [](const ::testing::TestParamInfo<Kind>& info) { return std::string(info.param.name); });

#if KESTO_HAVE_EPOLL
// epoll reports hang-up whatever was asked for. A phone's descriptor that
// libusb keeps after it hung up must not keep the toolkit coming back for
// ever, yet what was readable before the hang-up is still delivered.
TEST(EpollHandle, AHungUpDescriptorStopsNotifyingOnceDrainedUntilLibusbAddsItAgain) {
    FDCompositorEpoll compositor(nullptr);
    ASSERT_EQ(compositor.Start(), 0);
    const int handle = compositor.GetEventHandle();
    Pipe usb;
    compositor.AddFd(usb.ReadEnd(), true, false);
    usb.MakeReady();
    close(usb.fds[1]);
    usb.fds[1] = -1;
    for (int pass = 0; pass < 3; ++pass) {
        ASSERT_TRUE(Readable(handle, 0)) << "data unread at pass " << pass;
        compositor.Rearm();
    }
    usb.Drain();
    int passes = 0;
    for (; Readable(handle, 0) && passes < 10; ++passes) {
        compositor.Rearm();
    }
    EXPECT_LE(passes, 2);
    EXPECT_FALSE(Readable(handle, kSettleMs));

    compositor.AddFd(usb.ReadEnd(), true, false); // libusb watches it afresh
    EXPECT_TRUE(Readable(handle, 0));
    compositor.RemoveFd(usb.ReadEnd());
    EXPECT_FALSE(Readable(handle, 0));
}
#endif

// The thread compositor's own ways: one byte per notification, a thread that
// takes no signals, and what happens when its wait fails.
class EventThread : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(compositor->Start(), 0); }
    int Handle() { return compositor->GetEventHandle(); }
    std::unique_ptr<FDCompositorThread> compositor = std::make_unique<FDCompositorThread>(nullptr);
    Pipe usb;
};

std::atomic<int> gHandled{0};
extern "C" void CountSignal(int) { gHandled++; }

// A toolkit's handler, installed without SA_RESTART, for a signal that only
// the event thread could take: it stays pending there instead of interrupting
// the wait, and the first thread that can take it does.
TEST_F(EventThread, SignalsWithHandlersNeverLandOnTheEventThread) {
    gHandled = 0;
    struct sigaction action = {};
    action.sa_handler = CountSignal;
    struct sigaction previous;
    sigaction(SIGUSR1, &action, &previous);
    sigset_t usr1, old;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &usr1, &old);
    const int threads = Threads();
    for (int i = 0; i < 20; ++i) {
        kill(getpid(), SIGUSR1);
        usleep(1000);
    }
    compositor->AddFd(usb.ReadEnd(), true, false);
    usb.MakeReady();
    EXPECT_TRUE(Readable(Handle(), kWaitMs));
    EXPECT_EQ(Threads(), threads);
    EXPECT_EQ(gHandled, 0);
    pthread_sigmask(SIG_SETMASK, &old, nullptr); // the pending signal lands here, now
    EXPECT_EQ(gHandled, 1);
    sigaction(SIGUSR1, &previous, nullptr);
}

// An interrupted wait, and one that finds a descriptor closed under it, are
// waited again, and a ready descriptor then brings one byte until the next
// Rearm; anything else ends the thread but leaves the handle readable.
TEST_F(EventThread, AFailedWaitIsRetriedOrEndsWithTheHandleReadable) {
    compositor->AddFd(usb.ReadEnd(), true, false);
    for (int error : {EINTR, EBADF}) {
        SCOPED_TRACE(error);
        SelectFaults::Reset();
        SelectFaults::FailNext(error, 3);
        compositor->Rearm(); // wakes the thread into the failing waits
        for (int waited = 0; SelectFaults::Failed() < 3 && waited < kWaitMs; waited += 1) {
            usleep(1000);
        }
        ASSERT_EQ(SelectFaults::Failed(), 3);
        usb.MakeReady();
        EXPECT_TRUE(Readable(Handle(), kWaitMs));
        usleep(kSettleMs * 1000);
        char bytes[16];
        EXPECT_EQ(read(Handle(), bytes, sizeof bytes), 1);
        usb.Drain();
        compositor->Rearm();
        EXPECT_FALSE(Readable(Handle(), kSettleMs));
    }
    const int threads = Threads();
    SelectFaults::FailNext(ENOMEM);
    compositor->Rearm();
    EXPECT_TRUE(Readable(Handle(), kWaitMs));
    for (int waited = 0; Threads() == threads && waited < kWaitMs; waited += 1) {
        usleep(1000);
    }
    EXPECT_LT(Threads(), threads);
    compositor->Rearm(); // a stopped thread's handle is not drained
    EXPECT_TRUE(Readable(Handle(), 0));
    SelectFaults::Reset();
}

TEST(EventThreadLifetime, AStartThatFailsPartWayIsDestroyedCleanly) {
    rlimit saved;
    getrlimit(RLIMIT_NOFILE, &saved);
    // UBSan checks a type with descriptors of its own the first time it sees it.
    FDCompositorThread(nullptr).Start();
    int before = OpenDescriptors();
    // Probe for the lowest free descriptors: the first pipe fits, the second cannot.
    for (rlim_t room : {0, 1, 2, 3}) {
        int highestFree = dup(0);
        close(highestFree);
        rlimit tight = saved;
        tight.rlim_cur = static_cast<rlim_t>(highestFree) + room;
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
        {
            FDCompositorThread compositor(nullptr);
            EXPECT_EQ(compositor.Start(), 1) << "room for " << room << " descriptors";
        }
        setrlimit(RLIMIT_NOFILE, &saved);
        EXPECT_EQ(OpenDescriptors(), before);
    }
}

} // namespace
