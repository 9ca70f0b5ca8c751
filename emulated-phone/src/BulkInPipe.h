#pragma once

#include "Urb.h"

#include "emulated-phone/PhoneOptions.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <vector>

namespace emuphone {

class UsbfsDevice;

// The phone-to-host direction of the accessory's bulk pipe: the phone's writes
// wait here until host IN URBs take them. With ReadRule::AsItComes each write
// ends a host read; with ReadRule::PhoneDriver the bytes travel as packets, a
// host read ends on a short or zero-length packet or when full, and a write
// whose last packet is full is followed by a zero-length packet.
// Bus lock held for every call.
class BulkInPipe {
public:
    BulkInPipe(UsbfsDevice& device, uint16_t maxPacket, PhoneOptions::ReadRule rule);

    void Submit(std::shared_ptr<Urb> urb);
    // `done` runs once the host has taken every byte (and packet) of the write.
    void Write(std::vector<uint8_t> bytes, std::function<void()> done);
    // Endpoint halt lifted, or anything else after which queued writes may move.
    void Pump();

private:
    struct PendingWrite {
        std::vector<uint8_t> bytes;
        size_t offset = 0;
        bool zeroPacketDue = false;
        std::function<void()> done;
        bool Taken() const { return offset == bytes.size() && !zeroPacketDue; }
    };

    bool FillWhole(Urb& urb, PendingWrite& write, int& status);
    bool FillPackets(Urb& urb, PendingWrite& write, int& status);
    void Step();

    UsbfsDevice& device_;
    uint16_t maxPacket_;
    PhoneOptions::ReadRule rule_;
    std::deque<std::shared_ptr<Urb>> reads_;
    std::deque<PendingWrite> writes_;
    bool pumping_ = false;
};

} // namespace emuphone
