#pragma once

#include <string>
#include <vector>

namespace fakeusb {

// The libusb calls the code under test made since Reset, oldest first, as
// text: the function name and the arguments that matter, with the device as
// "bus:address". Failed calls are recorded too. Recorded:
//   libusb_init()                              libusb_exit()
//   libusb_set_debug(0)                        libusb_get_device_list()
//   libusb_get_device_descriptor(1:5)          libusb_get_config_descriptor_by_value(1:5, 1)
//   libusb_get_max_packet_size(1:5, 0x81)      libusb_open(1:5)
//   libusb_close(1:5)                          libusb_get_string_descriptor_ascii(1:5, 3)
//   libusb_get_configuration(1:5)              libusb_set_configuration(1:5, 1)
//   libusb_kernel_driver_active(1:5, 0)        libusb_detach_kernel_driver(1:5, 0)
//   libusb_claim_interface(1:5, 0)             libusb_release_interface(1:5, 0)
//   libusb_set_interface_alt_setting(1:5, 0, 1)
//   libusb_clear_halt(1:5, 0x81)               libusb_cancel_transfer(1:5, 0x81)
//   libusb_submit_transfer(1:5, 0x81, bulk, 16320)          (endpoint, type, length)
//   libusb_submit_transfer(1:5, 0x00, control, c0 33 00 00 00 00 02 00)  (setup packet)
// Not recorded, because they say nothing about the device: bus number and
// address, references, lists, transfer allocation, poll descriptors, time-outs
// and event handling (Events::HandleEventsCalls counts the latter).
class Calls {
public:
    static std::vector<std::string> All();
    // The calls of one function, e.g. Named("libusb_claim_interface").
    static std::vector<std::string> Named(const std::string& function);
    static int Count(const std::string& function);
};

} // namespace fakeusb
