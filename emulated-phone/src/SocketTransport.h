#pragma once

#include "DeviceTransport.h"
#include "Testbed.h"
#include "UmockdevIoctlBridge.h"

#include <memory>
#include <vector>

namespace emuphone {

// Requests from any process under umockdev's preload reach the device through
// umockdev's ioctl socket.
class SocketTransport final : public DeviceTransport {
public:
    explicit SocketTransport(Testbed& testbed) : testbed_(testbed) {}

    void Attach(const std::string& node, const std::shared_ptr<UsbfsDevice>& device) override;
    // A bridge outlives its device's time on the bus: open files still use it.
    void Detach(const std::shared_ptr<UsbfsDevice>&) override {}

private:
    Testbed& testbed_;
    std::vector<std::unique_ptr<UmockdevIoctlBridge>> bridges_;
};

} // namespace emuphone
