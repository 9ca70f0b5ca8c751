#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "fakeusb/FakeUsb.h"
#include "fuzz/FuzzInput.h"

// Everything on the USB side of the plug-in, as the input decides it: phones
// plugged in and pulled, transfers completed (with any status, length and
// bytes), libusb calls made to fail. It keeps what the phone sent and
// received, against which the toolkit's bytes are checked.
class FuzzPhone {
public:
    FuzzPhone();
    ~FuzzPhone();
    FuzzPhone(const FuzzPhone&) = delete;
    FuzzPhone& operator=(const FuzzPhone&) = delete;

    void Plug(FuzzInput& in);
    void Unplug(FuzzInput& in);
    // The phone ends the control transfer in flight, the oldest bulk read,
    // or the bulk write in flight, as the input says.
    void Answer(FuzzInput& in);
    void Send(FuzzInput& in);
    void Take(FuzzInput& in);
    void Fail(FuzzInput& in);
    void SetTimeout(FuzzInput& in);

    // A toolkit call begins.
    void CallBegins() { eventPasses = 0; }
    // The toolkit read these: they must be the next the phone sent after its handshake.
    void Delivered(const uint8_t* bytes, uint32_t count);
    // What the toolkit writes next, n bytes of a pattern that shows loss and reordering.
    std::vector<uint8_t> WriteBytes(uint32_t count) const;
    // The toolkit's write was taken: the phone is to receive it after what it has so far.
    void Accepted(const std::vector<uint8_t>& bytes);

    // The phone's handshake was taken and answered.
    bool Matched() const { return streamStart >= 0; }
    // Between the phone's accepting the switch and its being found again,
    // when a failed search is tried again rather than kept.
    bool Searching() const { return switchAccepted && !bulkSeen; }
    int Writes() const { return writes; }
    const std::vector<uint8_t>& LastWrite() const { return lastWrite; }

private:
    void OnSubmission(const fakeusb::Submission& s);
    void OnEventPass();
    // The oldest transfer in flight in that direction, control or bulk.
    static std::optional<fakeusb::Submission> Oldest(bool control, bool in);
    void Match();

    std::vector<int> plugged;
    int eventPasses = 0;
    bool switchAccepted = false;
    bool bulkSeen = false;
    // Bulk IN: every byte the phone sent, where its latest chunk begins, where
    // the stream after its handshake begins, and how much the toolkit has read.
    std::vector<uint8_t> sent;
    long lastChunk = -1;
    long streamStart = -1;
    size_t read = 0;
    // Bulk OUT: the host handshake and the toolkit's accepted writes, and how
    // much of that the phone has received.
    std::vector<uint8_t> expected;
    size_t received = 0;
    int writes = 0;
    std::vector<uint8_t> lastWrite;
};
