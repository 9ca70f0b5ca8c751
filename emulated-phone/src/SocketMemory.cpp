#include "SocketMemory.h"

#include <umockdev.h>

#include <cstddef>

namespace emuphone {

SocketMemory::SocketMemory(UMockdevIoctlClient* client) : argument_(umockdev_ioctl_client_get_arg(client)) {}

// Resolved blocks are also held by the argument they hang from, until umockdev
// has written them back; only this request's own references go here.
SocketMemory::~SocketMemory()
{
    for (UMockdevIoctlData* data : held_)
        g_object_unref(data);
}

UMockdevIoctlData* SocketMemory::Resolve(UMockdevIoctlData* parent, size_t offset, size_t length)
{
    GError* error = nullptr;
    UMockdevIoctlData* data = umockdev_ioctl_data_resolve(parent, offset, length, &error);
    g_clear_error(&error);
    if (data)
        held_.push_back(data);
    return data;
}

void* SocketMemory::Argument(size_t size)
{
    UMockdevIoctlData* data = Resolve(argument_, 0, size);
    return data ? data->data : nullptr;
}

uintptr_t SocketMemory::ArgumentValue()
{
    return *reinterpret_cast<const uintptr_t*>(argument_->data);
}

bool SocketMemory::TakeUrb(Urb& urb)
{
    UMockdevIoctlData* urbData = Resolve(argument_, 0, sizeof(usbdevfs_urb));
    if (!urbData)
        return false;
    auto* view = reinterpret_cast<usbdevfs_urb*>(urbData->data);
    urb.view = view;
    urb.clientAddress = urbData->client_addr;
    urb.endpoint = view->endpoint;
    urb.type = view->type;
    urb.flags = view->flags;
    urb.length = view->buffer_length;
    if (view->buffer_length > 0) {
        UMockdevIoctlData* buffer =
            Resolve(urbData, offsetof(usbdevfs_urb, buffer), static_cast<size_t>(view->buffer_length));
        if (!buffer)
            return false;
        urb.buffer = buffer->data;
    }
    urb.token = std::shared_ptr<void>(g_object_ref(urbData), g_object_unref);
    return true;
}

bool SocketMemory::ReturnUrb(const Urb& urb)
{
    UMockdevIoctlData* pointer = Resolve(argument_, 0, sizeof(void*));
    if (!pointer || !urb.token)
        return false;
    return umockdev_ioctl_data_set_ptr(pointer, 0, static_cast<UMockdevIoctlData*>(urb.token.get()));
}

} // namespace emuphone
