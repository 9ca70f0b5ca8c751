#include "BulkOutPipe.h"

#include "UsbfsDevice.h"

#include <algorithm>

namespace emuphone {
namespace {

// The phone's accessory driver moves at most 16 KiB per request, and its
// application's read queues one request per call.
constexpr size_t kPhoneReadSize = 16384;

} // namespace

BulkOutPipe::BulkOutPipe(UsbfsDevice& device, uint16_t maxPacket, PhoneOptions::ReadRule rule, size_t completionCap)
    : device_(device), maxPacket_(maxPacket), rule_(rule), completionCap_(completionCap)
{
}

void BulkOutPipe::Submit(std::shared_ptr<Urb> urb)
{
    writes_.push_back(std::move(urb));
    Pump();
}

void BulkOutPipe::Read(Reader reader)
{
    reader_ = std::move(reader);
    Pump();
}

// A reader may post the next read or write back; both come back here and are
// picked up by the loop already running.
void BulkOutPipe::Pump()
{
    if (pumping_)
        return;
    pumping_ = true;
    Step();
    pumping_ = false;
}

void BulkOutPipe::Step()
{
    while (reader_ && HeadUrb()) {
        if (rule_ == PhoneOptions::ReadRule::PhoneDriver)
            DeliverPackets();
        else
            DeliverWhole();
    }
}

bool BulkOutPipe::HeadUrb()
{
    while (!writes_.empty() && writes_.front()->state != Urb::State::InFlight)
        writes_.pop_front();
    return !writes_.empty();
}

// The whole transfer is one read, cut short when the phone accepts less of
// each transfer than the host sent.
void BulkOutPipe::DeliverWhole()
{
    std::shared_ptr<Urb> urb = writes_.front();
    writes_.pop_front();
    size_t n = Accepted(*urb);
    read_.assign(urb->buffer, urb->buffer + n);
    urb->actual = static_cast<int>(n);
    device_.Finish(urb, 0);
    EndRead();
}

// The bytes of a host transfer the phone accepts.
size_t BulkOutPipe::Accepted(const Urb& urb) const
{
    size_t length = static_cast<size_t>(urb.length);
    return completionCap_ > 0 ? std::min(length, completionCap_) : length;
}

// A transfer ends with a zero-length packet when it is empty, or when the host
// asked for one after a last packet that is full.
bool BulkOutPipe::NeedsZeroPacket(const Urb& urb) const
{
    size_t length = Accepted(urb);
    return length == 0 || ((urb.flags & USBDEVFS_URB_ZERO_PACKET) && length % maxPacket_ == 0);
}

void BulkOutPipe::DeliverPackets()
{
    std::shared_ptr<Urb> urb = writes_.front();
    size_t length = Accepted(*urb);
    size_t left = length - static_cast<size_t>(urb->actual);
    bool zeroPacket = left == 0 && !urb->zeroPacketSent && NeedsZeroPacket(*urb);
    if (left == 0 && !zeroPacket) {
        writes_.pop_front();
        device_.Finish(urb, 0);
        return;
    }
    size_t packet = std::min<size_t>(maxPacket_, left);
    read_.insert(read_.end(), urb->buffer + urb->actual, urb->buffer + urb->actual + packet);
    urb->actual += static_cast<int>(packet);
    urb->zeroPacketSent = urb->zeroPacketSent || zeroPacket;
    if (static_cast<size_t>(urb->actual) == length && (urb->zeroPacketSent || !NeedsZeroPacket(*urb))) {
        writes_.pop_front();
        device_.Finish(urb, 0);
    }
    if (packet < maxPacket_ || read_.size() >= kPhoneReadSize)
        EndRead();
}

void BulkOutPipe::EndRead()
{
    Reader reader = std::move(reader_);
    reader_ = nullptr;
    std::vector<uint8_t> bytes = std::move(read_);
    read_.clear();
    reader(std::move(bytes));
}

} // namespace emuphone
