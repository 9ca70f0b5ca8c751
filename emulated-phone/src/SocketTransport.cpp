#include "SocketTransport.h"

namespace emuphone {

void SocketTransport::Attach(const std::string& node, const std::shared_ptr<UsbfsDevice>& device)
{
    std::lock_guard<std::mutex> hold(testbed_.Lock());
    bridges_.push_back(std::make_unique<UmockdevIoctlBridge>(testbed_.Handle(), node, device));
}

} // namespace emuphone
