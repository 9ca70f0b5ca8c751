// The libusb functions for contexts, poll descriptors, time-outs and event
// handling.

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
    for (auto& [physical, device] : context->devices) {
        refs += device->refs;
    }
    for (auto& [transfer, state] : w.transfers) {
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

// Takes the next queued completion and writes its outcome into the transfer;
// null when none is left. The pipe is drained with the queue's last entry, so
// it is readable exactly while completions are queued.
libusb_transfer* TakeCompletion(libusb_context* context) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    if (!context->live || context->completions.empty()) {
        return nullptr;
    }
    libusb_transfer* t = context->completions.front();
    context->completions.pop_front();
    if (context->completions.empty()) {
        char bytes[16];
        while (read(context->readFd, bytes, sizeof bytes) > 0) {
        }
    }
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

} // namespace

extern "C" {

int LIBUSB_CALL libusb_init(libusb_context** ctx) {
    return Locked([&](World& w) -> int {
        w.calls.push_back("libusb_init()");
        if (std::optional<int> error = w.Inject(Function::Init)) {
            return *error;
        }
        int fds[2];
        if (pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0) {
            return LIBUSB_ERROR_OTHER;
        }
        libusb_context* context = w.contexts.emplace_back(std::make_unique<libusb_context>()).get();
        context->readFd = fds[0];
        context->writeFd = fds[1];
        *ctx = context;
        return 0;
    });
}

void LIBUSB_CALL libusb_exit(libusb_context* ctx) {
    World& w = TheWorld();
    std::unique_lock<std::mutex> lock(w.mutex);
    if (!w.LiveContext(ctx, "libusb_exit")) {
        return;
    }
    ReportLeftovers(w, ctx);
    ctx->live = false;
    ctx->completions.clear();
    lock.unlock();
    // libusb announces the removal of its descriptor before closing it.
    if (ctx->removed != nullptr) {
        ctx->removed(ctx->readFd, ctx->notifierData);
    }
    close(ctx->readFd);
    close(ctx->writeFd);
}

void LIBUSB_CALL libusb_set_debug(libusb_context* ctx, int level) {
    Locked([&](World& w) {
        w.calls.push_back(Format("libusb_set_debug(%d)", level));
        w.LiveContext(ctx, "libusb_set_debug");
    });
}

// The context's one descriptor is there from the start, for libusb_get_pollfds
// to list; only the device descriptors of Events::AnnounceDeviceDescriptors
// come and go.
void LIBUSB_CALL libusb_set_pollfd_notifiers(libusb_context* ctx, libusb_pollfd_added_cb added_cb,
                                             libusb_pollfd_removed_cb removed_cb, void* user_data) {
    Locked([&](World& w) {
        if (w.LiveContext(ctx, "libusb_set_pollfd_notifiers")) {
            ctx->added = added_cb;
            ctx->removed = removed_cb;
            ctx->notifierData = user_data;
        }
    });
}

// One block holding the null-terminated pointer array and the entry, so that
// the caller's free() of the list releases all of it.
const libusb_pollfd** LIBUSB_CALL libusb_get_pollfds(libusb_context* ctx) {
    struct Block {
        const libusb_pollfd* list[2];
        libusb_pollfd entry;
    };
    if (!Locked([&](World& w) {
            return w.LiveContext(ctx, "libusb_get_pollfds") && !w.Inject(Function::GetPollfds);
        })) {
        return nullptr;
    }
    auto* block = static_cast<Block*>(malloc(sizeof(Block)));
    *block = Block{{&block->entry, nullptr}, {ctx->readFd, POLLIN}}; // the descriptor is fixed: no lock needed
    return block->list;
}

int LIBUSB_CALL libusb_get_next_timeout(libusb_context* ctx, timeval* tv) {
    return Locked([&](World& w) -> int {
        if (!w.LiveContext(ctx, "libusb_get_next_timeout")) {
            return LIBUSB_ERROR_INVALID_PARAM;
        }
        if (std::optional<int> error = w.Inject(Function::GetNextTimeout)) {
            return *error;
        }
        *tv = w.nextTimeout.value_or(*tv);
        return w.nextTimeout.has_value();
    });
}

// Delivers the completions queued once the hook has run; later ones wait for
// the next call, as with libusb, so a callback that resubmits cannot keep one
// call going for ever. Callers poll first: the time value is not waited on.
int LIBUSB_CALL libusb_handle_events_timeout(libusb_context* ctx, timeval*) {
    World& w = TheWorld();
    std::function<void()> hook;
    {
        Lock lock(w.mutex);
        if (!w.LiveContext(ctx, "libusb_handle_events_timeout")) {
            return LIBUSB_ERROR_INVALID_PARAM;
        }
        if (std::optional<int> error = w.Inject(Function::HandleEvents)) {
            return *error;
        }
        hook = w.handleEventsHook;
    }
    if (hook) {
        hook();
    }
    size_t due = Locked([&](World&) { return ctx->completions.size(); });
    for (libusb_transfer* t; due > 0 && (t = TakeCompletion(ctx)) != nullptr; due--) {
        if (t->callback != nullptr) {
            t->callback(t);
        }
    }
    return 0;
}

} // extern "C"
