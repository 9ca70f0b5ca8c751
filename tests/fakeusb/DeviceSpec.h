#pragma once

#include <libusb.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace fakeusb {

// An endpoint; the address carries the direction (0x81 is IN 1, 0x01 is OUT 1).
struct Endpoint {
    uint8_t address;
    uint16_t maxPacketSize = 512; // reported as it stands
    uint8_t type = LIBUSB_TRANSFER_TYPE_BULK; // bmAttributes
};

inline Endpoint Bulk(uint8_t address) { return Endpoint{address}; }

struct AltSetting {
    uint8_t interfaceNumber = 0;
    uint8_t alternateSetting = 0;
    uint8_t interfaceClass = 0xFF;
    uint8_t interfaceSubClass = 0xFF;
    uint8_t interfaceProtocol = 0x00;
    std::vector<Endpoint> endpoints;
};

// One interface of the configuration: its alternate settings in descriptor order.
using Interface = std::vector<AltSetting>;

// Everything a test says about one device on the fake bus. The device has a
// single configuration, value 1, made of `interfaces` in list order.
struct DeviceSpec {
    static constexpr uint8_t kSerialIndex = 3;

    uint8_t bus = 1;
    uint8_t address = 1;
    // The phones below name their strings 1 (manufacturer), 2 (product) and
    // kSerialIndex (serial number).
    libusb_device_descriptor descriptor{};
    // String descriptors by index, as ASCII. An index with no entry fails as a
    // device that stalls the request does (LIBUSB_ERROR_PIPE).
    std::map<uint8_t, std::string> strings;
    std::vector<Interface> interfaces;
    // What libusb_get_configuration answers until libusb_set_configuration
    // changes it: 1, or 0 for an unconfigured device.
    int configuration = 1;
    // What libusb_kernel_driver_active answers: 0, 1 (then claiming fails with
    // LIBUSB_ERROR_BUSY until libusb_detach_kernel_driver) or a libusb error
    // such as LIBUSB_ERROR_NOT_SUPPORTED.
    int kernelDriverActive = 0;
    // What libusb_get_port_numbers answers: the ports from the root hub down.
    std::vector<uint8_t> ports{1};

    // The alternate setting (any of the interface's with -1), or null.
    const AltSetting* FindAltSetting(int interfaceNumber, int alternateSetting) const;
    // The endpoint at `address`, in any interface or only in those listed in
    // `among`; null if none.
    const Endpoint* FindEndpoint(uint8_t address, const std::vector<int>* among = nullptr) const;
};

// A phone as it first appears, before the accessory-mode switch: a media
// transfer interface (0x06/0x01/0x01; bulk 0x81, 0x01) and a debug-bridge
// interface (0xFF/0x42/0x01; bulk 0x83, 0x02).
DeviceSpec AndroidPhone(uint8_t bus, uint8_t address, const std::string& serial);

// The same phone after the switch: 0x18D1:0x2D01 with the accessory interface 0
// (0xFF/0xFF/0x00; bulk 0x81 IN, 0x01 OUT) and the debug-bridge interface 1
// (0xFF/0x42/0x01; bulk 0x82 IN, 0x02 OUT); 0x18D1:0x2D00 with only the
// accessory interface when debugBridge is false.
DeviceSpec AccessoryPhone(uint8_t bus, uint8_t address, const std::string& serial, bool debugBridge = true);

} // namespace fakeusb
