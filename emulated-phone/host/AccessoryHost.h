#pragma once

#include <libusb.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace emuphone {

// The host's half of the accessory protocol over the real libusb: enough to
// drive an emulated phone through its life from a test. Not the plug-in's
// code and not shaped like it.
class AccessoryHost {
public:
    struct Device {
        int bus = 0;
        int address = 0;
        uint16_t vendor = 0;
        uint16_t product = 0;
        std::string serial; // empty when the device has none or would not say
    };
    struct EchoResult {
        int error = 0;       // a libusb error or transfer status; 0 when all came back intact
        uint64_t bytes = 0;  // bytes that came back, checked
        double seconds = 0;
        std::string problem; // what went wrong, for a test's message
    };

    static constexpr uint16_t kAccessoryVendor = 0x18D1;
    static const std::array<uint8_t, 9> kPhoneHandshake;
    static const std::array<uint8_t, 10> kHostHandshake;

    AccessoryHost();
    ~AccessoryHost();
    AccessoryHost(const AccessoryHost&) = delete;
    AccessoryHost& operator=(const AccessoryHost&) = delete;

    libusb_context* Context() const { return context_; }
    libusb_device_handle* Handle() const { return handle_; }

    std::vector<Device> Devices();
    std::optional<Device> WaitForDevice(const std::function<bool(const Device&)>& match,
                                        std::chrono::milliseconds timeout);
    std::optional<Device> WaitForAccessory(const std::string& serial, std::chrono::milliseconds timeout);
    bool WaitUntilGone(int address, std::chrono::milliseconds timeout);

    int Open(int bus, int address);
    void Close();

    int QueryProtocol(uint16_t& version);
    int SendIdentity(uint16_t index, const std::string& value);
    int StartAccessory();
    // Version query, the six strings, the start request; stops at the first failure.
    int Switch(const std::array<std::string, 6>& identity, uint16_t& version);

    // Configuration 1, then the first 0xFF/0xFF/0x00 interface claimed and its endpoints noted.
    int ClaimAccessory();
    uint8_t In() const { return in_; }
    uint8_t Out() const { return out_; }
    int Interface() const { return interface_; }

    int Read(std::vector<uint8_t>& bytes, size_t capacity, unsigned int timeoutMs);
    int Write(const std::vector<uint8_t>& bytes, unsigned int timeoutMs);
    // Reads the phone's handshake, checks it, answers with the host's.
    int Handshake(unsigned int timeoutMs);

    // Writes `total` StreamPattern bytes in `chunk`-sized transfers, `depth` of
    // them in flight each way, and checks every byte that comes back.
    EchoResult Echo(uint64_t total, size_t chunk, int depth);

private:
    std::string SerialOf(libusb_device* device);

    libusb_context* context_ = nullptr;
    libusb_device_handle* handle_ = nullptr;
    int interface_ = -1;
    uint8_t in_ = 0;
    uint8_t out_ = 0;
};

} // namespace emuphone
