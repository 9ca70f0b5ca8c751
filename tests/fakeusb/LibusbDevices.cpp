// The libusb functions for enumeration, descriptors, device handles,
// configuration and interfaces, answered from the fake bus.

#include <libusb.h>

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

using Lock = std::lock_guard<std::mutex>;

// A string descriptor holds at most 126 UTF-16 characters (255 bytes).
constexpr size_t kMaxStringCharacters = 126;

libusb_endpoint_descriptor EndpointDescriptor(const Endpoint& e) {
    libusb_endpoint_descriptor d{};
    d.bLength = LIBUSB_DT_ENDPOINT_SIZE;
    d.bDescriptorType = LIBUSB_DT_ENDPOINT;
    d.bEndpointAddress = e.address;
    d.bmAttributes = e.attributes;
    d.wMaxPacketSize = e.maxPacketSize;
    return d;
}

libusb_interface_descriptor InterfaceDescriptor(const AltSetting& alt,
                                                const std::vector<libusb_endpoint_descriptor>& endpoints) {
    libusb_interface_descriptor d{};
    d.bLength = LIBUSB_DT_INTERFACE_SIZE;
    d.bDescriptorType = LIBUSB_DT_INTERFACE;
    d.bInterfaceNumber = alt.interfaceNumber;
    d.bAlternateSetting = alt.alternateSetting;
    d.bNumEndpoints = static_cast<uint8_t>(endpoints.size());
    d.bInterfaceClass = alt.interfaceClass;
    d.bInterfaceSubClass = alt.interfaceSubClass;
    d.bInterfaceProtocol = alt.interfaceProtocol;
    d.endpoint = endpoints.empty() ? nullptr : endpoints.data();
    return d;
}

// Every level is sized before any pointer into it is taken, so none moves.
std::unique_ptr<ConfigStorage> BuildConfig(const DeviceSpec& device) {
    auto s = std::make_unique<ConfigStorage>();
    const size_t count = device.interfaces.size();
    s->interfaces.resize(count);
    s->altSettings.resize(count);
    s->endpoints.resize(count);
    int total = LIBUSB_DT_CONFIG_SIZE;
    for (size_t i = 0; i < count; i++) {
        const fakeusb::Interface& alts = device.interfaces[i];
        s->endpoints[i].resize(alts.size());
        for (size_t a = 0; a < alts.size(); a++) {
            for (const Endpoint& e : alts[a].endpoints) {
                s->endpoints[i][a].push_back(EndpointDescriptor(e));
            }
            s->altSettings[i].push_back(InterfaceDescriptor(alts[a], s->endpoints[i][a]));
            total += LIBUSB_DT_INTERFACE_SIZE + LIBUSB_DT_ENDPOINT_SIZE * static_cast<int>(alts[a].endpoints.size());
        }
        s->interfaces[i].altsetting = s->altSettings[i].data();
        s->interfaces[i].num_altsetting = static_cast<int>(alts.size());
    }
    libusb_config_descriptor& c = s->config;
    c.bLength = LIBUSB_DT_CONFIG_SIZE;
    c.bDescriptorType = LIBUSB_DT_CONFIG;
    c.wTotalLength = static_cast<uint16_t>(total);
    c.bNumInterfaces = static_cast<uint8_t>(count);
    c.bConfigurationValue = 1;
    c.bmAttributes = 0x80; // bus-powered
    c.MaxPower = 250;      // 500 mA in 2 mA units
    c.interface = s->interfaces.data();
    return s;
}

const AltSetting* FindAltSetting(const DeviceSpec& device, int interfaceNumber, int alternateSetting) {
    for (const fakeusb::Interface& alts : device.interfaces) {
        for (const AltSetting& alt : alts) {
            if (alt.interfaceNumber == interfaceNumber &&
                (alternateSetting < 0 || alt.alternateSetting == alternateSetting)) {
                return &alt;
            }
        }
    }
    return nullptr;
}

const Endpoint* FindEndpoint(const DeviceSpec& device, unsigned char address) {
    for (const fakeusb::Interface& alts : device.interfaces) {
        for (const AltSetting& alt : alts) {
            for (const Endpoint& e : alt.endpoints) {
                if (e.address == address) {
                    return &e;
                }
            }
        }
    }
    return nullptr;
}

void Unref(World& w, libusb_device* device, const char* function) {
    auto it = std::find_if(w.devices.begin(), w.devices.end(), [&](auto& d) { return d.get() == device; });
    if (it == w.devices.end()) {
        w.Misuse(Format("%s: unknown device", function));
    } else if (device->refs == 0) {
        w.Misuse(Format("%s: device %s released more often than referenced", function, w.NameOf(device).c_str()));
    } else {
        device->refs--;
    }
}

