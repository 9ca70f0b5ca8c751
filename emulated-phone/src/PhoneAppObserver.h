#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace emuphone {

// What the phone's application tells the phone about its stream. Called with
// the bus lock held, from inside the pipes.
class PhoneAppObserver {
public:
    // A host read has taken the last byte of the phone's handshake.
    virtual void OnHandshakeTaken() = 0;
    // The host's handshake bytes arrived and did or did not match.
    virtual void OnHostHandshake(const std::vector<uint8_t>& bytes, bool matched) = 0;
    // Application bytes read from the host, after the handshake.
    virtual void OnBytesFromHost(const uint8_t* data, size_t length) = 0;
    // Application bytes the host has taken.
    virtual void OnBytesToHost(size_t length) = 0;

protected:
    ~PhoneAppObserver() = default;
};

} // namespace emuphone
