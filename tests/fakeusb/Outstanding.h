#pragma once

#include <ostream>

namespace fakeusb {

// What the code under test holds from libusb and has not given back. After
// the code under test is torn down, every count should be 0:
//   EXPECT_EQ(fakeusb::Outstanding::Now(), fakeusb::Outstanding{});
struct Outstanding {
    int contexts = 0;          // libusb_init without libusb_exit
    int deviceLists = 0;       // libusb_get_device_list without libusb_free_device_list
    int deviceRefs = 0;        // references held by lists, libusb_ref_device and open handles
    int openHandles = 0;       // libusb_open without libusb_close
    int transfers = 0;         // libusb_alloc_transfer without libusb_free_transfer
    int configDescriptors = 0; // libusb_get_config_descriptor_by_value without libusb_free_config_descriptor

    static Outstanding Now();
};

bool operator==(const Outstanding& a, const Outstanding& b);
std::ostream& operator<<(std::ostream& out, const Outstanding& o);

} // namespace fakeusb