// The prologue of every recorded call on a device handle. True when the call
// must return *result at once: bad handle, scripted failure, device gone.
bool Refused(World& w, libusb_device_handle* handle, Function function, const std::string& call, int* result) {
    w.Record(call);
    const std::string name = call.substr(0, call.find('('));
    if (!w.OpenHandle(handle, name.c_str())) {
        *result = LIBUSB_ERROR_INVALID_PARAM;
        return true;
    }
    if (w.Inject(function, result)) {
        return true;
    }
    if (!handle->device->physical->present) {
        *result = LIBUSB_ERROR_NO_DEVICE;
        return true;
    }
    return false;
}

// The same for calls on a device; a device that is gone still answers from
// the descriptors libusb cached.
bool Refused(World& w, libusb_device* device, Function function, const std::string& call, int* result) {
    w.Record(call);
    const std::string name = call.substr(0, call.find('('));
    if (!w.HeldDevice(device, name.c_str())) {
        *result = LIBUSB_ERROR_INVALID_PARAM;
        return true;
    }
    return w.Inject(function, result);
}

bool ClaimedByAnotherHandle(const World& w, const libusb_device_handle* handle, int interfaceNumber) {
    for (auto& other : w.handles) {
        if (other.get() != handle && other->open && other->device->physical == handle->device->physical) {
            const auto& c = other->claimed;
            if (std::find(c.begin(), c.end(), interfaceNumber) != c.end()) {
                return true;
            }
        }
    }
    return false;
}

bool AnyInterfaceClaimed(const World& w, const PhysicalDevice* device) {
    for (auto& h : w.handles) {
        if (h->open && h->device->physical == device && !h->claimed.empty()) {
            return true;
        }
    }
    return false;
}

} // namespace

extern "C" {

ssize_t LIBUSB_CALL libusb_get_device_list(libusb_context* ctx, libusb_device*** list) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    w.Record("libusb_get_device_list()");
    int error = 0;
    if (!w.LiveContext(ctx, "libusb_get_device_list")) {
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    if (w.Inject(Function::GetDeviceList, &error)) {
        return error;
    }
    auto** devices = static_cast<libusb_device**>(calloc(w.bus.size() + 1, sizeof(libusb_device*)));
    if (devices == nullptr) {
        return LIBUSB_ERROR_NO_MEM;
    }
    for (size_t i = 0; i < w.bus.size(); i++) {
        devices[i] = w.DeviceFor(ctx, w.bus[i]);
        devices[i]->refs++;
    }
    w.deviceLists.insert(devices);
    *list = devices;
    return static_cast<ssize_t>(w.bus.size());
}

void LIBUSB_CALL libusb_free_device_list(libusb_device** list, int unref_devices) {
    if (list == nullptr) {
        return;
    }
    World& w = TheWorld();
    Lock lock(w.mutex);
    if (w.deviceLists.erase(list) == 0) {
        w.Misuse("libusb_free_device_list: list freed twice or not from libusb_get_device_list");
        return;
    }
    for (libusb_device** d = list; unref_devices && *d != nullptr; d++) {
        Unref(w, *d, "libusb_free_device_list");
    }
    free(list);
}

libusb_device* LIBUSB_CALL libusb_ref_device(libusb_device* dev) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    if (w.HeldDevice(dev, "libusb_ref_device")) {
        dev->refs++;
    }
    return dev;
}

void LIBUSB_CALL libusb_unref_device(libusb_device* dev) {
    if (dev == nullptr) {
        return;
    }
    World& w = TheWorld();
    Lock lock(w.mutex);
    Unref(w, dev, "libusb_unref_device");
}

uint8_t LIBUSB_CALL libusb_get_bus_number(libusb_device* dev) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    return w.HeldDevice(dev, "libusb_get_bus_number") ? dev->physical->description.bus : 0;
}

uint8_t LIBUSB_CALL libusb_get_device_address(libusb_device* dev) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    return w.HeldDevice(dev, "libusb_get_device_address") ? dev->physical->description.address : 0;
}

int LIBUSB_CALL libusb_get_device_descriptor(libusb_device* dev, libusb_device_descriptor* desc) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    int result = 0;
    if (Refused(w, dev, Function::GetDeviceDescriptor,
                Format("libusb_get_device_descriptor(%s)", w.NameOf(dev).c_str()), &result)) {
        return result;
    }
    *desc = dev->physical->description.descriptor;
    return 0;
}

