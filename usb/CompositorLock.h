#pragma once

#include "usb/FDCompositor.h"

// Scoped Lock()/Unlock() on a compositor that remembers whether it holds the
// lock, so the transfer engine can drop it around submissions and observer
// calls and still unlock exactly once on every exit path. No compositor here
// locks anything (see FDCompositor); the scopes mark where one that ran
// libusb's events on its own thread would need the transfer state guarded.
// A null compositor (a failed start-up) is allowed.
class CompositorLock {
public:
    // Inline: a scope sits on every submission and completion.
    explicit CompositorLock(FDCompositor* compositor) : compositor(compositor), held(false) { Acquire(); }
    ~CompositorLock() {
        if (held) {
            Release();
        }
    }

    CompositorLock(const CompositorLock&) = delete;
    CompositorLock& operator=(const CompositorLock&) = delete;

    void Acquire() {
        if (compositor != nullptr) {
            compositor->Lock();
        }
        held = true;
    }
    void Release() {
        if (compositor != nullptr) {
            compositor->Unlock();
        }
        held = false;
    }

private:
    FDCompositor* compositor;
    bool held;
};
