// The libusb functions for contexts, poll descriptors, time-outs and event
// handling, and libusb's error texts.

#include <fcntl.h>
#include <libusb.h>
#include <poll.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "fakeusb/World.h"

using fakeusb::Function;
using namespace fakeusb::detail;

namespace {

using Lock = std::lock_guard<std::mutex>;

// Real libusb would leak or crash on these; the double reports them and puts
// the transfers back to idle so that freeing them later is not a second fault.
void ReportLeftovers(World& w, const libusb_context* context) {
    int handles = 0;
    int refs = 0;
    int transfers = 0;
    for (auto& h : w.handles) {
        handles += h->open && h->device->context == context;
    }
    for (auto& d : w.devices) {
        refs += d->context == context ? d->refs : 0;
    }
    for (auto& entry : w.transfers) {
        TransferState& state = entry.second;
        if (state.phase != TransferState::Phase::Idle && state.handle->device->context == context) {
            transfers++;
            state.phase = TransferState::Phase::Idle;
        }
    }
    if (handles > 0 || refs > 0 || transfers > 0) {
        w.Misuse(Format("libusb_exit: %d open handle(s), %d device reference(s), %d transfer(s) in flight left",
                        handles, refs, transfers));
    }
}

int Milliseconds(const timeval& tv) {
    return static_cast<int>(tv.tv_sec * 1000 + (tv.tv_usec + 999) / 1000);
}

// How many completions this call delivers: those queued now, after waiting
// up to `tv` for one if none is. Later ones wait for the next call, as with
// libusb, so a callback that resubmits cannot keep one call going forever.
size_t CompletionsDue(libusb_context* context, const timeval& tv) {
    World& w = TheWorld();
    int fd = -1;
    {
        Lock lock(w.mutex);
        if (!context->completions.empty() || Milliseconds(tv) <= 0) {
            return context->completions.size();
        }
        fd = context->readFd;
    }
    pollfd p{fd, POLLIN, 0};
    poll(&p, 1, Milliseconds(tv));
    Lock lock(w.mutex);
    return context->live ? context->completions.size() : 0;
}

// Takes the next queued completion and writes its outcome into the transfer;
// null when none is left.
libusb_transfer* TakeCompletion(libusb_context* context) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    if (!context->live || context->completions.empty()) {
        return nullptr;
    }
    libusb_transfer* t = context->completions.front();
    context->completions.pop_front();
    TransferState& state = w.transfers[t];
    const Outcome& o = state.outcome;
    t->status = static_cast<libusb_transfer_status>(o.status);
    t->actual_length = o.actualLength;
    if (!o.data.empty()) {
        memcpy(t->buffer + o.offset, o.data.data(), o.data.size());
    }
    state.phase = TransferState::Phase::Idle;
    return t;
}

struct ErrorText {
    int code;
    const char* name;
    const char* text;
};

