#pragma once

#include <libusb.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

namespace fakeusb {

// A copy of one accepted libusb_submit_transfer, taken at submission.
struct Submission {
    // A control transfer's setup packet: the fields tests tell requests by.
    struct Setup {
        uint8_t requestType = 0;
        uint8_t request = 0;
    };

    int id = 0;               // 1, 2, 3... in submission order; a resubmission gets a new id
    int deviceId = 0;         // the Bus id of the device
    unsigned char endpoint = 0;
    unsigned char type = 0;   // LIBUSB_TRANSFER_TYPE_*
    int length = 0;           // transfer->length (for control: 8 + wLength)
    unsigned int timeout = 0; // milliseconds, 0 for none
    uint8_t flags = 0;        // transfer->flags (LIBUSB_TRANSFER_ADD_ZERO_PACKET...)
    Setup setup;              // control transfers only
    // False for a bulk endpoint of no interface the handle has claimed: the
    // kernel claims it behind libusb's back and warns.
    bool interfaceClaimed = true;
    // The bytes sent: a bulk OUT transfer's buffer, a host-to-device control
    // transfer's data stage (without the setup packet). Empty for IN.
    std::vector<uint8_t> data;

    bool IsControl() const { return type == LIBUSB_TRANSFER_TYPE_CONTROL; }
    // Device-to-host: an IN endpoint, or a control request with bit 7 set.
    bool IsIn() const { return ((IsControl() ? setup.requestType : endpoint) & LIBUSB_ENDPOINT_IN) != 0; }
};

// The transfers in flight and how they end. A submitted transfer stays in
// flight until the test completes it (or the code under test cancels it, or
// its device is unplugged). Completing does not call the transfer's callback:
// it queues the completion and makes the context's poll descriptor readable;
// the callback runs inside the next libusb_handle_events_timeout, on the
// thread that calls it, as with real libusb.
class Transfers {
public:
    static constexpr int kAuto = -1;

    // Every submission since Reset, oldest first (all kept, bytes included).
    static std::vector<Submission> Submitted();
    // Submissions still in flight (not completed, cancelled or unplugged), oldest first.
    static std::vector<Submission> InFlight();
    static std::optional<Submission> OldestInFlight(unsigned char endpoint);

    // Ends in-flight transfer `id` with `status`. For device-to-host
    // transfers, `data` is what the device sent: it is copied into the buffer
    // (after the setup packet for control). actual_length is `actualLength`,
    // or with kAuto: data.size() for IN; for OUT, everything on
    // LIBUSB_TRANSFER_COMPLETED and 0 otherwise. Returns false, changing
    // nothing, when `id` is not in flight or `data` does not fit the buffer.
    static bool Complete(int id, int status = LIBUSB_TRANSFER_COMPLETED, const std::vector<uint8_t>& data = {},
                         int actualLength = kAuto);
    // Complete() on OldestInFlight(endpoint); false when there is none.
    static bool CompleteOldest(unsigned char endpoint, int status = LIBUSB_TRANSFER_COMPLETED,
                               const std::vector<uint8_t>& data = {}, int actualLength = kAuto);
    // What a cancellation of in-flight transfer `id` delivers along with
    // LIBUSB_TRANSFER_CANCELLED: by default nothing (actual_length 0).
    static bool SetCancelled(int id, int actualLength, const std::vector<uint8_t>& data = {});

    // Called after each accepted submission, outside the double's lock, on the
    // submitting thread: the device's side of the conversation. It may
    // Complete() the transfer at once, remember its id for later, or unplug
    // and plug devices. Null (the default) leaves every transfer to the test.
    static void SetResponder(std::function<void(const Submission&)> responder);
};

} // namespace fakeusb
