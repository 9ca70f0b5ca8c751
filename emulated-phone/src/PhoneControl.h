#pragma once

#include "DeviceLayout.h"

#include "emulated-phone/PhoneOptions.h"
#include "emulated-phone/PhoneReport.h"

#include <array>
#include <cstdint>
#include <linux/usb/ch9.h>
#include <optional>
#include <string>
#include <vector>

namespace emuphone {

// The phone's ep0: the standard requests a host makes while it enumerates and
// opens the device, and the accessory protocol's vendor requests.
class PhoneControl {
public:
    enum class Event { None, VersionQueried, IdentityComplete, StartRequested };
    struct Answer {
        int status = 0;             // URB status: 0, or -EPIPE for a stall
        std::vector<uint8_t> reply; // data stage of a device-to-host request
        bool hold = false;          // leave the URB unanswered
        Event event = Event::None;
    };

    explicit PhoneControl(const PhoneOptions& options);

    // `data` is the host-to-device data stage (wLength bytes).
    Answer Handle(const usb_ctrlrequest& setup, const uint8_t* data, const DeviceLayout& layout, int configuration);

    int VersionQueries() const { return versionQueries_; }
    int IdentityRequests() const { return identityRequests_; }
    int StartRequests() const { return startRequests_; }
    const std::array<std::optional<std::string>, PhoneReport::kIdentityStrings>& Identity() const
    {
        return identity_;
    }

private:
    Answer Standard(const usb_ctrlrequest& setup, const DeviceLayout& layout, int configuration);
    Answer GetDescriptor(const usb_ctrlrequest& setup, const DeviceLayout& layout);
    Answer Vendor(const usb_ctrlrequest& setup, const uint8_t* data);
    Answer VersionQuery(uint16_t wLength);
    Answer IdentityString(const usb_ctrlrequest& setup, const uint8_t* data);
    bool Faulted(uint8_t request, Answer& answer);

    const PhoneOptions& options_;
    std::vector<PhoneOptions::ControlFault> faults_;
    int versionQueries_ = 0;
    int identityRequests_ = 0;
    int startRequests_ = 0;
    std::array<std::optional<std::string>, PhoneReport::kIdentityStrings> identity_;
};

} // namespace emuphone
