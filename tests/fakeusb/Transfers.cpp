#include "fakeusb/Transfers.h"

#include <algorithm>

#include "fakeusb/World.h"

namespace fakeusb {

using namespace detail;

namespace {

using Lock = std::lock_guard<std::mutex>;

// The transfer now in flight under submission `id`, or null.
libusb_transfer* FindInFlight(World& w, int id) {
    for (auto& entry : w.transfers) {
        if (entry.second.submissionId == id && entry.second.phase == TransferState::Phase::InFlight) {
            return entry.first;
        }
    }
    return nullptr;
}

// The outcome a test describes, checked against the submission: bytes go only
// to device-to-host transfers, and only as many as the buffer holds.
std::optional<Outcome> MakeOutcome(const Submission& s, int status, const std::vector<uint8_t>& data,
                                   int actualLength) {
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

bool Submission::IsIn() const {
    return IsControl() ? (setup.requestType & LIBUSB_ENDPOINT_IN) != 0 : (endpoint & LIBUSB_ENDPOINT_IN) != 0;
}

std::vector<Submission> Transfers::Submitted() {
    World& w = TheWorld();
    Lock lock(w.mutex);
    return w.submissions;
}

std::vector<Submission> Transfers::InFlight() {
    World& w = TheWorld();
    Lock lock(w.mutex);
    std::vector<int> ids;
    for (auto& entry : w.transfers) {
        if (entry.second.phase == TransferState::Phase::InFlight) {
            ids.push_back(entry.second.submissionId);
        }
    }
    std::sort(ids.begin(), ids.end());
    std::vector<Submission> inFlight;
    for (int id : ids) {
        inFlight.push_back(w.submissions[id - 1]);
    }
    return inFlight;
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
    World& w = TheWorld();
    Lock lock(w.mutex);
    libusb_transfer* transfer = FindInFlight(w, id);
    if (transfer == nullptr) {
        return false;
    }
    std::optional<Outcome> outcome = MakeOutcome(w.submissions[id - 1], status, data, actualLength);
    if (!outcome) {
        return false;
    }
    w.Queue(transfer, w.transfers[transfer], std::move(*outcome));
    return true;
}

bool Transfers::CompleteOldest(unsigned char endpoint, int status, const std::vector<uint8_t>& data,
                               int actualLength) {
    std::optional<Submission> oldest = OldestInFlight(endpoint);
    return oldest && Complete(oldest->id, status, data, actualLength);
}

bool Transfers::SetCancelled(int id, int actualLength, const std::vector<uint8_t>& data) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    libusb_transfer* transfer = FindInFlight(w, id);
    if (transfer == nullptr) {
        return false;
    }
    std::optional<Outcome> outcome =
        MakeOutcome(w.submissions[id - 1], LIBUSB_TRANSFER_CANCELLED, data, actualLength);
    if (!outcome) {
        return false;
    }
    w.transfers[transfer].cancelled = std::move(*outcome);
    return true;
}

void Transfers::SetResponder(std::function<void(const Submission&)> responder) {
    World& w = TheWorld();
    Lock lock(w.mutex);
    w.responder = std::move(responder);
}

} // namespace fakeusb
