#pragma once

#include <libusb.h>

#include <cstdint>
#include <string>
#include <vector>

namespace emuphone {

// One pipelined echo over an accessory's bulk endpoints: StreamPattern bytes
// go out in fixed-size transfers, `depth` each way in flight, and every byte
// that comes back is checked against what went out.
class EchoRun {
public:
    EchoRun(libusb_context* context, libusb_device_handle* handle, uint8_t in, uint8_t out, uint64_t total,
            size_t chunk, int depth, unsigned int timeoutMs);
    ~EchoRun();
    EchoRun(const EchoRun&) = delete;
    EchoRun& operator=(const EchoRun&) = delete;

    // Runs until everything came back, something failed, or `budgetMs` passed.
    void Run(unsigned int budgetMs);

    int Error() const { return error_; }
    uint64_t Received() const { return received_; }
    const std::string& Problem() const { return problem_; }

private:
    static void LIBUSB_CALL OnWritten(libusb_transfer* transfer);
    static void LIBUSB_CALL OnRead(libusb_transfer* transfer);
    void SendNext(libusb_transfer* transfer);
    void Check(const uint8_t* data, int length);
    void Fail(int error, const std::string& problem);
    void CancelAll();

    libusb_context* context_;
    uint64_t total_;
    size_t chunk_;
    uint64_t sent_ = 0;
    uint64_t received_ = 0;
    int inFlight_ = 0;
    int error_ = 0;
    std::string problem_;
    std::vector<libusb_transfer*> writes_;
    std::vector<libusb_transfer*> reads_;
    std::vector<std::vector<uint8_t>> buffers_;
};

} // namespace emuphone
