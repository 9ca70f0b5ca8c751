// The libusb functions for enumeration, descriptors, device handles,
// configuration and interfaces, answered from the fake bus.

#include <fcntl.h>
#include <libusb.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "fakeusb/World.h"

using fakeusb::AltSetting;
using fakeusb::DeviceSpec;
using fakeusb::Endpoint;
using fakeusb::Function;
using namespace fakeusb::detail;

namespace {

// The layout, the class triples and the endpoints; no strings, no extra
// descriptors. The deques keep each array in place as more are added.
std::unique_ptr<ConfigStorage> BuildConfig(const DeviceSpec& device) {
    auto s = std::make_unique<ConfigStorage>();
    for (const fakeusb::Interface& alts : device.interfaces) {
        std::vector<libusb_interface_descriptor>& settings = s->altSettings.emplace_back();
        for (const AltSetting& alt : alts) {
            std::vector<libusb_endpoint_descriptor>& endpoints = s->endpoints.emplace_back();
            for (const Endpoint& e : alt.endpoints) {
                endpoints.push_back({LIBUSB_DT_ENDPOINT_SIZE, LIBUSB_DT_ENDPOINT, e.address, e.type,
                                     e.maxPacketSize, 0, 0, 0, nullptr, 0});
            }
            settings.push_back({LIBUSB_DT_INTERFACE_SIZE, LIBUSB_DT_INTERFACE, alt.interfaceNumber, alt.alternateSetting,
                                static_cast<uint8_t>(endpoints.size()), alt.interfaceClass, alt.interfaceSubClass,
                                alt.interfaceProtocol, 0, endpoints.empty() ? nullptr : endpoints.data(), nullptr, 0});
        }
        s->interfaces.push_back(libusb_interface{settings.data(), static_cast<int>(settings.size())});
    }
    s->config.bConfigurationValue = 1;
    s->config.bNumInterfaces = static_cast<uint8_t>(s->interfaces.size());
    s->config.interface = s->interfaces.data();
    return s;
}

void Unref(World& w, libusb_device* device, const char* function) {
    if (device->refs == 0) {
        w.Misuse(Format("%s: device %s released more often than referenced", function, World::NameOf(device).c_str()));
    } else {
        device->refs--;
    }
}

bool Claimed(const libusb_device_handle* handle, int interfaceNumber) {
    return std::count(handle->claimed.begin(), handle->claimed.end(), interfaceNumber) > 0;
}

DeviceSpec& DescriptionOf(libusb_device_handle* handle) {
    return handle->device->physical->description;
}

// A recorded call on a device or handle: `answer` runs under the lock unless
// World::Enter answers for the call first.
template <typename Target, typename Answer>
int Call(const char* name, Target* target, const std::string& args, std::optional<Function> failure, Answer answer) {
    return Locked([&](World& w) {
        std::optional<int> refused = w.Enter(name, target, args, failure);
        return refused ? *refused : answer(w);
    });
}

} // namespace