constexpr ErrorText kErrors[] = {
    {LIBUSB_SUCCESS, "LIBUSB_SUCCESS / LIBUSB_TRANSFER_COMPLETED", "Success"},
    {LIBUSB_ERROR_IO, "LIBUSB_ERROR_IO", "Input/Output Error"},
    {LIBUSB_ERROR_INVALID_PARAM, "LIBUSB_ERROR_INVALID_PARAM", "Invalid parameter"},
    {LIBUSB_ERROR_ACCESS, "LIBUSB_ERROR_ACCESS", "Access denied (insufficient permissions)"},
    {LIBUSB_ERROR_NO_DEVICE, "LIBUSB_ERROR_NO_DEVICE", "No such device (it may have been disconnected)"},
    {LIBUSB_ERROR_NOT_FOUND, "LIBUSB_ERROR_NOT_FOUND", "Entity not found"},
    {LIBUSB_ERROR_BUSY, "LIBUSB_ERROR_BUSY", "Resource busy"},
    {LIBUSB_ERROR_TIMEOUT, "LIBUSB_ERROR_TIMEOUT", "Operation timed out"},
    {LIBUSB_ERROR_OVERFLOW, "LIBUSB_ERROR_OVERFLOW", "Overflow"},
    {LIBUSB_ERROR_PIPE, "LIBUSB_ERROR_PIPE", "Pipe error"},
    {LIBUSB_ERROR_INTERRUPTED, "LIBUSB_ERROR_INTERRUPTED", "System call interrupted (perhaps due to signal)"},
    {LIBUSB_ERROR_NO_MEM, "LIBUSB_ERROR_NO_MEM", "Insufficient memory"},
    {LIBUSB_ERROR_NOT_SUPPORTED, "LIBUSB_ERROR_NOT_SUPPORTED",
     "Operation not supported or unimplemented on this platform"},
    {LIBUSB_ERROR_OTHER, "LIBUSB_ERROR_OTHER", "Other error"},
    // libusb_error_name also names transfer statuses.
    {LIBUSB_TRANSFER_ERROR, "LIBUSB_TRANSFER_ERROR", nullptr},
    {LIBUSB_TRANSFER_TIMED_OUT, "LIBUSB_TRANSFER_TIMED_OUT", nullptr},
    {LIBUSB_TRANSFER_CANCELLED, "LIBUSB_TRANSFER_CANCELLED", nullptr},
    {LIBUSB_TRANSFER_STALL, "LIBUSB_TRANSFER_STALL", nullptr},
    {LIBUSB_TRANSFER_NO_DEVICE, "LIBUSB_TRANSFER_NO_DEVICE", nullptr},
    {LIBUSB_TRANSFER_OVERFLOW, "LIBUSB_TRANSFER_OVERFLOW", nullptr},
};

const ErrorText* FindError(int code) {
    for (const ErrorText& e : kErrors) {
        if (e.code == code) {
            return &e;
        }
    }
    return nullptr;
}

} // namespace

extern "C" {

int LIBUSB_CALL libusb_init(libusb_context** ctx) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    w.Record("libusb_init()");
    int error = 0;
    if (w.Inject(Function::Init, &error)) {
        return error;
    }
    if (ctx == nullptr) {
        w.Misuse("libusb_init: the default (null) context is not supported by the double");
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    int fds[2];
    if (pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0) {
        return LIBUSB_ERROR_OTHER;
    }
    auto context = std::make_unique<libusb_context>();
    context->readFd = fds[0];
    context->writeFd = fds[1];
    *ctx = context.get();
    w.contexts.push_back(std::move(context));
    return 0;
}

void LIBUSB_CALL libusb_exit(libusb_context* ctx) {
    World& w = TheWorld();
    std::unique_lock<std::mutex> lock(w.mutex);
    w.Record("libusb_exit()");
    if (!w.LiveContext(ctx, "libusb_exit")) {
        return;
    }
    ReportLeftovers(w, ctx);
    ctx->live = false;
    ctx->completions.clear();
    std::vector<int> fds{ctx->readFd};
    for (const libusb_pollfd& p : ctx->extraFds) {
        fds.push_back(p.fd);
    }
    libusb_pollfd_removed_cb removed = ctx->removed;
    void* data = ctx->notifierData;
    const int readFd = ctx->readFd;
    const int writeFd = ctx->writeFd;
    lock.unlock();
    // libusb announces the removal of its descriptors before closing them.
    for (int fd : fds) {
        if (removed != nullptr) {
            removed(fd, data);
        }
    }
    close(readFd);
    close(writeFd);
}

void LIBUSB_CALL libusb_set_debug(libusb_context* ctx, int level) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    w.Record(Format("libusb_set_debug(%d)", level));
    w.LiveContext(ctx, "libusb_set_debug");
}

