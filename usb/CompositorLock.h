#pragma once

class FDCompositor;

// Scoped Lock()/Unlock() on a compositor that remembers whether it holds the
// lock, so the transfer engine can drop it around submissions and observer
// calls and still unlock exactly once on every exit path. No compositor here
// locks anything (see FDCompositor); the scopes mark where one that ran
// libusb's events on its own thread would need the transfer state guarded.
// A null compositor (a failed start-up) is allowed.
class CompositorLock {
public:
    explicit CompositorLock(FDCompositor* compositor);
    ~CompositorLock();

    CompositorLock(const CompositorLock&) = delete;
    CompositorLock& operator=(const CompositorLock&) = delete;

    void Acquire();
    void Release();

private:
    FDCompositor* compositor;
    bool held;
};
