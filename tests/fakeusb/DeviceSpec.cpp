#include "fakeusb/DeviceSpec.h"

namespace fakeusb {

namespace {
constexpr uint8_t kDebugBridgeClass = 0xFF;
constexpr uint8_t kDebugBridgeSubClass = 0x42;
constexpr uint8_t kDebugBridgeProtocol = 0x01;
} // namespace

Endpoint Bulk(uint8_t address, uint16_t maxPacketSize) {
    return Endpoint{address, LIBUSB_TRANSFER_TYPE_BULK, maxPacketSize};
}

libusb_device_descriptor DeviceSpec::Descriptor(uint16_t vendorId, uint16_t productId) {
    libusb_device_descriptor d{};
    d.bLength = LIBUSB_DT_DEVICE_SIZE;
    d.bDescriptorType = LIBUSB_DT_DEVICE;
    d.bcdUSB = 0x0200;
    d.bMaxPacketSize0 = 64;
    d.idVendor = vendorId;
    d.idProduct = productId;
    d.bcdDevice = 0x0100;
    d.iManufacturer = 1;
    d.iProduct = 2;
    d.iSerialNumber = kSerialIndex;
    d.bNumConfigurations = 1;
    return d;
}

DeviceSpec AndroidPhone(uint8_t bus, uint8_t address, const std::string& serial) {
    DeviceSpec phone;
    phone.bus = bus;
    phone.address = address;
    phone.descriptor = DeviceSpec::Descriptor(0x04E8, 0x6860);
    phone.strings = {{1, "SAMSUNG"}, {2, "SAMSUNG_Android"}, {DeviceSpec::kSerialIndex, serial}};
    Endpoint events{0x82, LIBUSB_TRANSFER_TYPE_INTERRUPT, 28};
    phone.interfaces = {
        {AltSetting{0, 0, 0x06, 0x01, 0x01, {Bulk(0x81), Bulk(0x01), events}}},
        {AltSetting{1, 0, kDebugBridgeClass, kDebugBridgeSubClass, kDebugBridgeProtocol, {Bulk(0x83), Bulk(0x02)}}},
    };
    return phone;
}

DeviceSpec AccessoryPhone(uint8_t bus, uint8_t address, const std::string& serial, bool debugBridge) {
    DeviceSpec phone;
    phone.bus = bus;
    phone.address = address;
    phone.descriptor =
        DeviceSpec::Descriptor(kGoogleVendorId, debugBridge ? kAccessoryDebugProductId : kAccessoryProductId);
    phone.strings = {{1, "Google"}, {2, "Android Accessory Interface"}, {DeviceSpec::kSerialIndex, serial}};
    phone.interfaces = {{AltSetting{0, 0, 0xFF, 0xFF, 0x00, {Bulk(0x81), Bulk(0x01)}}}};
    if (debugBridge) {
        phone.interfaces.push_back(
            {AltSetting{1, 0, kDebugBridgeClass, kDebugBridgeSubClass, kDebugBridgeProtocol, {Bulk(0x82), Bulk(0x02)}}});
    }
    return phone;
}

} // namespace fakeusb
