#include "usb/FDCompositor.h"

#include <libusb.h>
#include <poll.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "usb/FDCompositorThread.h"
#if KESTO_COMPOSITOR_EPOLL
#include "usb/FDCompositorEpoll.h"
#endif
#include "usb/LibUSBBearerConnection.h"

FDCompositor::FDCompositor(LibUSBBearerConnection* owner) : owner(owner) {}

FDCompositor::~FDCompositor() = default;

void FDCompositor::ProcessEvents() { owner->WaitForEvents(0); }

void FDCompositor::ActivityHook() {}

void FDCompositor::ShutdownHook() {}

bool FDCompositor::ManagesTimeouts() { return false; }

int FDCompositor::AttachToContext() {
    libusb_context* context = owner->GetContext();
    libusb_set_pollfd_notifiers(context, Added, Removed, this);
    const libusb_pollfd** fds = libusb_get_pollfds(context);
    if (fds == nullptr) {
        // Out of memory: libusb's descriptors would never be watched, and the
        // toolkit never woken.
        return LIBUSB_ERROR_NO_MEM;
    }
    for (const libusb_pollfd** entry = fds; *entry != nullptr; ++entry) {
        Added((*entry)->fd, (*entry)->events, this);
    }
    // Released with free(): libusb_free_pollfds is missing from older libusb builds.
    std::free(fds);
    return 0;
}

void FDCompositor::Added(int fd, short events, void* userData) {
    FDCompositor* self = static_cast<FDCompositor*>(userData);
    bool wantRead = (events & POLLIN) == POLLIN;
    bool wantWrite = (events & POLLOUT) != 0;
    int result = self->AddFd(fd, wantRead, wantWrite);
    if (result != 0) {
        self->owner->Log("FD Compositor (ADD): %d %s", result, std::strerror(errno));
        self->owner->ReportError(11);
    }
}

void FDCompositor::Removed(int fd, void* userData) {
    FDCompositor* self = static_cast<FDCompositor*>(userData);
    int result = self->RemoveFd(fd);
    if (result != 0) {
        self->owner->Log("FD Compositor (DEL): %d %s", result, std::strerror(errno));
        self->owner->ReportError(11);
    }
}

FDCompositor* CreateFDCompositor(LibUSBBearerConnection* owner, int* error) {
#if KESTO_COMPOSITOR_EPOLL
    FDCompositor* compositor = new (std::nothrow) FDCompositorEpoll(owner);
#else
    FDCompositor* compositor = new (std::nothrow) FDCompositorThread(owner);
#endif
    if (compositor == nullptr) {
        *error = 1;
        return nullptr;
    }
    *error = compositor->Start();
    if (*error != 0) {
        delete compositor;
        return nullptr;
    }
    return compositor;
}
