// The libusb functions for asynchronous transfers. A submission is recorded
// and left in flight; the test (or its responder) decides how it ends, and the
// callback runs in the next libusb_handle_events_timeout.

#include <libusb.h>

#include <cstdlib>

#include "fakeusb/World.h"

using fakeusb::Function;
using fakeusb::Submission;
using namespace fakeusb::detail;

namespace {

using Phase = TransferState::Phase;

// The call's arguments as recorded: endpoint, then the setup packet of a
// control transfer or the length of any other.
std::string SubmitArgs(const libusb_transfer& t) {
    std::string args = Format(", 0x%02x, ", t.endpoint);
    if (t.type != LIBUSB_TRANSFER_TYPE_CONTROL) {
        return args + std::to_string(t.length);
    }
    args += "control,";
    for (size_t i = 0; i < LIBUSB_CONTROL_SETUP_SIZE; i++) {
        args += Format(" %02x", t.buffer[i]);
    }
    return args;
}

Submission Describe(const libusb_transfer& t, int id) {
    const libusb_device_handle& handle = *t.dev_handle;
    const fakeusb::detail::PhysicalDevice& device = *handle.device->physical;
    Submission s;
    s.id = id;
    s.deviceId = device.id;
    s.endpoint = t.endpoint;
    s.type = t.type;
    s.length = t.length;
    s.timeout = t.timeout;
    s.flags = t.flags;
    s.interfaceClaimed = s.IsControl() || device.description.FindEndpoint(t.endpoint, &handle.claimed) != nullptr;
    const unsigned char* payload = t.buffer;
    const unsigned char* end = t.buffer + t.length;
    if (s.IsControl()) {
        s.setup = Submission::Setup{t.buffer[0], t.buffer[1]};
        payload += LIBUSB_CONTROL_SETUP_SIZE;
    }
    if (!s.IsIn()) {
        s.data.assign(payload, end);
    }
    return s;
}

} // namespace

extern "C" {

// libusb zeroes new transfers, and the code under test may rely on it.
libusb_transfer* LIBUSB_CALL libusb_alloc_transfer(int iso_packets) {
    return Locked([&](World& w) -> libusb_transfer* {
        if (w.Inject(Function::AllocTransfer)) {
            return nullptr;
        }
        size_t size = sizeof(libusb_transfer) + sizeof(libusb_iso_packet_descriptor) * static_cast<size_t>(iso_packets);
        auto* transfer = static_cast<libusb_transfer*>(calloc(1, size));
        transfer->num_iso_packets = iso_packets;
        w.transfers[transfer] = TransferState{};
        return transfer;
    });
}

void LIBUSB_CALL libusb_free_transfer(libusb_transfer* transfer) {
    Locked([&](World& w) {
        auto it = w.transfers.find(transfer);
        if (transfer == nullptr) {
            return;
        } else if (it == w.transfers.end()) {
            w.Misuse("libusb_free_transfer: transfer freed twice or not from libusb_alloc_transfer");
        } else if (it->second.phase != Phase::Idle) { // kept allocated: its completion is still to come
            w.Misuse(Format("libusb_free_transfer: transfer on endpoint 0x%02x freed while in flight",
                            transfer->endpoint));
        } else {
            w.transfers.erase(it);
            free(transfer);
        }
    });
}

int LIBUSB_CALL libusb_submit_transfer(libusb_transfer* transfer) {
    World& w = TheWorld();
    std::unique_lock<std::mutex> lock(w.mutex);
    auto it = w.transfers.find(transfer);
    if (it == w.transfers.end()) {
        w.Misuse("libusb_submit_transfer: transfer not from libusb_alloc_transfer, or freed");
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    TransferState& state = it->second;
    if (state.phase != Phase::Idle) {
        w.Misuse(Format("libusb_submit_transfer: transfer on endpoint 0x%02x submitted again while in flight",
                        transfer->endpoint));
        return LIBUSB_ERROR_BUSY;
    }
    if (std::optional<int> refused = w.Enter("libusb_submit_transfer", transfer->dev_handle,
                                             SubmitArgs(*transfer), Function::SubmitTransfer)) {
        return *refused;
    }
    Submission s = Describe(*transfer, static_cast<int>(w.submissions.size()) + 1);
    w.submissions.push_back(s);
    const Outcome cancelled{LIBUSB_TRANSFER_CANCELLED, 0, {}, 0};
    state = TransferState{Phase::InFlight, s.id, transfer->dev_handle, {}, cancelled};
    std::function<void(const Submission&)> responder = w.responder;
    lock.unlock();
    if (responder) {
        responder(s);
    }
    return 0;
}

int LIBUSB_CALL libusb_cancel_transfer(libusb_transfer* transfer) {
    return Locked([&](World& w) -> int {
        auto it = w.transfers.find(transfer);
        if (it == w.transfers.end()) {
            w.Misuse("libusb_cancel_transfer: transfer not from libusb_alloc_transfer, or freed");
            return LIBUSB_ERROR_INVALID_PARAM;
        }
        w.calls.push_back(Format("libusb_cancel_transfer(%s, 0x%02x)", World::NameOf(transfer->dev_handle).c_str(),
                                 transfer->endpoint));
        if (std::optional<int> error = w.Inject(Function::CancelTransfer)) {
            return *error;
        }
        if (it->second.phase != Phase::InFlight) {
            return LIBUSB_ERROR_NOT_FOUND; // never submitted, or already completed
        }
        w.Queue(transfer, it->second, it->second.cancelled);
        return 0;
    });
}

} // extern "C"
