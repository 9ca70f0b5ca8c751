#pragma once

#include <cstdint>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <memory>

namespace emuphone {

// One usbfs URB from SUBMITURB until the client reaps it or closes its file.
struct Urb {
    enum class State {
        InFlight,  // queued on its endpoint
        Finishing, // done on the wire; the completion is on its way to the host
        Completed, // reapable
        Gone,      // reaped, or dropped with its file
    };

    uint64_t file = 0;            // the open file that submitted it
    uintptr_t clientAddress = 0;  // the URB as the client knows it; DISCARDURB names it so
    usbdevfs_urb* view = nullptr; // where status and length go back at reap
    uint8_t* buffer = nullptr;    // the transfer's bytes, reachable here
    std::shared_ptr<void> token;  // keeps a transport's copies alive until reaped

    uint8_t endpoint = 0;
    uint8_t type = 0;
    unsigned int flags = 0;
    int length = 0;

    State state = State::InFlight;
    int status = 0;
    int actual = 0;               // bytes moved so far
    bool zeroPacketSent = false;  // an OUT transfer's trailing zero-length packet was taken

    bool IsIn() const { return (endpoint & 0x80) != 0; }
};

} // namespace emuphone
