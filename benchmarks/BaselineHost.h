#pragma once

#include "BenchHost.h"

#include <libusb.h>

#include <array>
#include <vector>

// The plain libusb program the plug-in is measured against: it claims the
// accessory interface, answers the phone's handshake, then keeps two
// 16384-byte reads in flight and one write, handling events on the calling
// thread. Built into a library of its own so that heap allocations can be told
// apart by the code that made them.
class __attribute__((visibility("default"))) BaselineHost : public BenchHost {
public:
    BaselineHost();
    ~BaselineHost() override;
    BaselineHost(const BaselineHost&) = delete;
    BaselineHost& operator=(const BaselineHost&) = delete;

    bool Connect(int bus, int address, int timeoutMs) override;
    bool Pump(int maxMs) override;
    bool TryWrite(const uint8_t* data, size_t length) override;
    void Disconnect() override;
    uint64_t Wakeups() const override { return wakeups_; }
    std::string Fault() const override { return fault_; }

    // Any function of this library, to find where its code lies.
    static const void* CodeAddress();

private:
    static constexpr int kReads = 2;
    static constexpr int kReadSize = 16384;

    bool Open(int bus, int address);
    bool Claim();
    bool Handshake(int timeoutMs);
    bool Fail(const std::string& what, int error);
    static void LIBUSB_CALL OnRead(libusb_transfer* transfer);
    static void LIBUSB_CALL OnWritten(libusb_transfer* transfer);

    libusb_context* context_ = nullptr;
    libusb_device_handle* handle_ = nullptr;
    int interface_ = -1;
    uint8_t in_ = 0;
    uint8_t out_ = 0;
    std::array<libusb_transfer*, kReads> reads_{};
    std::array<std::vector<uint8_t>, kReads> readBuffers_;
    libusb_transfer* write_ = nullptr;
    bool writeBusy_ = false;
    bool closing_ = false;
    int inFlight_ = 0;
    uint64_t wakeups_ = 0;
    std::string fault_;
};
