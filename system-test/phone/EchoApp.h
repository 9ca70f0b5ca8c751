#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <thread>

// The phone's accessory application: on each enabling of the endpoints it sends
// the phone's handshake (a host that reset the endpoints lost the earlier one),
// takes the host's, then writes back everything it reads. It reads and writes
// as a phone's accessory driver does: reads of up to 16 KiB that end on a short
// or zero-length packet, and a zero-length packet after a write whose last
// packet is full.
class EchoApp {
public:
    EchoApp(int bulkIn, int bulkOut);
    ~EchoApp();
    EchoApp(const EchoApp&) = delete;
    EchoApp& operator=(const EchoApp&) = delete;

    // The endpoints were enabled with this bulk packet size.
    void Enabled(size_t packetSize);
    uint64_t BytesEchoed() const { return echoed_.load(); }

private:
    void Run();
    bool Session(size_t packetSize);
    bool Send(const uint8_t* data, size_t length, size_t packetSize);

    int in_;
    int out_;
    std::mutex mutex_;
    std::condition_variable changed_;
    uint64_t enables_ = 0;
    size_t packetSize_ = 512;
    std::atomic<uint64_t> echoed_{0};
    std::thread thread_;
};
