#pragma once

#include <string>
#include <vector>

namespace fakeusb {

// The libusb calls the code under test made since Reset, oldest first, as
// text: the function name, the device as "bus:address", and the arguments
// that matter. Failed calls are recorded too. Recorded are libusb_init(),
// libusb_set_debug(level) and every call on a device or handle, e.g.
//   libusb_open(1:5)   libusb_claim_interface(1:5, 0)   libusb_clear_halt(1:5, 0x81)
//   libusb_submit_transfer(1:5, 0x81, 16320)            (endpoint, length)
//   libusb_submit_transfer(1:5, 0x00, control, c0 33 00 00 00 00 02 00)  (setup packet)
// Not recorded, because they say nothing about the device: bus number and
// address, references, lists, transfer allocation, poll descriptors,
// time-outs, event handling and libusb_exit.
class Calls {
public:
    static std::vector<std::string> All();
    // The calls of one function, e.g. Named("libusb_claim_interface").
    static std::vector<std::string> Named(const std::string& function);
    static int Count(const std::string& function);
};

} // namespace fakeusb
