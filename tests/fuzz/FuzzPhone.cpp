#include "fuzz/FuzzPhone.h"

#include <algorithm>
#include <cstring>

using fakeusb::DeviceSpec;
using fakeusb::Submission;
using fakeusb::Transfers;

namespace {

const std::vector<uint8_t> kDeviceHandshake{0xFF, 0xFF, 0x00, 0x00, 0x0A, 0x0A, 'D', 'E', 'V'};
const std::vector<uint8_t> kHostHandshake{0xFF, 0xFF, 0x00, 0x00, 0x0A, 0x0A, 'H', 'O', 'S', 'T'};
// More passes in one toolkit call is a drain waiting for a transfer whose
// cancellation failed: the device then ends it, as a real one would.
constexpr int kPassesBeforeDeviceGives = 2;

// libusb's seven: cancelled too, as when the kernel kills a transfer unasked.
int Status(FuzzInput& in) { return in.U8() % 7; }

// Never 0xFF, so the phone's data never looks like its handshake by chance.
uint8_t PhoneByte(size_t position) { return static_cast<uint8_t>((position * 13 + 5) % 251); }

// kind modulo 4: 1 an accessory with the debug bridge, 2 one without, else a
// phone before the switch. Flags: 4 serial unreadable; from the input, 8 ids,
// 16 configuration and kernel driver, 32 ports, 64 interfaces.
DeviceSpec ReadDevice(FuzzInput& in) {
    const uint8_t kind = in.U8();
    const uint8_t bus = in.U8();
    const uint8_t address = in.U8();
    const std::string serial = in.Text();
    DeviceSpec d = kind % 4 == 1 || kind % 4 == 2 ? fakeusb::AccessoryPhone(bus, address, serial, kind % 4 == 1)
                                                  : fakeusb::AndroidPhone(bus, address, serial);
    if (kind & 4) {
        d.strings.erase(DeviceSpec::kSerialIndex);
    }
    if (kind & 8) {
        d.descriptor.idVendor = in.U16();
        d.descriptor.idProduct = in.U16();
        d.descriptor.iSerialNumber = in.U8();
    }
    if (kind & 16) {
        d.configuration = in.U8() & 1;
        const uint8_t k = in.U8(); // none, one, status not supported, or a libusb error
        d.kernelDriverActive = k % 4 < 2 ? k % 4 : k % 4 == 2 ? LIBUSB_ERROR_NOT_SUPPORTED : -(k / 4 % 12 + 1);
    }
    if (kind & 32) {
        d.ports = in.Bytes(in.U8() % 9);
    }
    if (kind & 64) {
        d.interfaces.resize(in.U8() % 5);
        for (fakeusb::Interface& alts : d.interfaces) {
            alts.resize(in.U8() % 4);
            for (fakeusb::AltSetting& alt : alts) {
                alt = {in.U8(), in.U8(), in.U8(), in.U8(), in.U8(), std::vector<fakeusb::Endpoint>(in.U8() % 5)};
                for (fakeusb::Endpoint& e : alt.endpoints) {
                    e = {in.U8(), in.U16(), static_cast<uint8_t>(in.U8() % 4)};
                }
            }
        }
    }
    return d;
}

} // namespace

FuzzPhone::FuzzPhone() : expected(kHostHandshake) {
    fakeusb::Reset();
    fakeusb::Events::AnnounceDeviceDescriptors();
    Transfers::SetResponder([this](const Submission& s) {
        bulkSeen = bulkSeen || !s.IsControl();
        if (!s.IsControl() && !s.IsIn()) {
            Match();
            newWrite = s.data;
        }
    });
    fakeusb::Events::SetHandleEventsHook([this] {
        if (++eventPasses > kPassesBeforeDeviceGives) {
            for (const Submission& s : Transfers::InFlight()) {
                Transfers::Complete(s.id, LIBUSB_TRANSFER_NO_DEVICE);
            }
        }
    });
}

void FuzzPhone::Plug(FuzzInput& in) { plugged.push_back(fakeusb::Bus::Add(ReadDevice(in))); }

void FuzzPhone::Unplug(FuzzInput& in) {
    const uint8_t pick = in.U8();
    if (!plugged.empty()) {
        changes++;
        auto it = plugged.begin() + pick % plugged.size();
        fakeusb::Bus::Unplug(*it);
        plugged.erase(it);
    }
}

// The oldest such transfer in flight, which the phone is about to end.
std::optional<Submission> FuzzPhone::Ending(bool control, bool in) {
    for (const Submission& s : Transfers::InFlight()) {
        if (s.IsControl() == control && (control || s.IsIn() == in)) {
            changes++;
            return s;
        }
    }
    return std::nullopt;
}