int LIBUSB_CALL libusb_get_config_descriptor_by_value(libusb_device* dev, uint8_t bConfigurationValue,
                                                      libusb_config_descriptor** config) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    int result = 0;
    if (Refused(w, dev, Function::GetConfigDescriptorByValue,
                Format("libusb_get_config_descriptor_by_value(%s, %u)", w.NameOf(dev).c_str(), bConfigurationValue),
                &result)) {
        return result;
    }
    if (bConfigurationValue != 1) {
        return LIBUSB_ERROR_NOT_FOUND;
    }
    std::unique_ptr<ConfigStorage> storage = BuildConfig(dev->physical->description);
    *config = &storage->config;
    w.configs[*config] = std::move(storage);
    return 0;
}

void LIBUSB_CALL libusb_free_config_descriptor(libusb_config_descriptor* config) {
    if (config == nullptr) {
        return;
    }
    World& w = TheWorld();
    Lock lock(w.mutex);
    if (w.configs.erase(config) == 0) {
        w.Misuse("libusb_free_config_descriptor: descriptor freed twice or not from libusb");
    }
}

int LIBUSB_CALL libusb_get_max_packet_size(libusb_device* dev, unsigned char endpoint) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    int result = 0;
    if (Refused(w, dev, Function::GetMaxPacketSize,
                Format("libusb_get_max_packet_size(%s, 0x%02x)", w.NameOf(dev).c_str(), endpoint), &result)) {
        return result;
    }
    if (dev->physical->configuration == 0) {
        return LIBUSB_ERROR_OTHER; // libusb finds no active configuration to look in
    }
    const Endpoint* e = FindEndpoint(dev->physical->description, endpoint);
    if (e == nullptr) {
        return LIBUSB_ERROR_NOT_FOUND;
    }
    return e->maxPacketSize;
}

int LIBUSB_CALL libusb_open(libusb_device* dev, libusb_device_handle** dev_handle) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    int result = 0;
    if (Refused(w, dev, Function::Open, Format("libusb_open(%s)", w.NameOf(dev).c_str()), &result)) {
        return result;
    }
    if (!dev->physical->present) {
        return LIBUSB_ERROR_NO_DEVICE;
    }
    w.handles.push_back(std::make_unique<libusb_device_handle>(libusb_device_handle{dev, true, {}}));
    dev->refs++;
    *dev_handle = w.handles.back().get();
    return 0;
}

void LIBUSB_CALL libusb_close(libusb_device_handle* dev_handle) {
    if (dev_handle == nullptr) {
        return;
    }
    World& w = TheWorld();
    Lock lock(w.mutex);
    w.Record(Format("libusb_close(%s)", w.NameOf(dev_handle).c_str()));
    if (!w.OpenHandle(dev_handle, "libusb_close")) {
        return;
    }
    int busy = 0;
    for (auto& entry : w.transfers) {
        busy += entry.second.handle == dev_handle && entry.second.phase != TransferState::Phase::Idle;
    }
    if (busy > 0) {
        w.Misuse(Format("libusb_close: %s closed with %d transfer(s) in flight", w.NameOf(dev_handle).c_str(), busy));
    }
    dev_handle->open = false;
    dev_handle->claimed.clear(); // closing the device file releases its interfaces
    Unref(w, dev_handle->device, "libusb_close");
}

libusb_device* LIBUSB_CALL libusb_get_device(libusb_device_handle* dev_handle) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    return w.OpenHandle(dev_handle, "libusb_get_device") ? dev_handle->device : nullptr;
}

int LIBUSB_CALL libusb_get_string_descriptor_ascii(libusb_device_handle* dev_handle, uint8_t desc_index,
                                                   unsigned char* data, int length) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    int result = 0;
    if (Refused(w, dev_handle, Function::GetStringDescriptorAscii,
                Format("libusb_get_string_descriptor_ascii(%s, %u)", w.NameOf(dev_handle).c_str(), desc_index),
                &result)) {
        return result;
    }
    if (desc_index == 0 || length <= 0) {
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    const auto& strings = dev_handle->device->physical->description.strings;
    auto it = strings.find(desc_index);
    if (it == strings.end()) {
        return LIBUSB_ERROR_PIPE;
    }
    // As libusb: truncated to length - 1, NUL-terminated, non-ASCII as '?'.
    size_t n = std::min({it->second.size(), kMaxStringCharacters, static_cast<size_t>(length - 1)});
    for (size_t i = 0; i < n; i++) {
        unsigned char c = static_cast<unsigned char>(it->second[i]);
        data[i] = c < 0x80 ? c : '?';
    }
    data[n] = 0;
    return static_cast<int>(n);
}

int LIBUSB_CALL libusb_get_configuration(libusb_device_handle* dev_handle, int* config) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    int result = 0;
    if (Refused(w, dev_handle, Function::GetConfiguration,
                Format("libusb_get_configuration(%s)", w.NameOf(dev_handle).c_str()), &result)) {
        return result;
    }
    *config = dev_handle->device->physical->configuration;
    return 0;
}

