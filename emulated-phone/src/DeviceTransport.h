#pragma once

#include "UsbfsDevice.h"

#include <memory>
#include <string>

namespace emuphone {

// How usbfs requests made on a device node reach the device's model.
class DeviceTransport {
public:
    virtual ~DeviceTransport() = default;
    // Requests on `node` reach `device` from now on. Called before the node
    // appears; may throw when the route cannot be made.
    virtual void Attach(const std::string& node, const std::shared_ptr<UsbfsDevice>& device) = 0;
    // The device left the bus. Files already open keep reaching it, as usbfs
    // files do after an unplug; new ones do not.
    virtual void Detach(const std::shared_ptr<UsbfsDevice>& device) = 0;
};

} // namespace emuphone
