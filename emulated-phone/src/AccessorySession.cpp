#include "AccessorySession.h"

#include "UsbfsDevice.h"

namespace emuphone {

AccessorySession::AccessorySession(UsbfsDevice& device, const PhoneOptions& options, PhoneAppObserver& observer)
    : in_(device, device.Layout().BulkPacketSize(), options.readRule),
      out_(device, device.Layout().BulkPacketSize(), options.readRule, options.outCompletionCap),
      app_(options, in_, out_, observer)
{
}

} // namespace emuphone
