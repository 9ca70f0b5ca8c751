#pragma once

#include "UsbfsMemory.h"

namespace emuphone {

// The caller's memory as it is: libusb runs in this process and the request's
// argument pointer can be used directly, as the kernel's copy_from_user would.
class InPlaceMemory final : public UsbfsMemory {
public:
    explicit InPlaceMemory(void* argument) : argument_(argument) {}

    void* Argument(size_t size) override;
    uintptr_t ArgumentValue() override;
    bool TakeUrb(Urb& urb) override;
    bool ReturnUrb(const Urb& urb) override;

private:
    void* argument_;
};

} // namespace emuphone
