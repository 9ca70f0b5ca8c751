#include "fakeusb/DeviceSpec.h"

#include <algorithm>

namespace fakeusb {

namespace {

AltSetting DebugBridge(uint8_t number, uint8_t in, uint8_t out) {
    return AltSetting{number, 0, 0xFF, 0x42, 0x01, {Bulk(in), Bulk(out)}};
}

libusb_device_descriptor Descriptor(uint16_t vendorId, uint16_t productId) {
    libusb_device_descriptor d{};
    d.bLength = LIBUSB_DT_DEVICE_SIZE;
    d.bDescriptorType = LIBUSB_DT_DEVICE;
    d.bcdUSB = 0x0200;
    d.idVendor = vendorId;
    d.idProduct = productId;
    d.iManufacturer = 1;
    d.iProduct = 2;
    d.iSerialNumber = DeviceSpec::kSerialIndex;
    d.bNumConfigurations = 1;
    return d;
}

} // namespace

const AltSetting* DeviceSpec::FindAltSetting(int interfaceNumber, int alternateSetting) const {
    for (const Interface& alts : interfaces) {
        for (const AltSetting& alt : alts) {
            if (alt.interfaceNumber == interfaceNumber &&
                (alternateSetting < 0 || alt.alternateSetting == alternateSetting)) {
                return &alt;
            }
        }
    }
    return nullptr;
}

const Endpoint* DeviceSpec::FindEndpoint(uint8_t address, const std::vector<int>* among) const {
    for (const Interface& alts : interfaces) {
        for (const AltSetting& alt : alts) {
            const bool searched = among == nullptr || std::count(among->begin(), among->end(), alt.interfaceNumber);
            for (const Endpoint& e : alt.endpoints) {
                if (searched && e.address == address) {
                    return &e;
                }
            }
        }
    }
    return nullptr;
}

DeviceSpec AndroidPhone(uint8_t bus, uint8_t address, const std::string& serial) {
    return DeviceSpec{bus, address, Descriptor(0x04E8, 0x6860),
                      {{1, "SAMSUNG"}, {2, "SAMSUNG_Android"}, {DeviceSpec::kSerialIndex, serial}},
                      {{AltSetting{0, 0, 0x06, 0x01, 0x01, {Bulk(0x81), Bulk(0x01)}}}, {DebugBridge(1, 0x83, 0x02)}}};
}

DeviceSpec AccessoryPhone(uint8_t bus, uint8_t address, const std::string& serial, bool debugBridge) {
    DeviceSpec phone{bus, address, Descriptor(0x18D1, debugBridge ? 0x2D01 : 0x2D00),
                     {{1, "Google"}, {2, "Android Accessory Interface"}, {DeviceSpec::kSerialIndex, serial}},
                     {{AltSetting{0, 0, 0xFF, 0xFF, 0x00, {Bulk(0x81), Bulk(0x01)}}}}};
    if (debugBridge) {
        phone.interfaces.push_back({DebugBridge(1, 0x82, 0x02)});
    }
    return phone;
}

} // namespace fakeusb