int LIBUSB_CALL libusb_set_configuration(libusb_device_handle* dev_handle, int configuration) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    int result = 0;
    if (Refused(w, dev_handle, Function::SetConfiguration,
                Format("libusb_set_configuration(%s, %d)", w.NameOf(dev_handle).c_str(), configuration), &result)) {
        return result;
    }
    PhysicalDevice* device = dev_handle->device->physical;
    if (AnyInterfaceClaimed(w, device)) {
        return LIBUSB_ERROR_BUSY; // the kernel refuses while an interface is claimed
    }
    if (configuration != -1 && configuration != 0 && configuration != 1) {
        return LIBUSB_ERROR_NOT_FOUND;
    }
    device->configuration = configuration == 1 ? 1 : 0;
    return 0;
}

int LIBUSB_CALL libusb_kernel_driver_active(libusb_device_handle* dev_handle, int interface_number) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    int result = 0;
    if (Refused(w, dev_handle, Function::KernelDriverActive,
                Format("libusb_kernel_driver_active(%s, %d)", w.NameOf(dev_handle).c_str(), interface_number),
                &result)) {
        return result;
    }
    return dev_handle->device->physical->kernelDriverActive;
}

int LIBUSB_CALL libusb_detach_kernel_driver(libusb_device_handle* dev_handle, int interface_number) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    int result = 0;
    if (Refused(w, dev_handle, Function::DetachKernelDriver,
                Format("libusb_detach_kernel_driver(%s, %d)", w.NameOf(dev_handle).c_str(), interface_number),
                &result)) {
        return result;
    }
    int& active = dev_handle->device->physical->kernelDriverActive;
    if (active == 1) {
        active = 0;
        return 0;
    }
    if (active == 0) {
        return LIBUSB_ERROR_NOT_FOUND;
    }
    return active;
}

int LIBUSB_CALL libusb_claim_interface(libusb_device_handle* dev_handle, int interface_number) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    int result = 0;
    if (Refused(w, dev_handle, Function::ClaimInterface,
                Format("libusb_claim_interface(%s, %d)", w.NameOf(dev_handle).c_str(), interface_number), &result)) {
        return result;
    }
    PhysicalDevice* device = dev_handle->device->physical;
    std::vector<int>& claimed = dev_handle->claimed;
    if (device->configuration == 0 || FindAltSetting(device->description, interface_number, -1) == nullptr) {
        return LIBUSB_ERROR_NOT_FOUND;
    }
    if (std::find(claimed.begin(), claimed.end(), interface_number) != claimed.end()) {
        return 0; // libusb answers a repeated claim from its own bookkeeping
    }
    if (device->kernelDriverActive == 1 || ClaimedByAnotherHandle(w, dev_handle, interface_number)) {
        return LIBUSB_ERROR_BUSY;
    }
    claimed.push_back(interface_number);
    return 0;
}

int LIBUSB_CALL libusb_release_interface(libusb_device_handle* dev_handle, int interface_number) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    int result = 0;
    if (Refused(w, dev_handle, Function::ReleaseInterface,
                Format("libusb_release_interface(%s, %d)", w.NameOf(dev_handle).c_str(), interface_number),
                &result)) {
        return result;
    }
    std::vector<int>& claimed = dev_handle->claimed;
    auto it = std::find(claimed.begin(), claimed.end(), interface_number);
    if (it == claimed.end()) {
        return LIBUSB_ERROR_NOT_FOUND;
    }
    claimed.erase(it);
    return 0;
}

int LIBUSB_CALL libusb_set_interface_alt_setting(libusb_device_handle* dev_handle, int interface_number,
                                                 int alternate_setting) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    int result = 0;
    if (Refused(w, dev_handle, Function::SetInterfaceAltSetting,
                Format("libusb_set_interface_alt_setting(%s, %d, %d)", w.NameOf(dev_handle).c_str(),
                       interface_number, alternate_setting),
                &result)) {
        return result;
    }
    const std::vector<int>& claimed = dev_handle->claimed;
    if (std::find(claimed.begin(), claimed.end(), interface_number) == claimed.end() ||
        FindAltSetting(dev_handle->device->physical->description, interface_number, alternate_setting) == nullptr) {
        return LIBUSB_ERROR_NOT_FOUND;
    }
    return 0;
}

int LIBUSB_CALL libusb_clear_halt(libusb_device_handle* dev_handle, unsigned char endpoint) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    int result = 0;
    if (Refused(w, dev_handle, Function::ClearHalt,
                Format("libusb_clear_halt(%s, 0x%02x)", w.NameOf(dev_handle).c_str(), endpoint), &result)) {
        return result;
    }
    return FindEndpoint(dev_handle->device->physical->description, endpoint) != nullptr ? 0 : LIBUSB_ERROR_NOT_FOUND;
}

} // extern "C"
