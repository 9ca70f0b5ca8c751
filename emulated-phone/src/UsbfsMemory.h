#pragma once

#include "Urb.h"

#include <cstddef>
#include <cstdint>

namespace emuphone {

// How a usbfs request reaches the caller's memory: in place when libusb shares
// our process, through umockdev's socket copies when it does not. One object
// serves one request.
class UsbfsMemory {
public:
    // The request's argument struct, `size` bytes, readable and writable; null
    // when it cannot be reached. Changes reach the caller when the request ends.
    virtual void* Argument(size_t size) = 0;
    // The argument word itself (DISCARDURB passes the URB's address as it is).
    virtual uintptr_t ArgumentValue() = 0;
    // SUBMITURB: fills the URB's view, buffer, client address and token; false
    // when the caller's URB or buffer cannot be reached.
    virtual bool TakeUrb(Urb& urb) = 0;
    // REAPURBNDELAY: hands a reapable URB back through the argument. Its status
    // and length are already in its view.
    virtual bool ReturnUrb(const Urb& urb) = 0;

protected:
    ~UsbfsMemory() = default;
};

} // namespace emuphone
