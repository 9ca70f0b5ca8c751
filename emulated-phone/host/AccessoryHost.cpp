#include "AccessoryHost.h"

#include "EchoRun.h"

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <thread>

namespace emuphone {
namespace {

// The accessory protocol's vendor requests and the time a phone gets to answer one.
constexpr uint8_t kGetProtocol = 51;
constexpr uint8_t kSendString = 52;
constexpr uint8_t kStart = 53;
constexpr unsigned int kControlTimeoutMs = 2000;
// Accessory-mode product ids: accessory, accessory with the debug bridge.
constexpr uint16_t kAccessoryProduct = 0x2D00;
constexpr uint16_t kAccessoryDebugProduct = 0x2D01;
// The accessory interface's class, subclass and protocol.
constexpr uint8_t kAccessoryClass = 0xFF;
constexpr uint8_t kAccessorySubclass = 0xFF;
constexpr uint8_t kAccessoryProtocol = 0x00;
// How often a wait looks at the device list again.
constexpr std::chrono::milliseconds kPollInterval{1};
// A transfer of the echo that does not finish in this time has failed.
constexpr unsigned int kEchoTransferTimeoutMs = 10000;
// The whole echo's limit: 64 MB at a few MB/s still fits.
constexpr unsigned int kEchoBudgetMs = 120000;

} // namespace

const std::array<uint8_t, 9> AccessoryHost::kPhoneHandshake = {0xFF, 0xFF, 0x00, 0x00, 0x0A,
                                                                0x0A, 0x44, 0x45, 0x56};
const std::array<uint8_t, 10> AccessoryHost::kHostHandshake = {0xFF, 0xFF, 0x00, 0x00, 0x0A,
                                                                0x0A, 0x48, 0x4F, 0x53, 0x54};

AccessoryHost::AccessoryHost()
{
    int error = libusb_init(&context_);
    if (error != 0)
        throw std::runtime_error(std::string("libusb_init: ") + libusb_error_name(error));
}

AccessoryHost::~AccessoryHost()
{
    Close();
    libusb_exit(context_);
}

std::string AccessoryHost::SerialOf(libusb_device* device)
{
    libusb_device_descriptor descriptor{};
    libusb_device_handle* handle = nullptr;
    if (libusb_get_device_descriptor(device, &descriptor) != 0 || descriptor.iSerialNumber == 0 ||
        libusb_open(device, &handle) != 0)
        return {};
    unsigned char text[256] = {};
    int length = libusb_get_string_descriptor_ascii(handle, descriptor.iSerialNumber, text, sizeof text);
    libusb_close(handle);
    return length > 0 ? std::string(reinterpret_cast<char*>(text), static_cast<size_t>(length)) : std::string();
}

std::vector<AccessoryHost::Device> AccessoryHost::Devices()
{
    libusb_device** list = nullptr;
    ssize_t count = libusb_get_device_list(context_, &list);
    std::vector<Device> devices;
    for (ssize_t i = 0; i < count; ++i) {
        libusb_device_descriptor descriptor{};
        libusb_get_device_descriptor(list[i], &descriptor);
        Device d;
        d.bus = libusb_get_bus_number(list[i]);
        d.address = libusb_get_device_address(list[i]);
        d.vendor = descriptor.idVendor;
        d.product = descriptor.idProduct;
        d.serial = SerialOf(list[i]);
        devices.push_back(d);
    }
    if (count >= 0)
        libusb_free_device_list(list, 1);
    return devices;
}

std::optional<AccessoryHost::Device> AccessoryHost::WaitForDevice(const std::function<bool(const Device&)>& match,
                                                                  std::chrono::milliseconds timeout)
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    do {
        for (const Device& d : Devices())
            if (match(d))
                return d;
        std::this_thread::sleep_for(kPollInterval);
    } while (std::chrono::steady_clock::now() < deadline);
    return std::nullopt;
}

std::optional<AccessoryHost::Device> AccessoryHost::WaitForAccessory(const std::string& serial,
                                                                     std::chrono::milliseconds timeout)
{
    return WaitForDevice(
        [&](const Device& d) {
            bool accessory = d.product == kAccessoryProduct || d.product == kAccessoryDebugProduct;
            return d.vendor == kAccessoryVendor && accessory && d.serial == serial;
        },
        timeout);
}

bool AccessoryHost::WaitUntilGone(int address, std::chrono::milliseconds timeout)
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    do {
        libusb_device** list = nullptr;
        ssize_t count = libusb_get_device_list(context_, &list);
        bool present = false;
        for (ssize_t i = 0; i < count; ++i)
            present = present || libusb_get_device_address(list[i]) == address;
        if (count >= 0)
            libusb_free_device_list(list, 1);
        if (!present)
            return true;
        std::this_thread::sleep_for(kPollInterval);
    } while (std::chrono::steady_clock::now() < deadline);
    return false;
}

int AccessoryHost::Open(int bus, int address)
{
    Close();
    libusb_device** list = nullptr;
    ssize_t count = libusb_get_device_list(context_, &list);
    int error = LIBUSB_ERROR_NOT_FOUND;
    for (ssize_t i = 0; i < count; ++i)
        if (libusb_get_bus_number(list[i]) == bus && libusb_get_device_address(list[i]) == address)
            error = libusb_open(list[i], &handle_);
    if (count >= 0)
        libusb_free_device_list(list, 1);
    return error;
}

