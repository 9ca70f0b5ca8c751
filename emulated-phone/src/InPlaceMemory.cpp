#include "InPlaceMemory.h"

namespace emuphone {

void* InPlaceMemory::Argument(size_t) { return argument_; }

uintptr_t InPlaceMemory::ArgumentValue() { return reinterpret_cast<uintptr_t>(argument_); }

bool InPlaceMemory::TakeUrb(Urb& urb)
{
    auto* view = static_cast<usbdevfs_urb*>(argument_);
    if (!view)
        return false;
    urb.view = view;
    urb.buffer = static_cast<uint8_t*>(view->buffer);
    urb.clientAddress = reinterpret_cast<uintptr_t>(view);
    urb.endpoint = view->endpoint;
    urb.type = view->type;
    urb.flags = view->flags;
    urb.length = view->buffer_length;
    return urb.buffer || urb.length == 0;
}

bool InPlaceMemory::ReturnUrb(const Urb& urb)
{
    if (!argument_)
        return false;
    *static_cast<void**>(argument_) = reinterpret_cast<void*>(urb.clientAddress);
    return true;
}

} // namespace emuphone
