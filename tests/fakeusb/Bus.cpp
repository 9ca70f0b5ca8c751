#include "fakeusb/Bus.h"

#include <unistd.h>

#include "fakeusb/World.h"

namespace fakeusb {

using namespace detail;

int Bus::Add(const DeviceSpec& device) {
    return Locked([&](World& w) {
        const int id = static_cast<int>(w.physical.size()) + 1;
        w.physical.push_back(std::make_unique<PhysicalDevice>(PhysicalDevice{id, device, true}));
        return id;
    });
}

void Bus::Unplug(int id) {
    Locked([&](World& w) {
        PhysicalDevice* device = w.physical.at(id - 1).get();
        device->present = false;
        for (auto& handle : w.handles) {
            if (handle->device->physical == device && handle->fds[1] != -1) {
                close(handle->fds[1]); // the device file hangs up
                handle->fds[1] = -1;
            }
        }
        for (auto& [transfer, state] : w.transfers) {
            if (state.phase == TransferState::Phase::InFlight && state.handle->device->physical == device) {
                w.Queue(transfer, state, Outcome{LIBUSB_TRANSFER_NO_DEVICE, 0, {}, 0});
            }
        }
    });
}

int Bus::IdOf(const libusb_device* device) {
    return device->physical->id; // fixed for the device's life: no lock needed
}

int Bus::IdOf(const libusb_device_handle* handle) {
    return IdOf(handle->device);
}

std::vector<int> Bus::ClaimedInterfaces(int id) {
    return Locked([&](World& w) {
        std::vector<int> claimed;
        for (auto& h : w.handles) {
            if (h->open && h->device->physical->id == id) {
                claimed.insert(claimed.end(), h->claimed.begin(), h->claimed.end());
            }
        }
        return claimed;
    });
}

} // namespace fakeusb
