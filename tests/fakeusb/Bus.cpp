#include "fakeusb/Bus.h"

#include <algorithm>

#include "fakeusb/World.h"

namespace fakeusb {

using namespace detail;

namespace {
using Lock = std::lock_guard<std::mutex>;
} // namespace

int Bus::Add(const DeviceSpec& device, int position) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    const int id = static_cast<int>(w.physical.size()) + 1;
    w.physical.push_back(std::make_unique<PhysicalDevice>(
        PhysicalDevice{id, device, true, device.configuration, device.kernelDriverActive}));
    const int size = static_cast<int>(w.bus.size());
    const int at = position < 0 || position > size ? size : position;
    w.bus.insert(w.bus.begin() + at, w.physical.back().get());
    return id;
}

void Bus::Unplug(int id, int transferStatus) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    PhysicalDevice* device = w.Physical(id);
    if (device == nullptr || !device->present) {
        return;
    }
    device->present = false;
    w.bus.erase(std::find(w.bus.begin(), w.bus.end(), device));
    for (auto& entry : w.transfers) {
        TransferState& state = entry.second;
        if (state.phase == TransferState::Phase::InFlight && state.handle->device->physical == device) {
            w.Queue(entry.first, state, Outcome{transferStatus, 0, {}, 0});
        }
    }
}

int Bus::IdOf(const libusb_device* device) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    for (auto& d : w.devices) {
        if (d.get() == device) {
            return d->physical->id;
        }
    }
    return -1;
}

int Bus::IdOf(const libusb_device_handle* handle) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    for (auto& h : w.handles) {
        if (h.get() == handle) {
            return h->device->physical->id;
        }
    }
    return -1;
}

bool Bus::Present(int id) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    PhysicalDevice* device = w.Physical(id);
    return device != nullptr && device->present;
}

int Bus::Configuration(int id) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    PhysicalDevice* device = w.Physical(id);
    return device != nullptr ? device->configuration : -1;
}

int Bus::KernelDriverActive(int id) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    PhysicalDevice* device = w.Physical(id);
    return device != nullptr ? device->kernelDriverActive : -1;
}

std::vector<int> Bus::ClaimedInterfaces(int id) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    std::vector<int> claimed;
    for (auto& h : w.handles) {
        if (h->open && h->device->physical->id == id) {
            claimed.insert(claimed.end(), h->claimed.begin(), h->claimed.end());
        }
    }
    return claimed;
}

} // namespace fakeusb
