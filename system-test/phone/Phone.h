#pragma once

#include <memory>
#include <string>

#include "AccessoryFunction.h"
#include "EchoApp.h"
#include "Gadget.h"

// One phone on the device controller: in normal mode it takes the accessory
// requests and comes back as an accessory, as Android does; in accessory mode
// its application echoes. SIGUSR1 pulls its cable, SIGTERM ends it.
class Phone {
public:
    struct Options {
        std::string name = "phone";
        std::string serial = "FFS0001";
        bool accessoryMode = false;
        bool debugBridgeFirst = false;
    };

    explicit Phone(const Options& options);
    // Plugs the phone in and serves it until SIGTERM or SIGINT; signalFd is a
    // signalfd for SIGUSR1, SIGTERM and SIGINT. Returns the exit status.
    int Run(int signalFd);

private:
    bool OnSignal(int signalFd);
    void OnSetup(const usb_ctrlrequest& setup);
    void SwitchToAccessory();
    size_t PacketSize() const;

    Options options_;
    bool accessory_;
    bool switchWanted_ = false;
    Gadget gadget_;
    AccessoryFunction function_;
    EchoApp app_;
};