extern "C" {

ssize_t LIBUSB_CALL libusb_get_device_list(libusb_context* ctx, libusb_device*** list) {
    return Locked([&](World& w) -> ssize_t {
        if (!w.LiveContext(ctx, "libusb_get_device_list")) {
            return LIBUSB_ERROR_INVALID_PARAM;
        }
        if (std::optional<int> error = w.Inject(Function::GetDeviceList)) {
            return *error;
        }
        std::vector<libusb_device*> present;
        for (auto& physical : w.physical) {
            if (physical->present) {
                present.push_back(w.DeviceFor(ctx, physical.get()));
                present.back()->refs++;
            }
        }
        present.push_back(nullptr);
        *list = static_cast<libusb_device**>(malloc(present.size() * sizeof(libusb_device*)));
        std::copy(present.begin(), present.end(), *list);
        w.deviceLists.insert(*list);
        return static_cast<ssize_t>(present.size() - 1);
    });
}

void LIBUSB_CALL libusb_free_device_list(libusb_device** list, int unref_devices) {
    Locked([&](World& w) {
        if (list != nullptr && w.deviceLists.erase(list) == 0) {
            w.Misuse("libusb_free_device_list: list freed twice or not from libusb_get_device_list");
            return;
        }
        for (libusb_device** d = list; list != nullptr && unref_devices && *d != nullptr; d++) {
            Unref(w, *d, "libusb_free_device_list");
        }
        free(list);
    });
}

libusb_device* LIBUSB_CALL libusb_ref_device(libusb_device* dev) {
    Locked([&](World& w) { dev->refs += w.HeldDevice(dev, "libusb_ref_device") ? 1 : 0; });
    return dev;
}

void LIBUSB_CALL libusb_unref_device(libusb_device* dev) {
    if (dev != nullptr) {
        Locked([&](World& w) { Unref(w, dev, "libusb_unref_device"); });
    }
}

uint8_t LIBUSB_CALL libusb_get_bus_number(libusb_device* dev) {
    return Locked([&](World& w) { return w.HeldDevice(dev, "libusb_get_bus_number") ? dev->physical->description.bus : 0; });
}

uint8_t LIBUSB_CALL libusb_get_device_address(libusb_device* dev) {
    const char* name = "libusb_get_device_address";
    return Locked([&](World& w) { return w.HeldDevice(dev, name) ? dev->physical->description.address : 0; });
}

int LIBUSB_CALL libusb_get_port_numbers(libusb_device* dev, uint8_t* port_numbers, int port_numbers_len) {
    return Locked([&](World& w) -> int {
        if (!w.HeldDevice(dev, "libusb_get_port_numbers")) {
            return LIBUSB_ERROR_INVALID_PARAM;
        }
        const std::vector<uint8_t>& ports = dev->physical->description.ports;
        if (static_cast<int>(ports.size()) > port_numbers_len) {
            return LIBUSB_ERROR_OVERFLOW;
        }
        std::copy(ports.begin(), ports.end(), port_numbers);
        return static_cast<int>(ports.size());
    });
}

// A device that is gone still answers from the descriptors libusb cached.
int LIBUSB_CALL libusb_get_device_descriptor(libusb_device* dev, libusb_device_descriptor* desc) {
    return Call("libusb_get_device_descriptor", dev, "", Function::GetDeviceDescriptor, [&](World&) {
        *desc = dev->physical->description.descriptor;
        return 0;
    });
}

int LIBUSB_CALL libusb_get_config_descriptor_by_value(libusb_device* dev, uint8_t bConfigurationValue,
                                                      libusb_config_descriptor** config) {
    const std::string args = Format(", %u", bConfigurationValue);
    return Call("libusb_get_config_descriptor_by_value", dev, args, Function::GetConfigDescriptorByValue,
                [&](World& w) -> int {
        if (bConfigurationValue != 1) {
            return LIBUSB_ERROR_NOT_FOUND;
        }
        std::unique_ptr<ConfigStorage> storage = BuildConfig(dev->physical->description);
        *config = &storage->config;
        w.configs[*config] = std::move(storage);
        return 0;
    });
}

void LIBUSB_CALL libusb_free_config_descriptor(libusb_config_descriptor* config) {
    Locked([&](World& w) {
        if (config != nullptr && w.configs.erase(config) == 0) {
            w.Misuse("libusb_free_config_descriptor: descriptor freed twice or not from libusb");
        }
    });
}

int LIBUSB_CALL libusb_get_max_packet_size(libusb_device* dev, unsigned char endpoint) {
    const std::string args = Format(", 0x%02x", endpoint);
    return Call("libusb_get_max_packet_size", dev, args, Function::GetMaxPacketSize, [&](World&) -> int {
        const Endpoint* e = dev->physical->description.FindEndpoint(endpoint);
        if (dev->physical->description.configuration == 0) {
            return LIBUSB_ERROR_OTHER; // libusb finds no active configuration to look in
        }
        return e != nullptr ? e->maxPacketSize : int{LIBUSB_ERROR_NOT_FOUND};
    });
}

int LIBUSB_CALL libusb_open(libusb_device* dev, libusb_device_handle** dev_handle) {
    libusb_pollfd_added_cb added = nullptr;
    int result = Call("libusb_open", dev, "", Function::Open, [&](World& w) -> int {
        if (!dev->physical->present) {
            return LIBUSB_ERROR_NO_DEVICE;
        }
        w.handles.push_back(std::make_unique<libusb_device_handle>(libusb_device_handle{dev, true, {}}));
        dev->refs++;
        *dev_handle = w.handles.back().get();
        if (w.deviceDescriptors && pipe2((*dev_handle)->fds, O_NONBLOCK | O_CLOEXEC) == 0) {
            added = dev->context->added;
        }
        return 0;
    });
    if (added != nullptr) {
        added((*dev_handle)->fds[0], POLLOUT, dev->context->notifierData);
    }
    return result;
}

void LIBUSB_CALL libusb_close(libusb_device_handle* dev_handle) {
    if (dev_handle == nullptr) {
        return;
    }
    // libusb takes the device file out of its event sources before closing it.
    libusb_pollfd_removed_cb removed = Locked([&](World&) {
        return dev_handle->open && dev_handle->fds[0] != -1 ? dev_handle->device->context->removed : nullptr;
    });
    if (removed != nullptr) {
        removed(dev_handle->fds[0], dev_handle->device->context->notifierData);
    }
    Locked([&](World& w) {
        const std::string name = World::NameOf(dev_handle->device);
        w.calls.push_back("libusb_close(" + name + ")");
        if (!w.OpenHandle(dev_handle, "libusb_close")) {
            return;
        }
        int busy = 0;
        for (auto& [transfer, state] : w.transfers) {
            busy += state.handle == dev_handle && state.phase != TransferState::Phase::Idle;
        }
        if (busy > 0) {
            w.Misuse(Format("libusb_close: %s closed with %d transfer(s) in flight", name.c_str(), busy));
        }
        for (int& fd : dev_handle->fds) {
            if (fd != -1) {
                close(fd);
                fd = -1;
            }
        }
        dev_handle->open = false;
        dev_handle->claimed.clear(); // closing the device file releases its interfaces
        Unref(w, dev_handle->device, "libusb_close");
    });
}

// As libusb: truncated to length - 1 and NUL-terminated.
int LIBUSB_CALL libusb_get_string_descriptor_ascii(libusb_device_handle* dev_handle, uint8_t desc_index,
                                                   unsigned char* data, int length) {
    const std::string args = Format(", %u", desc_index);
    return Call("libusb_get_string_descriptor_ascii", dev_handle, args, std::nullopt, [&](World&) -> int {
        const auto& strings = DescriptionOf(dev_handle).strings;
        auto it = strings.find(desc_index);
        if (it == strings.end()) {
            return LIBUSB_ERROR_PIPE;
        }
        const size_t n = std::min(it->second.size(), static_cast<size_t>(length - 1));
        memcpy(data, it->second.data(), n);
        data[n] = 0;
        return static_cast<int>(n);
    });
}

int LIBUSB_CALL libusb_get_configuration(libusb_device_handle* dev_handle, int* config) {
    return Call("libusb_get_configuration", dev_handle, "", Function::GetConfiguration, [&](World&) {
        *config = DescriptionOf(dev_handle).configuration;
        return 0;
    });
}

int LIBUSB_CALL libusb_set_configuration(libusb_device_handle* dev_handle, int configuration) {
    const std::string args = Format(", %d", configuration);
    return Call("libusb_set_configuration", dev_handle, args, Function::SetConfiguration, [&](World&) -> int {
        if (!dev_handle->claimed.empty()) {
            return LIBUSB_ERROR_BUSY; // the kernel refuses while an interface is claimed
        }
        DescriptionOf(dev_handle).configuration = configuration == 1 ? 1 : 0;
        return 0;
    });
}

int LIBUSB_CALL libusb_kernel_driver_active(libusb_device_handle* dev_handle, int interface_number) {
    const std::string args = Format(", %d", interface_number);
    return Call("libusb_kernel_driver_active", dev_handle, args, Function::KernelDriverActive,
                [&](World&) { return DescriptionOf(dev_handle).kernelDriverActive; });
}

int LIBUSB_CALL libusb_detach_kernel_driver(libusb_device_handle* dev_handle, int interface_number) {
    const std::string args = Format(", %d", interface_number);
    return Call("libusb_detach_kernel_driver", dev_handle, args, Function::DetachKernelDriver, [&](World&) -> int {
        int& active = DescriptionOf(dev_handle).kernelDriverActive;
        if (active != 1) {
            return active == 0 ? LIBUSB_ERROR_NOT_FOUND : active;
        }
        active = 0;
        return 0;
    });
}

int LIBUSB_CALL libusb_claim_interface(libusb_device_handle* dev_handle, int interface_number) {
    const std::string args = Format(", %d", interface_number);
    return Call("libusb_claim_interface", dev_handle, args, Function::ClaimInterface, [&](World&) -> int {
        const DeviceSpec& description = DescriptionOf(dev_handle);
        if (description.configuration == 0 || description.FindAltSetting(interface_number, -1) == nullptr) {
            return LIBUSB_ERROR_NOT_FOUND;
        }
        if (Claimed(dev_handle, interface_number)) {
            return 0; // libusb answers a repeated claim from its own bookkeeping
        }
        if (description.kernelDriverActive == 1) {
            return LIBUSB_ERROR_BUSY;
        }
        dev_handle->claimed.push_back(interface_number);
        return 0;
    });
}

int LIBUSB_CALL libusb_release_interface(libusb_device_handle* dev_handle, int interface_number) {
    const std::string args = Format(", %d", interface_number);
    return Call("libusb_release_interface", dev_handle, args, std::nullopt, [&](World&) -> int {
        std::vector<int>& claimed = dev_handle->claimed;
        auto it = std::find(claimed.begin(), claimed.end(), interface_number);
        if (it == claimed.end()) {
            return LIBUSB_ERROR_NOT_FOUND;
        }
        claimed.erase(it);
        return 0;
    });
}

int LIBUSB_CALL libusb_set_interface_alt_setting(libusb_device_handle* dev_handle, int interface_number,
                                                 int alternate_setting) {
    const std::string args = Format(", %d, %d", interface_number, alternate_setting);
    return Call("libusb_set_interface_alt_setting", dev_handle, args, std::nullopt, [&](World&) -> int {
        const bool known = DescriptionOf(dev_handle).FindAltSetting(interface_number, alternate_setting) != nullptr;
        return Claimed(dev_handle, interface_number) && known ? 0 : LIBUSB_ERROR_NOT_FOUND;
    });
}

int LIBUSB_CALL libusb_clear_halt(libusb_device_handle* dev_handle, unsigned char endpoint) {
    const std::string args = Format(", 0x%02x", endpoint);
    return Call("libusb_clear_halt", dev_handle, args, std::nullopt, [&](World&) -> int {
        return DescriptionOf(dev_handle).FindEndpoint(endpoint) != nullptr ? 0 : LIBUSB_ERROR_NOT_FOUND;
    });
}

} // extern "C"
