#include "DeviceLayout.h"

#include <algorithm>
#include <linux/usb/ch9.h>

namespace emuphone {
namespace {

// Google's vendor id, which every phone reports in accessory mode.
constexpr uint16_t kAccessoryVendor = 0x18D1;
// Accessory-mode product ids: accessory alone, accessory with the debug bridge.
constexpr uint16_t kAccessoryProduct = 0x2D00;
constexpr uint16_t kAccessoryDebugProduct = 0x2D01;
// The accessory interface's class, subclass and protocol (vendor-specific).
constexpr uint8_t kAccessoryClass[3] = {0xFF, 0xFF, 0x00};
// Android's debug-bridge interface.
constexpr uint8_t kDebugBridgeClass[3] = {0xFF, 0x42, 0x01};
// A phone in normal mode offers media transfer: still image class, PIMA 15740.
constexpr uint8_t kMediaTransferClass[3] = {0x06, 0x01, 0x01};
// Media transfer's event endpoint: its events are 28 bytes, polled every 2^(6-1) microframes.
constexpr uint16_t kEventPacketSize = 28;
constexpr uint8_t kEventInterval = 6;
// Bulk packet sizes USB 2.0 and 3.x fix for high speed and SuperSpeed.
constexpr uint16_t kHighSpeedBulkPacket = 512;
constexpr uint16_t kSuperSpeedBulkPacket = 1024;
// ep0's packet size: 64 bytes at high speed; at SuperSpeed the descriptor holds 2^9.
constexpr uint8_t kHighSpeedControlPacket = 64;
constexpr uint8_t kSuperSpeedControlExponent = 9;
constexpr uint16_t kUsb20 = 0x0200;
constexpr uint16_t kUsb30 = 0x0300;
constexpr uint16_t kDeviceRelease = 0x0100;
// 500 mA in the descriptor's 2 mA units: a phone charges at the port's maximum.
constexpr uint8_t kMaxPower = 250;
constexpr uint8_t kSelfPoweredBusPowered = 0x80;
// String descriptor indexes the device descriptor refers to.
constexpr uint8_t kManufacturerString = 1;
constexpr uint8_t kProductString = 2;
constexpr uint8_t kSerialString = 3;
constexpr uint16_t kLanguageEnglishUS = 0x0409;
// usbfs GET_SPEED codes (enum usb_device_speed).
constexpr int kUsbfsHighSpeed = 3;
constexpr int kUsbfsSuperSpeed = 5;

void PutWord(std::vector<uint8_t>& out, uint16_t value)
{
    out.push_back(static_cast<uint8_t>(value & 0xFF));
    out.push_back(static_cast<uint8_t>(value >> 8));
}

void PutEndpoint(std::vector<uint8_t>& out, const DeviceLayout::Endpoint& e, bool superSpeed)
{
    out.insert(out.end(), {USB_DT_ENDPOINT_SIZE, USB_DT_ENDPOINT, e.address, e.attributes});
    PutWord(out, e.maxPacket);
    out.push_back(e.interval);
    if (superSpeed)
        out.insert(out.end(), {USB_DT_SS_EP_COMP_SIZE, USB_DT_SS_ENDPOINT_COMP, 0, 0, 0, 0});
}

} // namespace

DeviceLayout::DeviceLayout(const PhoneOptions& options, bool accessory)
    : accessory_(accessory),
      superSpeed_(options.superSpeed),
      vendor_(options.vendorId),
      product_(options.productId),
      manufacturer_(options.manufacturer),
      productName_(options.product),
      serial_(options.serial)
{
}

DeviceLayout DeviceLayout::Normal(const PhoneOptions& options)
{
    DeviceLayout layout(options, false);
    const uint8_t* m = kMediaTransferClass;
    layout.AddInterface(m[0], m[1], m[2], false);
    uint8_t events = static_cast<uint8_t>(USB_DIR_IN | (layout.interfaces_[0].endpoints.size() + 1));
    layout.interfaces_[0].endpoints.push_back({events, USB_ENDPOINT_XFER_INT, kEventPacketSize, kEventInterval, 0});
    if (options.debugBridge)
        layout.AddInterface(kDebugBridgeClass[0], kDebugBridgeClass[1], kDebugBridgeClass[2], false);
    return layout;
}

DeviceLayout DeviceLayout::Accessory(const PhoneOptions& options)
{
    DeviceLayout layout(options, true);
    layout.vendor_ = kAccessoryVendor;
    layout.product_ = options.debugBridge ? kAccessoryDebugProduct : kAccessoryProduct;
    const uint8_t* a = kAccessoryClass;
    const uint8_t* d = kDebugBridgeClass;
    if (options.debugBridge && options.debugBridgeFirst)
        layout.AddInterface(d[0], d[1], d[2], false);
    layout.AddInterface(a[0], a[1], a[2], options.outEndpointFirst);
    layout.accessoryInterface_ = layout.interfaces_.back().number;
    for (const Endpoint& e : layout.interfaces_.back().endpoints)
        (e.address & USB_DIR_IN ? layout.accessoryIn_ : layout.accessoryOut_) = e.address;
    if (options.debugBridge && !options.debugBridgeFirst)
        layout.AddInterface(d[0], d[1], d[2], false);
    return layout;
}

// Endpoints are numbered in the order interfaces are listed, as a phone's
// gadget driver hands them out.
void DeviceLayout::AddInterface(uint8_t cls, uint8_t subclass, uint8_t protocol, bool outFirst)
{
    Interface intf;
    intf.number = static_cast<int>(interfaces_.size());
    intf.interfaceClass = cls;
    intf.subclass = subclass;
    intf.protocol = protocol;
    uint8_t number = 1;
    for (const Interface& earlier : interfaces_)
        for (const Endpoint& e : earlier.endpoints)
            number = std::max<uint8_t>(number, static_cast<uint8_t>((e.address & 0x0F) + 1));
    Endpoint in{static_cast<uint8_t>(USB_DIR_IN | number), USB_ENDPOINT_XFER_BULK, BulkPacketSize(), 0, intf.number};
    Endpoint out{number, USB_ENDPOINT_XFER_BULK, BulkPacketSize(), 0, intf.number};
    intf.endpoints = outFirst ? std::vector<Endpoint>{out, in} : std::vector<Endpoint>{in, out};
    interfaces_.push_back(intf);
}

const DeviceLayout::Endpoint* DeviceLayout::FindEndpoint(uint8_t address) const
{
    for (const Interface& intf : interfaces_)
        for (const Endpoint& e : intf.endpoints)
            if (e.address == address)
                return &e;
    return nullptr;
}

bool DeviceLayout::HasInterface(int number) const
{
    return number >= 0 && number < static_cast<int>(interfaces_.size());
}

uint16_t DeviceLayout::BulkPacketSize() const
{
    return superSpeed_ ? kSuperSpeedBulkPacket : kHighSpeedBulkPacket;
}

std::vector<uint8_t> DeviceLayout::DeviceDescriptor() const
{
    std::vector<uint8_t> d{USB_DT_DEVICE_SIZE, USB_DT_DEVICE};
    PutWord(d, superSpeed_ ? kUsb30 : kUsb20);
    d.insert(d.end(), {0, 0, 0, superSpeed_ ? kSuperSpeedControlExponent : kHighSpeedControlPacket});
    PutWord(d, vendor_);
    PutWord(d, product_);
    PutWord(d, kDeviceRelease);
    d.insert(d.end(), {kManufacturerString, kProductString, static_cast<uint8_t>(serial_ ? kSerialString : 0), 1});
    return d;
}

std::vector<uint8_t> DeviceLayout::ConfigurationDescriptor() const
{
    std::vector<uint8_t> body;
    for (const Interface& intf : interfaces_) {
        body.insert(body.end(), {USB_DT_INTERFACE_SIZE, USB_DT_INTERFACE, static_cast<uint8_t>(intf.number), 0,
                                 static_cast<uint8_t>(intf.endpoints.size()), intf.interfaceClass, intf.subclass,
                                 intf.protocol, 0});
        for (const Endpoint& e : intf.endpoints)
            PutEndpoint(body, e, superSpeed_);
    }
    std::vector<uint8_t> c{USB_DT_CONFIG_SIZE, USB_DT_CONFIG};
    PutWord(c, static_cast<uint16_t>(USB_DT_CONFIG_SIZE + body.size()));
    c.insert(c.end(), {static_cast<uint8_t>(interfaces_.size()), kConfigurationValue, 0, kSelfPoweredBusPowered,
                       kMaxPower});
    c.insert(c.end(), body.begin(), body.end());
    return c;
}

std::optional<std::vector<uint8_t>> DeviceLayout::StringDescriptor(uint8_t index) const
{
    std::string text;
    if (index == 0) {
        std::vector<uint8_t> languages{4, USB_DT_STRING};
        PutWord(languages, kLanguageEnglishUS);
        return languages;
    }
    if (index == kManufacturerString)
        text = manufacturer_;
    else if (index == kProductString)
        text = productName_;
    else if (index == kSerialString && serial_)
        text = *serial_;
    else
        return std::nullopt;
    // bLength is one byte: the text is cut to the 126 UTF-16 units that fit.
    text.resize(std::min<size_t>(text.size(), (0xFF - 2) / 2));
    std::vector<uint8_t> d{static_cast<uint8_t>(2 + 2 * text.size()), USB_DT_STRING};
    for (unsigned char ch : text)
        PutWord(d, ch);
    return d;
}

std::vector<uint8_t> DeviceLayout::SysfsDescriptors() const
{
    std::vector<uint8_t> all = DeviceDescriptor();
    std::vector<uint8_t> config = ConfigurationDescriptor();
    all.insert(all.end(), config.begin(), config.end());
    return all;
}

const char* DeviceLayout::SpeedMbps() const { return superSpeed_ ? "5000" : "480"; }

int DeviceLayout::UsbfsSpeed() const { return superSpeed_ ? kUsbfsSuperSpeed : kUsbfsHighSpeed; }

} // namespace emuphone
