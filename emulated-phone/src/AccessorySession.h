#pragma once

#include "BulkInPipe.h"
#include "BulkOutPipe.h"
#include "PhoneApp.h"
#include "PhoneAppObserver.h"

#include "emulated-phone/PhoneOptions.h"

namespace emuphone {

class UsbfsDevice;

// The accessory side of one accessory-mode enumeration: both directions of the
// bulk pipe and the application that uses them. Gone with the enumeration.
class AccessorySession {
public:
    AccessorySession(UsbfsDevice& device, const PhoneOptions& options, PhoneAppObserver& observer);

    BulkInPipe& In() { return in_; }
    BulkOutPipe& Out() { return out_; }
    PhoneApp& App() { return app_; }

private:
    BulkInPipe in_;
    BulkOutPipe out_;
    PhoneApp app_;
};

} // namespace emuphone
