#pragma once

#include "Urb.h"

#include <cstdint>
#include <memory>

namespace emuphone {

class UsbfsDevice;

// What a device does with the traffic usbfs hands it: the phone behind the
// usbfs personality. Every call comes with the bus lock held, from whichever
// thread made the request (the client's with interposition, umockdev's with
// the socket); an implementation answers URBs through UsbfsDevice::Finish,
// now or later, and must not take the bus lock itself.
class DeviceFunction {
public:
    // A control URB arrived on ep0; its buffer starts with the setup packet.
    virtual void OnControl(UsbfsDevice& device, const std::shared_ptr<Urb>& urb) = 0;
    // A bulk or interrupt URB arrived on an endpoint of the active configuration
    // that is not halted.
    virtual void OnData(UsbfsDevice& device, const std::shared_ptr<Urb>& urb) = 0;
    // An interface was claimed (true) or released (false) by an open file.
    virtual void OnClaim(UsbfsDevice& device, int interface, bool claimed) = 0;
    // The active configuration became `value` (0: unconfigured).
    virtual void OnConfiguration(UsbfsDevice& device, int value) = 0;
    // CLEAR_HALT lifted an endpoint's halt; queued traffic may move again.
    virtual void OnHaltCleared(UsbfsDevice& device, uint8_t endpoint) = 0;
    // A file used an interface without claiming it; usbfs claimed it on the
    // file's behalf and logged "did not claim interface before use".
    virtual void OnUnclaimedUse(UsbfsDevice& device, int interface) = 0;
    // A URB ended on the host's side: `status` and `actual` as the host reaps them.
    virtual void OnCompleted(UsbfsDevice& device, const Urb& urb) = 0;

protected:
    ~DeviceFunction() = default;
};

} // namespace emuphone
