#pragma once

#include "DeviceTransport.h"
#include "Scheduler.h"
#include "Testbed.h"

#include "emulated-phone/PhoneOptions.h"
#include "emulated-phone/PhoneWorld.h"

#include <memory>
#include <mutex>
#include <set>
#include <vector>

namespace emuphone {

class Phone;

// The inside of a PhoneWorld: the testbed, the bus lock that guards every
// device and phone, the timer thread, the transport and the phones.
class World {
public:
    explicit World(PhoneWorld::IoctlPath path);
    ~World();
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    std::shared_ptr<Phone> AddPhone(const PhoneOptions& options);

    std::mutex& BusLock() { return busLock_; }
    Scheduler& Timers() { return scheduler_; }
    Testbed& Bed() { return testbed_; }
    DeviceTransport& Transport() { return *transport_; }
    PhoneWorld::IoctlPath Path() const { return path_; }
    // The next device address on the bus, as the kernel hands them out. Bus lock held.
    int NextAddress();

private:
    // Holds the process's one world slot from first member to last.
    struct Slot {
        Slot();
        ~Slot();
    };

    int TakePort(int wanted);

    Slot slot_;
    PhoneWorld::IoctlPath path_;
    std::mutex busLock_;
    Testbed testbed_;
    std::unique_ptr<DeviceTransport> transport_;
    Scheduler scheduler_;
    std::vector<std::shared_ptr<Phone>> phones_;
    std::set<int> ports_;
    int nextAddress_;
};

} // namespace emuphone
