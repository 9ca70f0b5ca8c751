#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "fakeusb/FakeUsb.h"
#include "fuzz/FuzzInput.h"

// Everything on the plug-in's USB side, as the input decides it: phones
// plugged in and pulled, transfers ended with any status, length and bytes,
// libusb calls made to fail. It keeps what the phone sent and received, to
// check the toolkit's bytes against.
class FuzzPhone {
public:
    FuzzPhone();
    ~FuzzPhone() { fakeusb::Reset(); }
    FuzzPhone(const FuzzPhone&) = delete;
    FuzzPhone& operator=(const FuzzPhone&) = delete;

    void Plug(FuzzInput& in);
    void Unplug(FuzzInput& in);
    void Answer(FuzzInput& in);
    void Send(FuzzInput& in);
    void Take(FuzzInput& in);
    void Fail(FuzzInput& in);
    void SetTimeout(FuzzInput& in);

    // The next action begins.
    void CallBegins() {
        eventPasses = 0;
        newWrite.reset();
    }
    // The toolkit read these: the next bytes the phone sent after its handshake.
    void Delivered(const uint8_t* bytes, uint32_t count);
    // What the toolkit writes next: a pattern that shows loss and reordering.
    std::vector<uint8_t> WriteBytes(uint32_t count) const;
    // The toolkit's write was taken: the phone is to receive it next.
    void Accepted(const std::vector<uint8_t>& bytes) { expected.insert(expected.end(), bytes.begin(), bytes.end()); }

    bool Matched() const { return streamStart >= 0; }
    // After the phone accepted the switch and before it was found again, a
    // failed search is tried again rather than kept.
    bool Searching() const { return switchAccepted && !bulkSeen; }
    // How often the phone has ended a transfer or been pulled out.
    int Changes() const { return changes; }
    // The bulk write submitted during this action, if any.
    const std::optional<std::vector<uint8_t>>& NewWrite() const { return newWrite; }

private:
    std::optional<fakeusb::Submission> Ending(bool control, bool in);
    void Match();

    std::vector<int> plugged;
    int eventPasses = 0;
    int changes = 0;
    bool switchAccepted = false;
    bool bulkSeen = false;
    // Bulk IN: every byte sent, where the latest chunk and the stream after
    // the handshake begin, and how far the toolkit has read.
    std::vector<uint8_t> sent;
    long lastChunk = -1;
    long streamStart = -1;
    size_t read = 0;
    // Bulk OUT: the host handshake and the accepted writes, and how much of it the phone has.
    std::vector<uint8_t> expected;
    size_t received = 0;
    std::optional<std::vector<uint8_t>> newWrite;
};