void AccessoryHost::Close()
{
    if (!handle_)
        return;
    if (interface_ >= 0)
        libusb_release_interface(handle_, interface_);
    libusb_close(handle_);
    handle_ = nullptr;
    interface_ = -1;
}

int AccessoryHost::QueryProtocol(uint16_t& version)
{
    uint8_t reply[2] = {};
    int n = libusb_control_transfer(handle_, LIBUSB_ENDPOINT_IN | LIBUSB_REQUEST_TYPE_VENDOR, kGetProtocol, 0, 0,
                                    reply, sizeof reply, kControlTimeoutMs);
    if (n < 0)
        return n;
    version = static_cast<uint16_t>(reply[0] | (reply[1] << 8));
    return n == static_cast<int>(sizeof reply) ? 0 : LIBUSB_ERROR_IO;
}

int AccessoryHost::SendIdentity(uint16_t index, const std::string& value)
{
    auto* data = reinterpret_cast<unsigned char*>(const_cast<char*>(value.data()));
    int n = libusb_control_transfer(handle_, LIBUSB_ENDPOINT_OUT | LIBUSB_REQUEST_TYPE_VENDOR, kSendString, 0, index,
                                    data, static_cast<uint16_t>(value.size()), kControlTimeoutMs);
    return n < 0 ? n : 0;
}

int AccessoryHost::StartAccessory()
{
    int n = libusb_control_transfer(handle_, LIBUSB_ENDPOINT_OUT | LIBUSB_REQUEST_TYPE_VENDOR, kStart, 0, 0, nullptr,
                                    0, kControlTimeoutMs);
    return n < 0 ? n : 0;
}

int AccessoryHost::Switch(const std::array<std::string, 6>& identity, uint16_t& version)
{
    if (int error = QueryProtocol(version))
        return error;
    for (uint16_t i = 0; i < identity.size(); ++i)
        if (int error = SendIdentity(i, identity[i]))
            return error;
    return StartAccessory();
}

int AccessoryHost::ClaimAccessory()
{
    int configuration = 0;
    if (int error = libusb_get_configuration(handle_, &configuration))
        return error;
    if (configuration != 1)
        if (int error = libusb_set_configuration(handle_, 1))
            return error;
    libusb_config_descriptor* config = nullptr;
    if (int error = libusb_get_active_config_descriptor(libusb_get_device(handle_), &config))
        return error;
    int found = -1;
    for (int i = 0; i < config->bNumInterfaces && found < 0; ++i) {
        const libusb_interface_descriptor& alt = config->interface[i].altsetting[0];
        if (alt.bInterfaceClass == kAccessoryClass && alt.bInterfaceSubClass == kAccessorySubclass &&
            alt.bInterfaceProtocol == kAccessoryProtocol && alt.bNumEndpoints >= 2) {
            found = alt.bInterfaceNumber;
            for (int e = 0; e < 2; ++e) {
                uint8_t address = alt.endpoint[e].bEndpointAddress;
                (address & LIBUSB_ENDPOINT_IN ? in_ : out_) = address;
            }
        }
    }
    libusb_free_config_descriptor(config);
    if (found < 0)
        return LIBUSB_ERROR_NOT_FOUND;
    if (int error = libusb_claim_interface(handle_, found))
        return error;
    interface_ = found;
    return 0;
}

int AccessoryHost::Read(std::vector<uint8_t>& bytes, size_t capacity, unsigned int timeoutMs)
{
    bytes.assign(capacity, 0);
    int transferred = 0;
    int error = libusb_bulk_transfer(handle_, in_, bytes.data(), static_cast<int>(capacity), &transferred, timeoutMs);
    bytes.resize(static_cast<size_t>(transferred));
    return error;
}

int AccessoryHost::Write(const std::vector<uint8_t>& bytes, unsigned int timeoutMs)
{
    int transferred = 0;
    auto* data = const_cast<unsigned char*>(bytes.data());
    int error = libusb_bulk_transfer(handle_, out_, data, static_cast<int>(bytes.size()), &transferred, timeoutMs);
    if (error == 0 && transferred != static_cast<int>(bytes.size()))
        return LIBUSB_ERROR_IO;
    return error;
}

int AccessoryHost::Handshake(unsigned int timeoutMs)
{
    std::vector<uint8_t> bytes;
    if (int error = Read(bytes, 512, timeoutMs))
        return error;
    if (!std::equal(kPhoneHandshake.begin(), kPhoneHandshake.end(), bytes.begin(), bytes.end()))
        return LIBUSB_ERROR_OTHER;
    return Write(std::vector<uint8_t>(kHostHandshake.begin(), kHostHandshake.end()), timeoutMs);
}

AccessoryHost::EchoResult AccessoryHost::Echo(uint64_t total, size_t chunk, int depth)
{
    auto start = std::chrono::steady_clock::now();
    EchoRun run(context_, handle_, in_, out_, total, chunk, depth, kEchoTransferTimeoutMs);
    run.Run(kEchoBudgetMs);
    EchoResult result;
    result.error = run.Error();
    result.bytes = run.Received();
    result.problem = run.Problem();
    result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return result;
}

} // namespace emuphone
