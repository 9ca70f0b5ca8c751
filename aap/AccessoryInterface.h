#pragma once

#include <libusb.h>

#include <cstdint>

// The interface, alternate setting and bulk endpoint pair a connection uses
// on a phone in accessory mode. A pure function of the configuration
// descriptor and what the command string asked for: no device, no I/O.
class AccessoryInterface {
public:
    enum class Outcome {
        kChosen,
        kNoInterfaces,        // the configuration lists none
        kTooFewEndpoints,     // the first interface's first setting has fewer than two
        kNoSuitableInterface, // nothing matches what was asked, or nothing but the debug bridge
        kNoBulkPair,          // the asked-for interface lacks a bulk IN or a bulk OUT endpoint
    };

    // wantedInterface and wantedAlternate are -1 when the command string leaves
    // them open. Left open, the lowest-numbered interface that is not the debug
    // bridge and has a bulk IN and a bulk OUT endpoint wins. Asked for, the
    // first setting with that number is taken and must have the pair. Either
    // way the first bulk endpoint of each direction, in descriptor order, is
    // used. Fields other than outcome are set only when it is kChosen, except
    // number, which kNoBulkPair sets for its message.
    static AccessoryInterface Choose(const libusb_config_descriptor& config, int wantedInterface,
                                     int wantedAlternate);

    Outcome outcome = Outcome::kNoSuitableInterface;
    int number = -1;
    int alternateSetting = -1;
    uint8_t inEndpoint = 0;
    uint8_t outEndpoint = 0;
};
