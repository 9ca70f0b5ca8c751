#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

// One host program on one phone's accessory link, as the workloads see it: the
// plug-in behind a toolkit's loop, or the plain libusb program it is measured
// against. Everything runs on the calling thread.
class BenchHost {
public:
    using Receiver = std::function<void(const uint8_t* data, size_t length)>;

    virtual ~BenchHost() = default;

    // Connects to the phone at bus/address; false with Fault() set when it cannot.
    virtual bool Connect(int bus, int address, int timeoutMs) = 0;
    // Waits at most maxMs for USB work and does it; received bytes go to the
    // receiver. False once the link has failed.
    virtual bool Pump(int maxMs) = 0;
    // Starts sending `length` bytes; false when a write is still in flight.
    // The bytes must stay unchanged until the program no longer needs them: the
    // plain program sends straight from them.
    virtual bool TryWrite(const uint8_t* data, size_t length) = 0;
    // Gives back every USB resource; safe to call more than once.
    virtual void Disconnect() = 0;

    // Times the program was woken for USB work (readiness or a timer).
    virtual uint64_t Wakeups() const = 0;
    virtual std::string Fault() const = 0;

    void SetReceiver(Receiver receiver) { receiver_ = std::move(receiver); }

protected:
    void Deliver(const uint8_t* data, size_t length)
    {
        if (receiver_)
            receiver_(data, length);
    }

private:
    Receiver receiver_;
};
