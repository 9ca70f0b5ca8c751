#pragma once

#include <libusb.h>

#include <vector>

#include "fakeusb/DeviceSpec.h"

namespace fakeusb {

// The devices plugged in. libusb_get_device_list lists the present ones in
// the order they were added. Devices are named by the id Add returns; ids are
// never reused.
class Bus {
public:
    // Plugs a device in. Two devices may share a bus number and address.
    static int Add(const DeviceSpec& device);
    // Takes the device off the list. Its transfers in flight end with
    // LIBUSB_TRANSFER_NO_DEVICE; its open handles stay valid but answer
    // LIBUSB_ERROR_NO_DEVICE, and it cannot be opened again.
    static void Unplug(int id);

    // The Bus id behind a libusb_device or handle of any context.
    static int IdOf(const libusb_device* device);
    static int IdOf(const libusb_device_handle* handle);
    // Interfaces claimed through the device's open handles, in claim order.
    static std::vector<int> ClaimedInterfaces(int id);
};

} // namespace fakeusb
