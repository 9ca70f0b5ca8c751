#include "fakeusb/Transfers.h"

#include "fakeusb/World.h"

namespace fakeusb {

using namespace detail;

namespace {

// The transfer now in flight under submission `id`, or null.
libusb_transfer* FindInFlight(World& w, int id) {
    for (auto& [transfer, state] : w.transfers) {
        if (state.submissionId == id && state.phase == TransferState::Phase::InFlight) {
            return transfer;
        }
    }
    return nullptr;
}

// The outcome a test describes for in-flight submission `id`, checked: bytes
// go only to device-to-host transfers, and only as many as the buffer holds.
std::optional<Outcome> MakeOutcome(World& w, int id, int status, const std::vector<uint8_t>& data,
                                   int actualLength) {
    if (FindInFlight(w, id) == nullptr) {
        return std::nullopt;
    }
    const Submission& s = w.submissions[id - 1];
    const int offset = s.IsControl() ? static_cast<int>(LIBUSB_CONTROL_SETUP_SIZE) : 0;
    const int capacity = s.length - offset;
    if ((!s.IsIn() && !data.empty()) || static_cast<int>(data.size()) > capacity) {
        return std::nullopt;
    }
    if (actualLength == Transfers::kAuto) {
        actualLength = s.IsIn() ? static_cast<int>(data.size()) : status == LIBUSB_TRANSFER_COMPLETED ? capacity : 0;
    }
    return Outcome{status, actualLength, data, offset};
}

} // namespace

std::vector<Submission> Transfers::Submitted() {
    return Locked([](World& w) { return w.submissions; });
}

std::vector<Submission> Transfers::InFlight() {
    return Locked([](World& w) {
        std::set<int> ids;
        for (auto& [transfer, state] : w.transfers) {
            if (state.phase == TransferState::Phase::InFlight) {
                ids.insert(state.submissionId);
            }
        }
        std::vector<Submission> inFlight;
        for (int id : ids) {
            inFlight.push_back(w.submissions[id - 1]);
        }
        return inFlight;
    });
}

std::optional<Submission> Transfers::OldestInFlight(unsigned char endpoint) {
    for (const Submission& s : InFlight()) {
        if (s.endpoint == endpoint) {
            return s;
        }
    }
    return std::nullopt;
}

bool Transfers::Complete(int id, int status, const std::vector<uint8_t>& data, int actualLength) {
    return Locked([&](World& w) {
        std::optional<Outcome> outcome = MakeOutcome(w, id, status, data, actualLength);
        if (outcome) {
            libusb_transfer* transfer = FindInFlight(w, id);
            w.Queue(transfer, w.transfers[transfer], std::move(*outcome));
        }
        return outcome.has_value();
    });
}

bool Transfers::CompleteOldest(unsigned char endpoint, int status, const std::vector<uint8_t>& data,
                               int actualLength) {
    std::optional<Submission> oldest = OldestInFlight(endpoint);
    return oldest && Complete(oldest->id, status, data, actualLength);
}

bool Transfers::SetCancelled(int id, int actualLength, const std::vector<uint8_t>& data) {
    return Locked([&](World& w) {
        std::optional<Outcome> outcome = MakeOutcome(w, id, LIBUSB_TRANSFER_CANCELLED, data, actualLength);
        if (outcome) {
            w.transfers[FindInFlight(w, id)].cancelled = std::move(*outcome);
        }
        return outcome.has_value();
    });
}

void Transfers::SetResponder(std::function<void(const Submission&)> responder) {
    Locked([&](World& w) { w.responder = std::move(responder); });
}

} // namespace fakeusb

