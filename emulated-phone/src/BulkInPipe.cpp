#include "BulkInPipe.h"

#include "UsbfsDevice.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace emuphone {

BulkInPipe::BulkInPipe(UsbfsDevice& device, uint16_t maxPacket, PhoneOptions::ReadRule rule)
    : device_(device), maxPacket_(maxPacket), rule_(rule)
{
}

void BulkInPipe::Submit(std::shared_ptr<Urb> urb)
{
    reads_.push_back(std::move(urb));
    Pump();
}

void BulkInPipe::Write(std::vector<uint8_t> bytes, std::function<void()> done)
{
    PendingWrite write;
    write.zeroPacketDue = rule_ == PhoneOptions::ReadRule::PhoneDriver
                              ? bytes.size() % maxPacket_ == 0
                              : bytes.empty();
    write.bytes = std::move(bytes);
    write.done = std::move(done);
    writes_.push_back(std::move(write));
    Pump();
}

// A write's `done` may write again or make the phone read; both come back here
// and are picked up by the loop already running.
void BulkInPipe::Pump()
{
    if (pumping_)
        return;
    pumping_ = true;
    Step();
    pumping_ = false;
}

void BulkInPipe::Step()
{
    while (!writes_.empty()) {
        while (!reads_.empty() && reads_.front()->state != Urb::State::InFlight)
            reads_.pop_front();
        if (reads_.empty())
            return;
        std::shared_ptr<Urb> urb = reads_.front();
        int status = 0;
        bool ended = rule_ == PhoneOptions::ReadRule::PhoneDriver ? FillPackets(*urb, writes_.front(), status)
                                                                  : FillWhole(*urb, writes_.front(), status);
        if (writes_.front().Taken()) {
            std::function<void()> done = std::move(writes_.front().done);
            writes_.pop_front();
            if (done)
                done();
        }
        if (ended) {
            reads_.pop_front();
            device_.Finish(urb, status);
        }
    }
}

// One write ends the host read that takes its last byte; a write longer than
// the read continues into the next one.
bool BulkInPipe::FillWhole(Urb& urb, PendingWrite& write, int& status)
{
    size_t room = static_cast<size_t>(urb.length - urb.actual);
    size_t left = write.bytes.size() - write.offset;
    if (room == 0 && left > 0) {
        status = -EOVERFLOW;
        return true;
    }
    size_t n = std::min(room, left);
    std::copy_n(write.bytes.begin() + static_cast<long>(write.offset), n, urb.buffer + urb.actual);
    urb.actual += static_cast<int>(n);
    write.offset += n;
    write.zeroPacketDue = false;
    return write.offset == write.bytes.size() || urb.actual == urb.length;
}

// Packet by packet: a full packet leaves the host read open, a short or empty
// one ends it, and a packet larger than the room left is babble (-EOVERFLOW).
bool BulkInPipe::FillPackets(Urb& urb, PendingWrite& write, int& status)
{
    while (!write.Taken()) {
        size_t packet = std::min<size_t>(maxPacket_, write.bytes.size() - write.offset);
        if (packet == 0)
            write.zeroPacketDue = false;
        size_t room = static_cast<size_t>(urb.length - urb.actual);
        size_t n = std::min(packet, room);
        std::copy_n(write.bytes.begin() + static_cast<long>(write.offset), n, urb.buffer + urb.actual);
        urb.actual += static_cast<int>(n);
        write.offset += packet;
        if (packet > room) {
            status = -EOVERFLOW;
            return true;
        }
        if (packet < maxPacket_ || urb.actual == urb.length)
            return true;
    }
    return false;
}

} // namespace emuphone
