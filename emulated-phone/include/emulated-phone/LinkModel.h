#pragma once

#include <chrono>
#include <cstdint>

namespace emuphone {

// How fast the wire between host and phone is: completions reach the host no
// faster than the bandwidth allows, each one a fixed latency after its bytes
// have crossed. Both directions share the bandwidth, as they do on a USB bus.
struct LinkModel {
    // USB 2.0 high-speed bulk ceiling: 13 packets of 512 bytes per 125 us microframe.
    static constexpr double kHighSpeedBytesPerSecond = 53248000.0;
    // SuperSpeed bulk in practice: 5 Gb/s less 8b/10b coding and protocol overhead.
    static constexpr double kSuperSpeedBytesPerSecond = 400000000.0;
    // A host controller reports completions on the next microframe interrupt.
    static constexpr std::chrono::microseconds kMicroframe{125};

    double bytesPerSecond = kHighSpeedBytesPerSecond; // 0: no limit
    std::chrono::microseconds latency = kMicroframe;

    static LinkModel HighSpeed() { return {}; }
    static LinkModel SuperSpeed() { return {kSuperSpeedBytesPerSecond, kMicroframe}; }
    // Completions are reported inside the request that caused them.
    static LinkModel Instant() { return {0.0, std::chrono::microseconds{0}}; }

    bool IsInstant() const { return bytesPerSecond <= 0.0 && latency.count() <= 0; }
};

} // namespace emuphone
