#pragma once

#include <libusb.h>

#include <vector>

#include "fakeusb/DeviceSpec.h"

namespace fakeusb {

// The devices plugged in. libusb_get_device_list lists the present ones in
// bus order. Devices are named by the id Add returns; ids are never reused.
class Bus {
public:
    static constexpr int kEnd = -1;

    // Plugs a device in at `position` in the list order (kEnd: last).
    // Two devices may share a bus number and address.
    static int Add(const DeviceSpec& device, int position = kEnd);
    // Takes the device off the list. Its transfers in flight end with
    // `transferStatus`; its open handles stay valid but answer
    // LIBUSB_ERROR_NO_DEVICE, and it cannot be opened again.
    static void Unplug(int id, int transferStatus = LIBUSB_TRANSFER_NO_DEVICE);

    // The Bus id behind a libusb_device or handle of any context; -1 if none.
    static int IdOf(const libusb_device* device);
    static int IdOf(const libusb_device_handle* handle);

    static bool Present(int id);
    // The device's configuration as libusb_set_configuration left it.
    static int Configuration(int id);
    // What libusb_kernel_driver_active answers now (detaching turns 1 into 0).
    static int KernelDriverActive(int id);
    // Interfaces claimed through the device's open handles, in claim order.
    static std::vector<int> ClaimedInterfaces(int id);
};

} // namespace fakeusb
