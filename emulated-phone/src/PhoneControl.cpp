#include "PhoneControl.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace emuphone {
namespace {

// The accessory protocol's vendor requests.
constexpr uint8_t kGetProtocol = 51;
constexpr uint8_t kSendString = 52;
constexpr uint8_t kStart = 53;
// The phone keeps 255 bytes of an identity string and adds its own NUL.
constexpr size_t kIdentityStringMax = 255;

PhoneControl::Answer Stall()
{
    PhoneControl::Answer answer;
    answer.status = -EPIPE;
    return answer;
}

PhoneControl::Answer Reply(std::vector<uint8_t> bytes, uint16_t wLength)
{
    PhoneControl::Answer answer;
    bytes.resize(std::min<size_t>(bytes.size(), wLength));
    answer.reply = std::move(bytes);
    return answer;
}

} // namespace

PhoneControl::PhoneControl(const PhoneOptions& options) : options_(options), faults_(options.controlFaults) {}

PhoneControl::Answer PhoneControl::Handle(const usb_ctrlrequest& setup, const uint8_t* data,
                                          const DeviceLayout& layout, int configuration)
{
    switch (setup.bRequestType & USB_TYPE_MASK) {
    case USB_TYPE_STANDARD: return Standard(setup, layout, configuration);
    case USB_TYPE_VENDOR: return Vendor(setup, data);
    default: return Stall();
    }
}

PhoneControl::Answer PhoneControl::Standard(const usb_ctrlrequest& setup, const DeviceLayout& layout,
                                            int configuration)
{
    bool in = setup.bRequestType & USB_DIR_IN;
    switch (setup.bRequest) {
    case USB_REQ_GET_DESCRIPTOR: return in ? GetDescriptor(setup, layout) : Stall();
    case USB_REQ_GET_STATUS: return in ? Reply({0, 0}, setup.wLength) : Stall();
    case USB_REQ_GET_CONFIGURATION: return in ? Reply({static_cast<uint8_t>(configuration)}, setup.wLength) : Stall();
    case USB_REQ_SET_FEATURE:
    case USB_REQ_CLEAR_FEATURE:
    case USB_REQ_SET_INTERFACE: return in ? Stall() : Answer{};
    default: return Stall();
    }
}

PhoneControl::Answer PhoneControl::GetDescriptor(const usb_ctrlrequest& setup, const DeviceLayout& layout)
{
    uint8_t type = static_cast<uint8_t>(setup.wValue >> 8);
    uint8_t index = static_cast<uint8_t>(setup.wValue & 0xFF);
    switch (type) {
    case USB_DT_DEVICE: return Reply(layout.DeviceDescriptor(), setup.wLength);
    case USB_DT_CONFIG: return index == 0 ? Reply(layout.ConfigurationDescriptor(), setup.wLength) : Stall();
    case USB_DT_STRING: {
        std::optional<std::vector<uint8_t>> text = layout.StringDescriptor(index);
        return text ? Reply(std::move(*text), setup.wLength) : Stall();
    }
    default: return Stall();
    }
}

PhoneControl::Answer PhoneControl::Vendor(const usb_ctrlrequest& setup, const uint8_t* data)
{
    Answer answer;
    if (Faulted(setup.bRequest, answer))
        return answer;
    bool in = setup.bRequestType & USB_DIR_IN;
    if (setup.bRequest == kGetProtocol && in)
        return VersionQuery(setup.wLength);
    if (setup.bRequest == kSendString && !in)
        return IdentityString(setup, data);
    if (setup.bRequest == kStart && !in) {
        ++startRequests_;
        answer.event = Event::StartRequested;
        return answer;
    }
    return Stall();
}

// A phone forgets the strings of an earlier attempt when asked for its version.
PhoneControl::Answer PhoneControl::VersionQuery(uint16_t wLength)
{
    ++versionQueries_;
    identity_ = {};
    uint8_t version[2] = {static_cast<uint8_t>(options_.protocolVersion & 0xFF),
                          static_cast<uint8_t>(options_.protocolVersion >> 8)};
    size_t length = static_cast<size_t>(std::clamp(options_.versionReplyLength, 0, 2));
    Answer answer = Reply(std::vector<uint8_t>(version, version + length), wLength);
    answer.event = Event::VersionQueried;
    return answer;
}

PhoneControl::Answer PhoneControl::IdentityString(const usb_ctrlrequest& setup, const uint8_t* data)
{
    ++identityRequests_;
    if (setup.wIndex >= identity_.size())
        return Stall();
    size_t length = std::min<size_t>(setup.wLength, kIdentityStringMax);
    const char* text = reinterpret_cast<const char*>(data);
    identity_[setup.wIndex] = std::string(text, strnlen(text, length));
    Answer answer;
    bool complete = std::all_of(identity_.begin(), identity_.end(), [](const auto& s) { return s.has_value(); });
    if (complete)
        answer.event = Event::IdentityComplete;
    return answer;
}

bool PhoneControl::Faulted(uint8_t request, Answer& answer)
{
    for (PhoneOptions::ControlFault& fault : faults_) {
        if (fault.request != request || fault.count <= 0)
            continue;
        --fault.count;
        answer.status = fault.urbStatus;
        answer.hold = fault.urbStatus == 0;
        return true;
    }
    return false;
}

} // namespace emuphone
