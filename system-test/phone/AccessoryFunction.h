#pragma once

#include <linux/usb/ch9.h>

#include <cstdint>
#include <deque>
#include <string>

// The phone's USB function on FunctionFS: the accessory interface (bulk IN and
// OUT, as Android's accessory function declares them) and the debug bridge's
// interface, before or after it. Vendor requests to the device come to ep0 too,
// as they do to a phone's accessory function.
class AccessoryFunction {
public:
    struct Event {
        enum class Type { Enable, Disable, Unbind, Setup, Other } type;
        usb_ctrlrequest setup; // valid for Setup
    };

    // Mounts the instance at mountPoint and writes its descriptors and strings.
    AccessoryFunction(const std::string& instance, const std::string& mountPoint, bool debugBridgeFirst);
    ~AccessoryFunction();
    AccessoryFunction(const AccessoryFunction&) = delete;
    AccessoryFunction& operator=(const AccessoryFunction&) = delete;

    // Readable when events wait.
    int ControlFd() const { return ep0_; }
    // The next event; blocks when none waits. False when ep0 failed.
    bool NextEvent(Event& event);

    // The data stage of a device-to-host request.
    bool Answer(const void* data, size_t length);
    // The data stage of a host-to-device request (length 0: its status stage only).
    bool Take(std::string& data, size_t length);
    // Refuses a request: ep0 I/O against the request's direction stalls it.
    void Refuse(const usb_ctrlrequest& setup);

    int BulkIn() const { return in_; }
    int BulkOut() const { return out_; }

private:
    void WriteDescriptors(bool debugBridgeFirst);
    void WriteStrings();
    int OpenEndpoint(int number);

    std::string mountPoint_;
    int ep0_ = -1;
    int in_ = -1;
    int out_ = -1;
    std::deque<Event> pending_;
};
