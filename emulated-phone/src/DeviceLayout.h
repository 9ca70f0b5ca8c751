#pragma once

#include "emulated-phone/PhoneOptions.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace emuphone {

// What one enumeration of a phone looks like on the bus: its ids, strings,
// its single configuration's interfaces and endpoints, and the descriptor
// bytes sysfs and ep0 give out.
class DeviceLayout {
public:
    struct Endpoint {
        uint8_t address = 0;
        uint8_t attributes = 0; // transfer type in the low two bits
        uint16_t maxPacket = 0;
        uint8_t interval = 0;
        int interface = 0;
    };
    struct Interface {
        int number = 0;
        uint8_t interfaceClass = 0;
        uint8_t subclass = 0;
        uint8_t protocol = 0;
        std::vector<Endpoint> endpoints;
    };

    // The value of the only configuration, as phones number it.
    static constexpr int kConfigurationValue = 1;

    static DeviceLayout Normal(const PhoneOptions& options);
    static DeviceLayout Accessory(const PhoneOptions& options);

    bool IsAccessory() const { return accessory_; }
    uint16_t Vendor() const { return vendor_; }
    uint16_t Product() const { return product_; }
    bool SuperSpeed() const { return superSpeed_; }
    const std::optional<std::string>& Serial() const { return serial_; }
    const std::string& Manufacturer() const { return manufacturer_; }
    const std::string& ProductName() const { return productName_; }
    const std::vector<Interface>& Interfaces() const { return interfaces_; }

    const Endpoint* FindEndpoint(uint8_t address) const;
    bool HasInterface(int number) const;
    // The accessory interface and its bulk endpoints; -1 and 0 in normal mode.
    int AccessoryInterface() const { return accessoryInterface_; }
    uint8_t AccessoryIn() const { return accessoryIn_; }
    uint8_t AccessoryOut() const { return accessoryOut_; }
    uint16_t BulkPacketSize() const;

    std::vector<uint8_t> DeviceDescriptor() const;
    std::vector<uint8_t> ConfigurationDescriptor() const;
    std::optional<std::vector<uint8_t>> StringDescriptor(uint8_t index) const;
    // The sysfs "descriptors" attribute: device descriptor, then configuration.
    std::vector<uint8_t> SysfsDescriptors() const;
    // The sysfs "speed" attribute in Mb/s, and usbfs's GET_SPEED code.
    const char* SpeedMbps() const;
    int UsbfsSpeed() const;

private:
    DeviceLayout(const PhoneOptions& options, bool accessory);
    void AddInterface(uint8_t cls, uint8_t subclass, uint8_t protocol, bool outFirst);

    bool accessory_ = false;
    bool superSpeed_ = false;
    uint16_t vendor_ = 0;
    uint16_t product_ = 0;
    std::string manufacturer_;
    std::string productName_;
    std::optional<std::string> serial_;
    std::vector<Interface> interfaces_;
    int accessoryInterface_ = -1;
    uint8_t accessoryIn_ = 0;
    uint8_t accessoryOut_ = 0;
};

} // namespace emuphone
