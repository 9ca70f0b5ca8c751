#pragma once

#include "BenchHost.h"

#include "emulated-phone/EmulatedPhone.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

// What one host does with one phone over a session, measured: the phone's
// stream received, the host's sent, the host's echoed, 64-byte round trips and
// an idle spell. Every byte count is checked against what the other side
// should have; the first discrepancy or stall ends the session as a fault.
class Workload {
public:
    using Clock = std::chrono::steady_clock;

    struct Sample {
        double bytesPerSecond = 0;
        double cpuSecondsPerGigabyte = 0;
        uint64_t bytes = 0;
        // Receiving: host reads the phone completed in the window, and how many
        // of them carried only a zero-length packet.
        uint64_t reads = 0;
        uint64_t zeroLengthReads = 0;
    };
    struct Window {
        double warmUpSeconds = 0;
        double seconds = 0;
    };

    Workload(BenchHost& host, emuphone::EmulatedPhone& phone);
    Workload(const Workload&) = delete;
    Workload& operator=(const Workload&) = delete;

    // The phone's application is Source.
    bool Receive(const Window& window, Sample& sample);
    // Until `bytes` more have arrived (for counting runs rather than timing).
    bool ReceiveBytes(uint64_t bytes);
    // The phone's application is Sink.
    bool Send(size_t messageSize, const Window& window, Sample& sample);
    // The phone's application is Echo.
    bool Echo(size_t messageSize, const Window& window, Sample& sample);
    bool EchoBytes(size_t messageSize, uint64_t bytes);
    bool RoundTrips(int count, std::vector<double>& microseconds);
    // Wake-ups seen by the host's loop, and every thread's voluntary context
    // switches in the process (the phone's own threads included).
    bool Idle(double seconds, double& wakeupsPerSecond, double& switchesPerSecond);

    const std::string& Fault() const { return fault_; }

private:
    bool Fail(const std::string& what);
    bool PumpOnce();
    bool Drain();
    void UseMessage(size_t messageSize);
    void OnReceived(const uint8_t* data, size_t length);
    bool PumpEcho(size_t messageSize);
    static double CpuSeconds();

    BenchHost& host_;
    emuphone::EmulatedPhone& phone_;
    bool echoing_ = false;
    std::vector<uint8_t> message_;
    uint64_t received_ = 0;
    uint64_t sent_ = 0;
    Clock::time_point lastProgress_;
    std::string fault_;
};