void LIBUSB_CALL libusb_set_pollfd_notifiers(libusb_context* ctx, libusb_pollfd_added_cb added_cb,
                                             libusb_pollfd_removed_cb removed_cb, void* user_data) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    if (w.LiveContext(ctx, "libusb_set_pollfd_notifiers")) {
        ctx->added = added_cb;
        ctx->removed = removed_cb;
        ctx->notifierData = user_data;
    }
}

const libusb_pollfd** LIBUSB_CALL libusb_get_pollfds(libusb_context* ctx) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    int error = 0;
    if (!w.LiveContext(ctx, "libusb_get_pollfds") || w.Inject(Function::GetPollfds, &error)) {
        return nullptr;
    }
    std::vector<libusb_pollfd> fds{{ctx->readFd, POLLIN}};
    fds.insert(fds.end(), ctx->extraFds.begin(), ctx->extraFds.end());
    // One block holding the null-terminated pointer array and the entries,
    // so that the caller's free() of the list releases all of it.
    const size_t pointers = (fds.size() + 1) * sizeof(libusb_pollfd*);
    auto* block = static_cast<unsigned char*>(malloc(pointers + fds.size() * sizeof(libusb_pollfd)));
    if (block == nullptr) {
        return nullptr;
    }
    auto** list = reinterpret_cast<const libusb_pollfd**>(block);
    auto* entries = reinterpret_cast<libusb_pollfd*>(block + pointers);
    for (size_t i = 0; i < fds.size(); i++) {
        entries[i] = fds[i];
        list[i] = &entries[i];
    }
    list[fds.size()] = nullptr;
    w.pollfdListsHandedOut++;
    return list;
}

void LIBUSB_CALL libusb_free_pollfds(const libusb_pollfd** pollfds) {
    free(static_cast<void*>(pollfds));
}

int LIBUSB_CALL libusb_get_next_timeout(libusb_context* ctx, timeval* tv) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    int error = 0;
    if (!w.LiveContext(ctx, "libusb_get_next_timeout")) {
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    if (w.Inject(Function::GetNextTimeout, &error)) {
        return error;
    }
    if (!w.nextTimeout) {
        return 0;
    }
    *tv = *w.nextTimeout;
    return 1;
}

int LIBUSB_CALL libusb_handle_events_timeout_completed(libusb_context* ctx, timeval* tv, int* completed) {
    World& w = TheWorld();
    std::function<void()> hook;
    {
        Lock lock(w.mutex);
        if (!w.LiveContext(ctx, "libusb_handle_events_timeout")) {
            return LIBUSB_ERROR_INVALID_PARAM;
        }
        if (tv == nullptr) {
            w.Misuse("libusb_handle_events_timeout: null time value");
            return LIBUSB_ERROR_INVALID_PARAM;
        }
        w.handleEventsCalls++;
        int error = 0;
        if (w.Inject(Function::HandleEvents, &error)) {
            return error;
        }
        if (completed != nullptr && *completed) {
            return 0;
        }
        hook = w.handleEventsHook;
    }
    if (hook) {
        hook();
    }
    for (size_t due = CompletionsDue(ctx, *tv); due > 0; due--) {
        libusb_transfer* t = TakeCompletion(ctx);
        if (t == nullptr) {
            break;
        }
        if (t->callback != nullptr) {
            t->callback(t);
        }
    }
    Lock lock(w.mutex);
    if (ctx->live && ctx->completions.empty()) {
        World::DrainPipe(ctx);
    }
    return 0;
}

int LIBUSB_CALL libusb_handle_events_timeout(libusb_context* ctx, timeval* tv) {
    return libusb_handle_events_timeout_completed(ctx, tv, nullptr);
}

const char* LIBUSB_CALL libusb_error_name(int errcode) {
    const ErrorText* e = FindError(errcode);
    return e != nullptr ? e->name : "**UNKNOWN**";
}

const char* LIBUSB_CALL libusb_strerror(int errcode) {
    const ErrorText* e = FindError(errcode);
    return e != nullptr && e->text != nullptr ? e->text : "Unknown error";
}

} // extern "C"
