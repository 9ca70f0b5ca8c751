#include "InterposedTransport.h"

#include "IoctlInterposer.h"

namespace emuphone {

InterposedTransport::~InterposedTransport()
{
    for (dev_t rdev : registered_)
        IoctlInterposer::Instance().Unregister(rdev);
}

void InterposedTransport::Attach(const std::string&, const std::shared_ptr<UsbfsDevice>& device)
{
    dev_t rdev = device->Readiness().Rdev();
    IoctlInterposer::Instance().Register(rdev, device);
    std::lock_guard<std::mutex> hold(lock_);
    registered_.insert(rdev);
}

void InterposedTransport::Detach(const std::shared_ptr<UsbfsDevice>& device)
{
    dev_t rdev = device->Readiness().Rdev();
    IoctlInterposer::Instance().Unregister(rdev);
    std::lock_guard<std::mutex> hold(lock_);
    registered_.erase(rdev);
}

} // namespace emuphone
