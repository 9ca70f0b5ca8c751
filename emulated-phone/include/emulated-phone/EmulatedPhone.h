#pragma once

#include "emulated-phone/PhoneReport.h"
#include "emulated-phone/PhoneStage.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace emuphone {

class Phone;

// A test's handle on one phone of a PhoneWorld. Every call is thread-safe.
class EmulatedPhone {
public:
    explicit EmulatedPhone(std::shared_ptr<Phone> phone);

    PhoneReport Report() const;
    // Waits until the phone has been through `stage`; false on time-out.
    bool WaitFor(PhoneStage stage, std::chrono::milliseconds timeout) const;
    // Waits until `done` holds for a report; false on time-out.
    bool WaitUntil(const std::function<bool(const PhoneReport&)>& done,
                   std::chrono::milliseconds timeout) const;

    int BusNumber() const;
    // The phone's address on the bus now; 0 while it is off the bus.
    int Address() const;

    // Pulls the cable: transfers in flight end, the device node hangs up and
    // the device leaves sysfs. The phone does not come back.
    void Unplug();
    // The phone's application writes these bytes towards the host.
    void WriteToHost(std::vector<uint8_t> bytes);

private:
    std::shared_ptr<Phone> phone_;
};

} // namespace emuphone
