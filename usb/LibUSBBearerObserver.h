#pragma once

#include <cstdarg>
#include <cstdint>

// How the transport reports to its owner. Every call comes on the thread that
// is inside LibUSBBearerConnection::HandleEvents or Close, never the event
// thread; the transport has cleared its own in-flight state first, so each
// handler may submit the next transfer.
class LibUSBBearerObserver {
public:
    // A read retired in submission order; its data, if any, is already queued.
    virtual void OnReadComplete(int status) = 0;
    // The write finished, after all partial-write retries.
    virtual void OnWriteComplete(int status) = 0;
    // The control transfer ended. setup is a copy of the 8-byte setup packet
    // (null when no copy could be made); data and length are the received bytes
    // of a device-to-host request. Pointers are valid only during the call.
    virtual void OnControlComplete(int status, const uint8_t* setup, const uint8_t* data, int length) = 0;
    // libusb has a time-out pending: HandleEvents must run after ms (>= 1).
    virtual void OnTimeoutRequested(int ms) = 0;
    // A transport message as a printf format and its arguments.
    virtual void OnLog(const char* format, va_list args) = 0;
    // The event thread could not process events or register a descriptor.
    virtual int OnTransportError(int code) = 0;

protected:
    ~LibUSBBearerObserver() = default;
};
