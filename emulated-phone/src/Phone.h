#pragma once

#include "AccessorySession.h"
#include "DeviceFunction.h"
#include "PhoneAppObserver.h"
#include "PhoneControl.h"
#include "UsbDeviceEntry.h"
#include "UsbfsDevice.h"

#include "emulated-phone/PhoneOptions.h"
#include "emulated-phone/PhoneReport.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>

namespace emuphone {

class World;

// One phone through its life: enumerated in normal mode, switched by the
// accessory requests, off the bus, back in accessory mode with its application
// running, and perhaps unplugged. It is the DeviceFunction of each of its
// enumerations and keeps the report a test reads.
class Phone final : public DeviceFunction, public PhoneAppObserver {
public:
    Phone(World& world, const PhoneOptions& options, int port);

    // First enumeration, in the mode the options ask for. No lock held.
    void PlugIn();
    // Off the bus for good. No lock held; safe from any thread, and repeatable.
    void Unplug();
    // The world is going away: drop the device without touching the testbed.
    void Shutdown();

    PhoneReport Report() const;
    bool WaitUntil(const std::function<bool(const PhoneReport&)>& done, std::chrono::milliseconds timeout) const;
    int BusNumber() const;
    int Address() const;
    void WriteToHost(std::vector<uint8_t> bytes);

    void OnControl(UsbfsDevice& device, const std::shared_ptr<Urb>& urb) override;
    void OnData(UsbfsDevice& device, const std::shared_ptr<Urb>& urb) override;
    void OnClaim(UsbfsDevice& device, int interface, bool claimed) override;
    void OnConfiguration(UsbfsDevice& device, int value) override;
    void OnHaltCleared(UsbfsDevice& device, uint8_t endpoint) override;
    void OnUnclaimedUse(UsbfsDevice& device, int interface) override;
    void OnCompleted(UsbfsDevice& device, const Urb& urb) override;

    void OnHandshakeTaken() override;
    void OnHostHandshake(const std::vector<uint8_t>& bytes, bool matched) override;
    void OnBytesFromHost(const uint8_t* data, size_t length) override;
    void OnBytesToHost(size_t length) override;

private:
    enum class Mode { Normal, Accessory };

    void Enumerate(Mode mode);
    bool Adopt(const std::shared_ptr<UsbfsDevice>& device, const UsbDeviceEntry& entry, bool accessory);
    void Drop(int urbStatus, PhoneStage stage);
    void SwitchToAccessory(uint64_t generation);
    void OnControlEvent(PhoneControl::Event event, const UsbfsDevice& device);
    void StartApplication();
    void Reach(PhoneStage stage);
    void Changed();
    void CheckTriggers();
    void StallAccessoryEndpoint(uint64_t generation);
    bool Current(const UsbfsDevice& device) const { return device_.get() == &device; }
    PhoneReport Snapshot() const;
    UsbDeviceEntry Entry(const UsbfsDevice& device, int address) const;

    World& world_;
    // Held while the phone enters or leaves the bus, so that an unplug waits
    // for a return in progress to finish and then undoes it. Taken before the bus lock.
    std::mutex cable_;
    const PhoneOptions options_;
    const int port_;
    PhoneControl control_;
    std::shared_ptr<UsbfsDevice> device_;
    UsbDeviceEntry entry_;
    std::unique_ptr<AccessorySession> session_;
    PhoneReport report_;
    mutable std::condition_variable changed_;
    uint64_t generation_ = 0; // one per enumeration; stale timers compare it
    bool switching_ = false;
    bool unplugged_ = false;
    bool unplugTriggered_ = false;
    bool stallTriggered_ = false;
};

} // namespace emuphone