// A reply of two bytes is the protocol version; fewer is a short one.
void FuzzPhone::Answer(FuzzInput& in) {
    const int status = Status(in);
    const std::vector<uint8_t> reply = in.Bytes(in.U8() % 3);
    if (std::optional<Submission> s = Ending(true, false)) {
        Transfers::Complete(s->id, status, s->IsIn() ? reply : std::vector<uint8_t>{});
        switchAccepted = switchAccepted || (s->setup.request == 53 && status == LIBUSB_TRANSFER_COMPLETED);
    }
}

// A device fills an endpoint's reads in the order they were queued.
void FuzzPhone::Send(FuzzInput& in) {
    const int status = Status(in);
    const uint8_t mode = in.U8();
    std::vector<uint8_t> chunk = mode & 1 ? kDeviceHandshake : std::vector<uint8_t>{};
    const std::vector<uint8_t> literal = in.Bytes(mode & 2 ? in.U8() % 33 : 0);
    chunk.insert(chunk.end(), literal.begin(), literal.end());
    const size_t length = mode & 2 ? 0 : in.U16();
    if (std::optional<Submission> s = Ending(false, true)) {
        while (chunk.size() < std::min<size_t>(length, static_cast<size_t>(s->length))) {
            chunk.push_back(PhoneByte(sent.size() + chunk.size()));
        }
        chunk.resize(std::min<size_t>(chunk.size(), static_cast<size_t>(s->length)));
        Transfers::Complete(s->id, status, chunk);
        if (!chunk.empty()) {
            lastChunk = static_cast<long>(sent.size());
            sent.insert(sent.end(), chunk.begin(), chunk.end());
        }
    }
}

// partial with bit 15: the phone took (partial & 0x7FFF) modulo length + 1
// bytes; otherwise all when completed, none when not.
void FuzzPhone::Take(FuzzInput& in) {
    const int status = Status(in);
    const uint16_t partial = in.U16();
    if (std::optional<Submission> s = Ending(false, false)) {
        const size_t length = s->data.size();
        const size_t taken = partial & 0x8000 ? (partial & 0x7FFF) % (length + 1)
                             : status == LIBUSB_TRANSFER_COMPLETED ? length : 0;
        Transfers::Complete(s->id, status, {}, static_cast<int>(taken));
        Check(received + taken <= expected.size() &&
                  std::equal(s->data.begin(), s->data.begin() + static_cast<long>(taken), expected.begin() + static_cast<long>(received)),
              "the phone receives the host handshake, then the toolkit's accepted writes, in order");
        received += taken;
    }
}

// Errors -1 to -12, and -99 for the thirteenth.
void FuzzPhone::Fail(FuzzInput& in) {
    const auto function = static_cast<fakeusb::Function>(in.U8() % 17);
    const int code = in.U8() % 13 + 1;
    fakeusb::Failures::Fail(function, code == 13 ? LIBUSB_ERROR_OTHER : -code, in.U8() % 16);
}

// 0 clears; bit 15 asks for about an hour per unit; else milliseconds.
void FuzzPhone::SetTimeout(FuzzInput& in) {
    const uint16_t ms = in.U16();
    if (ms == 0) {
        fakeusb::Events::ClearNextTimeout();
    } else {
        fakeusb::Events::SetNextTimeout(ms & 0x8000 ? ms * 3600L : ms / 1000, ms & 0x8000 ? 0 : ms % 1000 * 1000);
    }
}

// The chunk the plug-in took for the phone's handshake is the latest: while
// it waits for one it has a single read out.
void FuzzPhone::Match() {
    if (!Matched()) {
        Check(lastChunk >= 0 && sent.size() - static_cast<size_t>(lastChunk) >= kDeviceHandshake.size() &&
                  std::equal(kDeviceHandshake.begin(), kDeviceHandshake.end(), sent.begin() + lastChunk),
              "the host answers, and hands bytes to the toolkit, only after the phone's handshake");
        streamStart = lastChunk + static_cast<long>(kDeviceHandshake.size());
        read = static_cast<size_t>(streamStart);
    }
}

void FuzzPhone::Delivered(const uint8_t* bytes, uint32_t count) {
    Match();
    Check(read + count <= sent.size() && std::memcmp(bytes, sent.data() + read, count) == 0,
          "the toolkit receives the bytes the phone sent after its handshake, in order, once");
    read += count;
}

std::vector<uint8_t> FuzzPhone::WriteBytes(uint32_t count) const {
    std::vector<uint8_t> bytes(count);
    for (uint32_t i = 0; i < count; i++) {
        bytes[i] = static_cast<uint8_t>((expected.size() + i) * 7 + 1);
    }
    return bytes;
}
