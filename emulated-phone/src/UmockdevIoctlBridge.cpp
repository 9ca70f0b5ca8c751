#include "UmockdevIoctlBridge.h"

#include "SocketMemory.h"

#include <umockdev.h>

#include <stdexcept>

namespace emuphone {

UmockdevIoctlBridge::UmockdevIoctlBridge(UMockdevTestbed* testbed, const std::string& node,
                                         std::shared_ptr<UsbfsDevice> device)
    : handler_(umockdev_ioctl_base_new()), device_(std::move(device))
{
    g_signal_connect(handler_, "handle-ioctl", G_CALLBACK(&UmockdevIoctlBridge::OnIoctl), this);
    GError* error = nullptr;
    if (!umockdev_testbed_attach_ioctl(testbed, node.c_str(), handler_, &error)) {
        std::string message = error ? error->message : "unknown error";
        g_clear_error(&error);
        g_object_unref(handler_);
        throw std::runtime_error("emulated phone: cannot attach to " + node + ": " + message);
    }
}

// Clients still connected keep the handler object alive but no longer reach us.
UmockdevIoctlBridge::~UmockdevIoctlBridge()
{
    g_signal_handlers_disconnect_by_data(handler_, this);
    std::lock_guard<std::mutex> hold(lock_);
    for (UMockdevIoctlClient* client : clients_) {
        g_signal_handlers_disconnect_by_data(client, this);
        g_object_unref(client);
    }
    g_object_unref(handler_);
}

int UmockdevIoctlBridge::OnIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, void* self)
{
    auto* bridge = static_cast<UmockdevIoctlBridge*>(self);
    bridge->Watch(client);
    IoctlResult answer;
    {
        SocketMemory memory(client);
        answer = bridge->device_->Ioctl(reinterpret_cast<uintptr_t>(client),
                                        umockdev_ioctl_client_get_request(client), memory);
    }
    umockdev_ioctl_client_complete(client, answer.value, answer.value < 0 ? answer.error : 0);
    return TRUE;
}

// umockdev 0.17 does not emit "client-vanished"; a client whose stream closed
// reports itself disconnected instead.
void UmockdevIoctlBridge::Watch(UMockdevIoctlClient* client)
{
    std::lock_guard<std::mutex> hold(lock_);
    if (!clients_.insert(client).second)
        return;
    g_object_ref(client);
    g_signal_connect(client, "notify::connected", G_CALLBACK(&UmockdevIoctlBridge::OnConnectedChanged), this);
}

void UmockdevIoctlBridge::OnConnectedChanged(GObject* object, GParamSpec*, void* self)
{
    auto* bridge = static_cast<UmockdevIoctlBridge*>(self);
    auto* client = reinterpret_cast<UMockdevIoctlClient*>(object);
    if (umockdev_ioctl_client_get_connected(client))
        return;
    {
        std::lock_guard<std::mutex> hold(bridge->lock_);
        if (!bridge->clients_.erase(client))
            return;
    }
    bridge->device_->CloseFile(reinterpret_cast<uintptr_t>(client));
    g_signal_handlers_disconnect_by_data(client, bridge);
    g_object_unref(client);
}

} // namespace emuphone
