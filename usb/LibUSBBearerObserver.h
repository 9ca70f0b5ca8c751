#pragma once

#include <cstdarg>
#include <cstdint>

// How the transport reports to its owner, always on the toolkit's thread.
// The completion calls come only from inside HandleEvents or Close (where
// libusb delivers completions); the transport has cleared its own in-flight
// state first, so each handler may submit the next transfer. The other calls
// may also come from inside a submission or an open.
class LibUSBBearerObserver {
public:
    // A read retired, in submission order; its bytes, if any, are already
    // queued for ReadData, whatever the status.
    virtual void OnReadComplete(int status) = 0;
    // The write ended, after any partial-write continuation and zero-length
    // packet; once per write submitted.
    virtual void OnWriteComplete(int status) = 0;
    // The control transfer ended. setup is a copy of the 8-byte setup packet
    // (null when no copy could be made, then with status
    // LIBUSB_TRANSFER_ERROR); data and length are the received bytes of a
    // device-to-host request. Pointers are valid only during the call.
    virtual void OnControlComplete(int status, const uint8_t* setup, const uint8_t* data, int length) = 0;
    // After a submission: libusb has a time-out pending, and HandleEvents must
    // run after ms (>= 1). Each request replaces the last.
    virtual void OnTimeoutRequested(int ms) = 0;
    // A transport message as a printf format and its arguments.
    virtual void OnLog(const char* format, va_list args) = 0;
    // libusb's events could not be handled, a descriptor could not be
    // watched, or the event thread stopped: the link is not to be trusted
    // (code 11). The return value is ignored.
    virtual int OnTransportError(int code) = 0;

protected:
    ~LibUSBBearerObserver() = default;
};
