// The libusb functions for asynchronous transfers. A submission is recorded
// and left in flight; the test (or its responder) decides how it ends, and the
// callback runs in the next libusb_handle_events_timeout.

#include <libusb.h>

#include <algorithm>
#include <cstdlib>

#include "fakeusb/World.h"

using fakeusb::ControlSetup;
using fakeusb::Function;
using fakeusb::Submission;
using namespace fakeusb::detail;

namespace {

using Phase = TransferState::Phase;

constexpr int kSetupSize = LIBUSB_CONTROL_SETUP_SIZE;

const char* TypeName(unsigned char type) {
    switch (type) {
    case LIBUSB_TRANSFER_TYPE_CONTROL:
        return "control";
    case LIBUSB_TRANSFER_TYPE_ISOCHRONOUS:
        return "isochronous";
    case LIBUSB_TRANSFER_TYPE_BULK:
        return "bulk";
    case LIBUSB_TRANSFER_TYPE_INTERRUPT:
        return "interrupt";
    default:
        return "other";
    }
}

bool HasSetup(const libusb_transfer& t) {
    return t.type == LIBUSB_TRANSFER_TYPE_CONTROL && t.buffer != nullptr && t.length >= kSetupSize;
}

ControlSetup DecodeSetup(const unsigned char* b) {
    return ControlSetup{b[0], b[1], static_cast<uint16_t>(b[2] | b[3] << 8), static_cast<uint16_t>(b[4] | b[5] << 8),
                        static_cast<uint16_t>(b[6] | b[7] << 8)};
}

std::string SubmitText(const World& w, const libusb_transfer& t) {
    std::string text = Format("libusb_submit_transfer(%s, 0x%02x, %s, ", w.NameOf(t.dev_handle).c_str(), t.endpoint,
                              TypeName(t.type));
    if (!HasSetup(t)) {
        return text + Format("%d)", t.length);
    }
    for (int i = 0; i < kSetupSize; i++) {
        text += Format(i == 0 ? "%02x" : " %02x", t.buffer[i]);
    }
    return text + ")";
}

bool EndpointClaimed(const libusb_device_handle* handle, unsigned char endpoint) {
    const std::vector<int>& claimed = handle->claimed;
    for (const fakeusb::Interface& alts : handle->device->physical->description.interfaces) {
        for (const fakeusb::AltSetting& alt : alts) {
            if (std::find(claimed.begin(), claimed.end(), alt.interfaceNumber) == claimed.end()) {
                continue;
            }
            for (const fakeusb::Endpoint& e : alt.endpoints) {
                if (e.address == endpoint) {
                    return true;
                }
            }
        }
    }
    return false;
}

// Why a submission is turned down, as libusb's result; 0 to accept it.
int Refusal(World& w, libusb_transfer* t, const TransferState& state) {
    int error = 0;
    if (w.Inject(Function::SubmitTransfer, &error)) {
        return error;
    }
    if (state.phase != Phase::Idle) {
        w.Misuse(Format("libusb_submit_transfer: transfer on endpoint 0x%02x submitted again while in flight",
                        t->endpoint));
        return LIBUSB_ERROR_BUSY;
    }
    if (!w.OpenHandle(t->dev_handle, "libusb_submit_transfer")) {
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    if (!t->dev_handle->device->physical->present) {
        return LIBUSB_ERROR_NO_DEVICE;
    }
    if (t->length < 0 || (t->length > 0 && t->buffer == nullptr)) {
        w.Misuse("libusb_submit_transfer: no buffer for the transfer's length");
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    if (t->type == LIBUSB_TRANSFER_TYPE_CONTROL &&
        (!HasSetup(*t) || t->length < kSetupSize + DecodeSetup(t->buffer).length)) {
        w.Misuse("libusb_submit_transfer: control transfer shorter than its setup packet says");
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    return 0;
}

Submission Describe(const libusb_transfer& t, int id) {
    const fakeusb::detail::PhysicalDevice& device = *t.dev_handle->device->physical;
    Submission s;
    s.id = id;
    s.deviceId = device.id;
    s.bus = device.description.bus;
    s.address = device.description.address;
    s.endpoint = t.endpoint;
    s.type = t.type;
    s.length = t.length;
    s.timeout = t.timeout;
    s.interfaceClaimed = t.type == LIBUSB_TRANSFER_TYPE_CONTROL || EndpointClaimed(t.dev_handle, t.endpoint);
    const unsigned char* payload = t.buffer;
    const unsigned char* end = t.buffer + t.length;
    if (s.IsControl()) {
        s.setup = DecodeSetup(t.buffer);
        payload += kSetupSize;
    }
    if (!s.IsIn()) {
        s.data.assign(payload, end);
    }
    return s;
}

} // namespace

extern "C" {

libusb_transfer* LIBUSB_CALL libusb_alloc_transfer(int iso_packets) {
    World& w = TheWorld();
    std::lock_guard<std::mutex> lock(w.mutex);
    int error = 0;
    if (w.Inject(Function::AllocTransfer, &error)) {
        return nullptr;
    }
    if (iso_packets < 0) {
        w.Misuse("libusb_alloc_transfer: negative number of isochronous packets");
        return nullptr;
    }
    // libusb zeroes new transfers, and the code under test may rely on it.
    size_t size = sizeof(libusb_transfer) + sizeof(libusb_iso_packet_descriptor) * static_cast<size_t>(iso_packets);
    auto* transfer = static_cast<libusb_transfer*>(calloc(1, size));
    if (transfer != nullptr) {
        transfer->num_iso_packets = iso_packets;
        w.transfers[transfer] = TransferState{};
    }
    return transfer;
}

void LIBUSB_CALL libusb_free_transfer(libusb_transfer* transfer) {
    if (transfer == nullptr) {
        return;
    }
    World& w = TheWorld();
    std::lock_guard<std::mutex> lock(w.mutex);
    auto it = w.transfers.find(transfer);
    if (it == w.transfers.end()) {
        w.Misuse("libusb_free_transfer: transfer freed twice or not from libusb_alloc_transfer");
        return;
    }
    if (it->second.phase != Phase::Idle) {
        // Kept allocated: its completion is still to come.
        w.Misuse(Format("libusb_free_transfer: transfer on endpoint 0x%02x freed while in flight", transfer->endpoint));
        return;
    }
    w.transfers.erase(it);
    free(transfer);
}

int LIBUSB_CALL libusb_submit_transfer(libusb_transfer* transfer) {
    World& w = TheWorld();
    std::unique_lock<std::mutex> lock(w.mutex);
    auto it = w.transfers.find(transfer);
    if (it == w.transfers.end()) {
        w.Misuse("libusb_submit_transfer: transfer not from libusb_alloc_transfer, or freed");
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    w.Record(SubmitText(w, *transfer));
    if (int refused = Refusal(w, transfer, it->second)) {
        return refused;
    }
    Submission s = Describe(*transfer, static_cast<int>(w.submissions.size()) + 1);
    w.submissions.push_back(s);
    TransferState& state = it->second;
    state.phase = Phase::InFlight;
    state.submissionId = s.id;
    state.handle = transfer->dev_handle;
    state.cancelled = Outcome{LIBUSB_TRANSFER_CANCELLED, 0, {}, 0};
    std::function<void(const Submission&)> responder = w.responder;
    lock.unlock();
    if (responder) {
        responder(s);
    }
    return 0;
}

int LIBUSB_CALL libusb_cancel_transfer(libusb_transfer* transfer) {
    World& w = TheWorld();
    std::lock_guard<std::mutex> lock(w.mutex);
    auto it = w.transfers.find(transfer);
    if (it == w.transfers.end()) {
        w.Misuse("libusb_cancel_transfer: transfer not from libusb_alloc_transfer, or freed");
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    w.Record(Format("libusb_cancel_transfer(%s, 0x%02x)", w.NameOf(transfer->dev_handle).c_str(), transfer->endpoint));
    int error = 0;
    if (w.Inject(Function::CancelTransfer, &error)) {
        return error;
    }
    if (it->second.phase != Phase::InFlight) {
        return LIBUSB_ERROR_NOT_FOUND; // never submitted, or already completed
    }
    w.Queue(transfer, it->second, it->second.cancelled);
    return 0;
}

} // extern "C"
