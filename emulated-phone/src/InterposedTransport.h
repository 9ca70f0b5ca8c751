#pragma once

#include "DeviceTransport.h"

#include <mutex>
#include <set>
#include <sys/types.h>

namespace emuphone {

// Requests from this process reach the device inline through the interposed ioctl().
class InterposedTransport final : public DeviceTransport {
public:
    ~InterposedTransport() override;

    void Attach(const std::string& node, const std::shared_ptr<UsbfsDevice>& device) override;
    void Detach(const std::shared_ptr<UsbfsDevice>& device) override;

private:
    std::mutex lock_;
    std::set<dev_t> registered_;
};

} // namespace emuphone
