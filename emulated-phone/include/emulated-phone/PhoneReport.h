#pragma once

#include "emulated-phone/PhoneStage.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace emuphone {

// What a phone has seen so far; a copy, taken under the bus lock.
struct PhoneReport {
    // The accessory identity strings, in the order of request 52's wIndex.
    static constexpr size_t kIdentityStrings = 6;

    PhoneStage stage = PhoneStage::Attached;
    uint32_t reached = 0; // bit per PhoneStage
    bool Reached(PhoneStage s) const { return reached & (1u << static_cast<int>(s)); }

    int busNumber = 0;
    int normalAddress = 0;    // 0 when never enumerated in normal mode
    int accessoryAddress = 0; // 0 until enumerated in accessory mode
    std::optional<std::string> serial;

    int versionQueries = 0;
    int identityRequests = 0;
    int startRequests = 0;
    int heldRequests = 0; // vendor requests a fault leaves unanswered (not counted above)
    std::array<std::optional<std::string>, kIdentityStrings> identity;

    std::vector<uint8_t> hostHandshake; // the first bytes the host wrote, as compared
    uint64_t bytesFromHost = 0;         // application bytes after the handshake
    uint64_t bytesToHost = 0;
    uint64_t hashFromHost = 0;          // StreamPattern::Hash of bytesFromHost
    uint64_t transfersFromHost = 0;     // completed bulk OUT transfers on the accessory interface
    uint64_t transfersToHost = 0;       // completed bulk IN transfers there
    uint64_t zeroLengthToHost = 0;      // of those, how many carried nothing

    int unclaimedSubmissions = 0; // usbfs would log "did not claim interface before use"
    int discardedTransfers = 0;
    int stalledTransfers = 0;
    std::vector<std::string> notes;     // what a kernel log would say about the host
};

} // namespace emuphone
