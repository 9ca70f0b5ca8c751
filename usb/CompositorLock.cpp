#include "usb/CompositorLock.h"

#include "usb/FDCompositor.h"

CompositorLock::CompositorLock(FDCompositor* compositor) : compositor(compositor), held(false) {
    Acquire();
}

CompositorLock::~CompositorLock() {
    if (held) {
        Release();
    }
}

// A transport whose start-up failed has no compositor; there is nothing to lock then.
void CompositorLock::Acquire() {
    if (compositor != nullptr) {
        compositor->Lock();
    }
    held = true;
}

void CompositorLock::Release() {
    if (compositor != nullptr) {
        compositor->Unlock();
    }
    held = false;
}
