#include "SelectFaults.h"

#include <dlfcn.h>
#include <sys/select.h>

#include <atomic>
#include <cerrno>

namespace {

std::atomic<int> gError{0};
std::atomic<int> gPending{0};
std::atomic<int> gFailed{0};

using SelectFn = int (*)(int, fd_set*, fd_set*, fd_set*, timeval*);

} // namespace

void SelectFaults::FailNext(int error, int count) {
    gError = error;
    gPending = count;
}

int SelectFaults::Failed() { return gFailed; }

void SelectFaults::Reset() {
    gPending = 0;
    gFailed = 0;
}

extern "C" int select(int count, fd_set* readSet, fd_set* writeSet, fd_set* exceptSet, timeval* timeout) {
    static const SelectFn real = reinterpret_cast<SelectFn>(dlsym(RTLD_NEXT, "select"));
    for (int pending = gPending; pending > 0;) {
        if (gPending.compare_exchange_weak(pending, pending - 1)) {
            gFailed++;
            errno = gError;
            return -1;
        }
    }
    return real(count, readSet, writeSet, exceptSet, timeout);
}
