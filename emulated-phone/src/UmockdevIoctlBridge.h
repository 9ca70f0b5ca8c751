#pragma once

#include "UsbfsDevice.h"

#include <memory>
#include <mutex>
#include <set>
#include <string>

typedef struct _UMockdevIoctlBase UMockdevIoctlBase;
typedef struct _UMockdevIoctlClient UMockdevIoctlClient;
typedef struct _UMockdevTestbed UMockdevTestbed;
typedef struct _GObject GObject;
typedef struct _GParamSpec GParamSpec;

namespace emuphone {

// umockdev's ioctl socket for one device node, answered by a UsbfsDevice. The
// handler runs on umockdev's worker thread; each client is one open file, and
// a client that disconnects is a file closed.
class UmockdevIoctlBridge {
public:
    // Attach before the node appears, or opens fall back to umockdev's default handler.
    UmockdevIoctlBridge(UMockdevTestbed* testbed, const std::string& node, std::shared_ptr<UsbfsDevice> device);
    ~UmockdevIoctlBridge();
    UmockdevIoctlBridge(const UmockdevIoctlBridge&) = delete;
    UmockdevIoctlBridge& operator=(const UmockdevIoctlBridge&) = delete;

private:
    static int OnIoctl(UMockdevIoctlBase* handler, UMockdevIoctlClient* client, void* self);
    static void OnConnectedChanged(GObject* client, GParamSpec* property, void* self);
    void Watch(UMockdevIoctlClient* client);

    UMockdevIoctlBase* handler_;
    std::shared_ptr<UsbfsDevice> device_;
    std::mutex lock_;
    std::set<UMockdevIoctlClient*> clients_;
};

} // namespace emuphone
