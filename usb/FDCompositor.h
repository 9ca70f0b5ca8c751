#pragma once

class LibUSBBearerConnection;

// Merges libusb's changing set of poll descriptors into the one event handle
// that the toolkit waits on. Implementations only watch descriptors; libusb's
// event handling always runs on the caller of ProcessEvents.
class FDCompositor {
public:
    explicit FDCompositor(LibUSBBearerConnection* owner);
    virtual ~FDCompositor();

    FDCompositor(const FDCompositor&) = delete;
    FDCompositor& operator=(const FDCompositor&) = delete;

    // Handles what libusb has pending without blocking (zero time-out); a
    // failure is logged and reported to the owner as 11. Caller then Rearm()s.
    virtual void ProcessEvents();
    // Called at the start of transfer completions, under a CompositorLock.
    virtual void ActivityHook();
    // Called by the owner at the start of its teardown.
    virtual void ShutdownHook();
    // True when the compositor handles libusb time-outs itself; the owner then
    // calls ActivityHook instead of asking the toolkit for a timer.
    virtual bool ManagesTimeouts();
    // The descriptor that becomes readable when libusb work is waiting.
    virtual int GetEventHandle() = 0;
    // Clears the event handle and watches libusb's descriptors again.
    virtual void Rearm() = 0;
    virtual void Lock() = 0;
    virtual void Unlock() = 0;
    // Creates what the compositor needs to run: 0 on success, 1 on failure.
    virtual int Start() = 0;
    // Watches fd (0); returns 2 when out of memory, 3 (errno set) when fd
    // cannot be watched.
    virtual int AddFd(int fd, bool wantRead, bool wantWrite) = 0;
    // Stops watching every entry of fd; returns 0.
    virtual int RemoveFd(int fd) = 0;

    // Installs libusb's pollfd notifiers on the owner's context and adds the
    // descriptors libusb already has. Called once, after the context exists.
    void AttachToContext();

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
