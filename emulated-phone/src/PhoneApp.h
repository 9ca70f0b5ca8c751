#pragma once

#include "BulkInPipe.h"
#include "BulkOutPipe.h"
#include "PhoneAppObserver.h"

#include "emulated-phone/PhoneOptions.h"

#include <cstdint>
#include <functional>
#include <vector>

namespace emuphone {

// The application on the phone that opened the accessory: it writes its
// handshake, reads the host's, and then echoes, sinks or sources the stream
// the way an app does, one blocking read or write at a time. Bus lock held.
class PhoneApp {
public:
    PhoneApp(const PhoneOptions& options, BulkInPipe& in, BulkOutPipe& out, PhoneAppObserver& observer);

    // The accessory is open: handshake out, then the first read.
    void Start();
    bool Started() const { return started_; }
    // Bytes a test makes the phone write, whatever the phase.
    void Inject(std::vector<uint8_t> bytes);

private:
    enum class Phase { Handshake, Running, Refused };

    void WriteHandshake();
    void Read();
    void OnRead(std::vector<uint8_t> bytes);
    void TakeHostHandshake(std::vector<uint8_t>& bytes);
    void RunApplication(std::vector<uint8_t> bytes);
    void WriteInChunks(std::vector<uint8_t> bytes, size_t chunk, std::function<void()> done);
    void SourceNext();

    const PhoneOptions& options_;
    BulkInPipe& in_;
    BulkOutPipe& out_;
    PhoneAppObserver& observer_;
    Phase phase_ = Phase::Handshake;
    bool started_ = false;
    std::vector<uint8_t> hostHandshake_;
    uint64_t sourced_ = 0;
};

} // namespace emuphone
