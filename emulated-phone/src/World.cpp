#include "World.h"

#include "InterposedTransport.h"
#include "Phone.h"
#include "SocketTransport.h"

#include <atomic>
#include <stdexcept>

namespace emuphone {
namespace {

// The root hub has address 1; the kernel gives devices the addresses after it.
constexpr int kFirstDeviceAddress = 2;
// Addresses are 7 bits; the kernel wraps round to the first free one.
constexpr int kLastAddress = 127;

std::atomic<bool> worldExists{false};

std::unique_ptr<DeviceTransport> MakeTransport(PhoneWorld::IoctlPath path, Testbed& testbed)
{
    if (path == PhoneWorld::IoctlPath::Interposed)
        return std::make_unique<InterposedTransport>();
    return std::make_unique<SocketTransport>(testbed);
}

} // namespace

World::Slot::Slot()
{
    if (worldExists.exchange(true))
        throw std::logic_error("emulated phone: one PhoneWorld per process (umockdev keeps its root in the environment)");
}

World::Slot::~Slot() { worldExists = false; }

World::World(PhoneWorld::IoctlPath path)
    : path_(path),
      transport_(MakeTransport(path, testbed_)),
      nextAddress_(kFirstDeviceAddress)
{
}

// Timers stop first: they call into phones. Phones then let go of their
// devices while the transport that routes to them still exists.
World::~World()
{
    scheduler_.Stop();
    for (const auto& phone : phones_)
        phone->Shutdown();
    phones_.clear();
    transport_.reset();
}

std::shared_ptr<Phone> World::AddPhone(const PhoneOptions& options)
{
    int port;
    {
        std::lock_guard<std::mutex> hold(busLock_);
        port = TakePort(options.port);
    }
    auto phone = std::make_shared<Phone>(*this, options, port);
    phone->PlugIn();
    std::lock_guard<std::mutex> hold(busLock_);
    phones_.push_back(phone);
    return phone;
}

int World::TakePort(int wanted)
{
    int port = wanted;
    if (port <= 0)
        for (port = 1; ports_.count(port); ++port) {
        }
    if (!ports_.insert(port).second)
        throw std::invalid_argument("emulated phone: port " + std::to_string(port) + " is taken");
    return port;
}

int World::NextAddress()
{
    int address = nextAddress_;
    nextAddress_ = nextAddress_ == kLastAddress ? kFirstDeviceAddress : nextAddress_ + 1;
    return address;
}

} // namespace emuphone
