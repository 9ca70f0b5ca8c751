#pragma once

class LibUSBBearerConnection;

// Merges libusb's changing set of poll descriptors into the one event handle
// that the toolkit waits on. Implementations only watch descriptors: libusb's
// event handling and every transfer's state stay on the toolkit's thread,
// inside ProcessEvents. Unless said otherwise, an operation is called on the
// toolkit's thread by the owning transport.
//
// Seams kept for a compositor that would handle libusb's events on a thread
// of its own, which none does: there the transport's transfer state would
// need Lock/Unlock, the hooks would wake that thread, and ManagesTimeouts
// would take the toolkit's timer away. Here Lock/Unlock do nothing (the thread
// compositor guards its own lists with a mutex of its own), ShutdownHook does
// nothing, ManagesTimeouts is false, and ActivityHook (called at the start of
// every transfer completion) only lets the epoll compositor know that a pass
// did work.
class FDCompositor {
public:
    explicit FDCompositor(LibUSBBearerConnection* owner);
    virtual ~FDCompositor();

    FDCompositor(const FDCompositor&) = delete;
    FDCompositor& operator=(const FDCompositor&) = delete;

    // Creates what the compositor needs (descriptors, thread). Returns 0, or 1
    // (errno set) after which only destruction is allowed. Called once.
    virtual int Start() = 0;
    // The descriptor that is readable while libusb work is waiting; valid from
    // Start until destruction, the same every time.
    virtual int GetEventHandle() = 0;
    // Handles what libusb has pending without blocking: the owner's
    // WaitForEvents(0), with its rules for signals and failures. Completions
    // reach the transport's callbacks inside. The caller then calls Rearm.
    virtual void ProcessEvents();
    // After ProcessEvents: lets the event handle become readable again only
    // for work that is still waiting, so a toolkit never spins on it. The
    // thread compositor reports here, once, that its thread has stopped.
    virtual void Rearm() = 0;
    // Makes the event handle readable until the next Rearm, as waiting libusb
    // work would: for completions the owner took in during a pass the toolkit
    // did not make to collect them (its timer's), which it learns of only
    // from the handle.
    virtual void Notify() = 0;
    // Watches fd for the given directions. Returns 0; 2 when out of memory;
    // 3 (errno set) when fd cannot be watched. Called from libusb's added
    // notifier, on whichever thread made libusb open the descriptor.
    virtual int AddFd(int fd, bool wantRead, bool wantWrite) = 0;
    // Stops watching fd, every entry of it; an unknown fd is not an error.
    // Returns 0. Called from libusb's removed notifier, as AddFd is.
    virtual int RemoveFd(int fd) = 0;
    // The seams (see above).
    virtual void Lock() = 0;
    virtual void Unlock() = 0;
    virtual void ActivityHook();
    virtual void ShutdownHook();
    virtual bool ManagesTimeouts();

    // Installs libusb's pollfd notifiers on the owner's context and adds the
    // descriptors libusb already has. Called once, after the context exists.
    // Returns 0, or LIBUSB_ERROR_NO_MEM when libusb cannot list them.
    int AttachToContext();

protected:
    LibUSBBearerConnection* owner;

private:
    static void Added(int fd, short events, void* userData);
    static void Removed(int fd, void* userData);
};

// Allocates and starts the compositor the build chose (KESTO_COMPOSITOR) for
// owner. Returns null (with *error non-zero) when it cannot be allocated or
// started.
FDCompositor* CreateFDCompositor(LibUSBBearerConnection* owner, int* error);
