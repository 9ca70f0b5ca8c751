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

// The host-to-phone direction of the accessory's bulk pipe. Host OUT URBs wait
// here until the phone reads: a phone that does not read leaves them pending,
// as a phone that NAKs does. With ReadRule::AsItComes one read takes one whole
// host transfer; with ReadRule::PhoneDriver a read takes packets until a short
// or zero-length one, or until its 16 KiB are full.
// Bus lock held for every call.
class BulkOutPipe {
public:
    using Reader = std::function<void(std::vector<uint8_t>)>;

    BulkOutPipe(UsbfsDevice& device, uint16_t maxPacket, PhoneOptions::ReadRule rule, size_t completionCap);

    void Submit(std::shared_ptr<Urb> urb);
    // The phone posts one read; `reader` gets its bytes when it ends.
    void Read(Reader reader);
    void Pump();

private:
    size_t Accepted(const Urb& urb) const;
    bool NeedsZeroPacket(const Urb& urb) const;
    bool HeadUrb();
    void Step();
    void DeliverWhole();
    void DeliverPackets();
    void EndRead();

    UsbfsDevice& device_;
    uint16_t maxPacket_;
    PhoneOptions::ReadRule rule_;
    size_t completionCap_;
    std::deque<std::shared_ptr<Urb>> writes_;
    Reader reader_;
    std::vector<uint8_t> read_;
    bool pumping_ = false;
};

} // namespace emuphone
