#pragma once

#include "emulated-phone/LinkModel.h"
#include "emulated-phone/PhoneStage.h"

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace emuphone {

// Everything a test can choose about one phone. The defaults describe a phone
// that does what a well-behaved Android phone does, quickly.
struct PhoneOptions {
    // What the phone's application does with the stream once the handshakes match.
    enum class Application {
        Echo,   // writes back every read, then reads again
        Sink,   // counts and hashes what it reads
        Source, // writes StreamPattern bytes as fast as the host reads them
    };

    // How host transfers become the application's reads, and its writes host reads.
    enum class ReadRule {
        // Each host OUT transfer is one read; each phone write ends one host read.
        AsItComes,
        // A phone's: reads of up to 16 KiB that end only on a short or zero-length
        // packet; writes followed by a zero-length packet when their last packet
        // is full; host reads end on a short packet or when full.
        PhoneDriver,
    };

    enum class Endpoint { None, In, Out };

    // Makes ep0 fail a vendor request: `count` times, complete it with urbStatus
    // (a negative errno such as -EPROTO or -EPIPE), or with 0 never answer it.
    struct ControlFault {
        uint8_t request = 0;
        int count = 1;
        int urbStatus = -EPROTO;
    };

    // pid.codes' test id: free for anyone to use on devices that never ship.
    uint16_t vendorId = 0x1209;
    uint16_t productId = 0x0001;
    std::optional<std::string> serial = std::string("EMULATED0001"); // nullopt: none
    std::string manufacturer = "Emphone";
    std::string product = "Emulated Phone";
    int port = 0; // root-hub port; 0 takes the next free one

    uint16_t protocolVersion = 2;   // answer to request 51
    int versionReplyLength = 2;     // bytes in that answer; 1 makes it short
    bool startInAccessoryMode = false;
    bool debugBridge = true;        // accessory mode then reports 0x2D01, else 0x2D00
    bool debugBridgeFirst = false;  // list the debug-bridge interface before the accessory's
    bool outEndpointFirst = false;  // list the accessory's OUT endpoint before its IN
    bool accessoryUnconfigured = false; // come back in accessory mode with no configuration set
    bool superSpeed = false;        // 1024-byte bulk packets and speed 5000
    std::vector<ControlFault> controlFaults;

    std::chrono::milliseconds dropDelay{30};   // start request acknowledged -> gone
    std::chrono::milliseconds returnDelay{35}; // gone -> back in accessory mode; negative: never

    Application application = Application::Echo;
    ReadRule readRule = ReadRule::PhoneDriver;
    std::vector<uint8_t> handshake = {0xFF, 0xFF, 0x00, 0x00, 0x0A, 0x0A, 0x44, 0x45, 0x56};
    bool sendHandshake = true;
    std::chrono::milliseconds handshakeDelay{0}; // after the accessory interface is claimed
    size_t handshakeChunk = 0;           // split the handshake into writes of this size; 0: one
    int zeroLengthBeforeHandshake = 0;   // empty writes the phone makes first
    size_t writeChunk = 0;               // split application writes likewise; 0: whole
    uint64_t sourceBytes = 0;            // Source stops after this many; 0: never
    size_t sourceChunk = 16384;
    size_t outCompletionCap = 0;         // accept at most this much of each host OUT transfer; 0: all

    // Halts an accessory endpoint once the phone has reached stallAt and received
    // stallAfterBytes application bytes; CLEAR_HALT lifts it.
    Endpoint stallEndpoint = Endpoint::None;
    PhoneStage stallAt = PhoneStage::HandshakeDone;
    uint64_t stallAfterBytes = 0;

    // Pulls the cable once the phone has reached *unplugAt and received
    // unplugAfterBytes application bytes. Transfers in flight end with unplugStatus.
    std::optional<PhoneStage> unplugAt;
    uint64_t unplugAfterBytes = 0;
    int unplugStatus = -ESHUTDOWN; // what the kernel reports; a real bus also shows -EPROTO

    LinkModel link;
};

} // namespace emuphone
