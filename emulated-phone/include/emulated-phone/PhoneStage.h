#pragma once

namespace emuphone {

// Where a phone is in its life, in the order a connection goes through them.
// A phone may skip stages (one already in accessory mode starts at
// AccessoryAttached) and HandshakeDone and HandshakeFailed exclude each other.
enum class PhoneStage {
    Attached,          // enumerated in normal mode
    VersionQueried,    // answered the protocol-version request (51)
    IdentityReceived,  // holds all six identity strings (52)
    StartRequested,    // acknowledged the start request (53)
    Detached,          // dropped off the bus to come back in accessory mode
    AccessoryAttached, // enumerated in accessory mode
    InterfaceClaimed,  // the host claimed the accessory interface
    HandshakeSent,     // a host read took the phone's handshake bytes
    HandshakeDone,     // the host's handshake matched
    HandshakeFailed,   // the host's handshake did not match
    Unplugged,         // gone for good
};

// The stage's name as the program's report and test messages print it.
const char* StageName(PhoneStage stage);

} // namespace emuphone
