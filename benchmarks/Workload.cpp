#include "Workload.h"

#include "emulated-phone/StreamPattern.h"

#include <sys/resource.h>

#include <algorithm>

namespace {

// No progress for this long is a hang.
constexpr std::chrono::seconds kStall{5};
// Longest single wait for USB work.
constexpr int kPumpMs = 10;
// Echo keeps at most this much (or two messages) on its way.
constexpr uint64_t kEchoWindow = 32768;
constexpr double kGigabyte = 1e9;
constexpr size_t kRoundTripSize = 64;

Workload::Clock::time_point After(Workload::Clock::time_point from, double seconds)
{
    return from + std::chrono::duration_cast<Workload::Clock::duration>(std::chrono::duration<double>(seconds));
}

} // namespace

Workload::Workload(BenchHost& host, emuphone::EmulatedPhone& phone)
    : host_(host), phone_(phone), lastProgress_(Clock::now())
{
    host_.SetReceiver([this](const uint8_t* data, size_t length) { OnReceived(data, length); });
}

double Workload::CpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

bool Workload::Fail(const std::string& what)
{
    if (fault_.empty())
        fault_ = what;
    return false;
}

// Only the first and last byte of each delivery are compared: enough to see a
// block lost, doubled or out of place, and cheap enough not to hide the hosts' cost.
void Workload::OnReceived(const uint8_t* data, size_t length)
{
    if (length == 0)
        return;
    uint64_t last = received_ + length - 1;
    uint8_t wantFirst = echoing_ ? message_[received_ % message_.size()] : emuphone::StreamPattern::ByteAt(received_);
    uint8_t wantLast = echoing_ ? message_[last % message_.size()] : emuphone::StreamPattern::ByteAt(last);
    if (data[0] != wantFirst || data[length - 1] != wantLast)
        Fail("a delivery of " + std::to_string(length) + " bytes at stream offset " + std::to_string(received_) +
             " does not hold the bytes sent there: first byte " + std::to_string(data[0]) + ", expected " +
             std::to_string(wantFirst) + "; last " + std::to_string(data[length - 1]) + ", expected " +
             std::to_string(wantLast));
    received_ += length;
    lastProgress_ = Clock::now();
}

bool Workload::PumpOnce()
{
    if (!host_.Pump(kPumpMs))
        return Fail(host_.Fault());
    if (!fault_.empty())
        return false;
    if (Clock::now() - lastProgress_ > kStall)
        return Fail("no progress for 5 s after " + std::to_string(received_) + " bytes received and " +
                    std::to_string(sent_) + " sent");
    return true;
}

bool Workload::Receive(const Window& window, Sample& sample)
{
    auto start = After(Clock::now(), window.warmUpSeconds);
    while (Clock::now() < start)
        if (!PumpOnce())
            return false;
    uint64_t bytes = received_;
    emuphone::PhoneReport before = phone_.Report();
    double cpu = CpuSeconds();
    start = Clock::now();
    auto end = After(start, window.seconds);
    while (Clock::now() < end)
        if (!PumpOnce())
            return false;
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    sample.bytes = received_ - bytes;
    sample.bytesPerSecond = sample.bytes / seconds;
    sample.cpuSecondsPerGigabyte = sample.bytes ? (CpuSeconds() - cpu) * kGigabyte / sample.bytes : 0;
    emuphone::PhoneReport after = phone_.Report();
    sample.reads = after.transfersToHost - before.transfersToHost;
    sample.zeroLengthReads = after.zeroLengthToHost - before.zeroLengthToHost;
    return true;
}

bool Workload::ReceiveBytes(uint64_t bytes)
{
    uint64_t goal = received_ + bytes;
    while (received_ < goal)
        if (!PumpOnce())
            return false;
    return true;
}

void Workload::UseMessage(size_t messageSize)
{
    if (message_.size() == messageSize)
        return;
    message_.resize(messageSize);
    emuphone::StreamPattern::Fill(0, message_.data(), messageSize);
}

bool Workload::Send(size_t messageSize, const Window& window, Sample& sample)
{
    UseMessage(messageSize);
    auto phoneBytes = [this] { return phone_.Report().bytesFromHost; };
    auto pump = [&](Clock::time_point until) {
        while (Clock::now() < until) {
            while (host_.TryWrite(message_.data(), messageSize)) {
                sent_ += messageSize;
                lastProgress_ = Clock::now();
            }
            if (!PumpOnce())
                return false;
        }
        return true;
    };
    if (!pump(After(Clock::now(), window.warmUpSeconds)))
        return false;
    uint64_t bytes = phoneBytes();
    double cpu = CpuSeconds();
    auto start = Clock::now();
    if (!pump(After(start, window.seconds)))
        return false;
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    sample.bytes = phoneBytes() - bytes;
    sample.bytesPerSecond = sample.bytes / seconds;
    sample.cpuSecondsPerGigabyte = sample.bytes ? (CpuSeconds() - cpu) * kGigabyte / sample.bytes : 0;
    return Drain();
}

// Until the phone holds every byte sent (sink) or every echoed byte is back.
bool Workload::Drain()
{
    lastProgress_ = Clock::now();
    uint64_t settled = 0;
    while (true) {
        uint64_t arrived = echoing_ ? received_ : phone_.Report().bytesFromHost;
        if (arrived == sent_ && !echoing_)
            return true;
        if (echoing_ && received_ == sent_)
            return true;
        if (arrived > sent_)
            return Fail("the phone holds " + std::to_string(arrived) + " bytes of " + std::to_string(sent_) + " sent");
        if (arrived != settled) {
            settled = arrived;
            lastProgress_ = Clock::now();
        }
        if (!PumpOnce())
            return Fail(fault_ + " (waiting for " + std::to_string(sent_ - arrived) + " of " +
                        std::to_string(sent_) + " bytes sent)");
    }
}

bool Workload::PumpEcho(size_t messageSize)
{
    uint64_t window = std::max<uint64_t>(kEchoWindow, 2 * messageSize);
    while (sent_ - received_ + messageSize <= window && host_.TryWrite(message_.data(), messageSize))
        sent_ += messageSize;
    return PumpOnce();
}

bool Workload::Echo(size_t messageSize, const Window& window, Sample& sample)
{
    if (echoing_ && !Drain())
        return false;
    echoing_ = true;
    // The stream restarts in step with the new message size.
    sent_ = received_ = 0;
    UseMessage(messageSize);
    auto until = After(Clock::now(), window.warmUpSeconds);
    while (Clock::now() < until)
        if (!PumpEcho(messageSize))
            return false;
    uint64_t bytes = received_;
    double cpu = CpuSeconds();
    auto start = Clock::now();
    until = After(start, window.seconds);
    while (Clock::now() < until)
        if (!PumpEcho(messageSize))
            return false;
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    sample.bytes = received_ - bytes;
    sample.bytesPerSecond = sample.bytes / seconds;
    sample.cpuSecondsPerGigabyte = sample.bytes ? (CpuSeconds() - cpu) * kGigabyte / sample.bytes : 0;
    return Drain();
}

bool Workload::EchoBytes(size_t messageSize, uint64_t bytes)
{
    if (echoing_ && !Drain())
        return false;
    echoing_ = true;
    sent_ = received_ = 0;
    UseMessage(messageSize);
    while (received_ < bytes)
        if (!PumpEcho(messageSize))
            return false;
    return Drain();
}

bool Workload::RoundTrips(int count, std::vector<double>& microseconds)
{
    if (echoing_ && !Drain())
        return false;
    echoing_ = true;
    sent_ = received_ = 0;
    UseMessage(kRoundTripSize);
    microseconds.clear();
    for (int i = 0; i < count; ++i) {
        auto start = Clock::now();
        while (!host_.TryWrite(message_.data(), kRoundTripSize))
            if (!PumpOnce())
                return false;
        sent_ += kRoundTripSize;
        while (received_ < sent_)
            if (!PumpOnce())
                return false;
        microseconds.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    return true;
}

bool Workload::Idle(double seconds, double& wakeupsPerSecond, double& switchesPerSecond)
{
    auto switches = [] {
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        return static_cast<double>(usage.ru_nvcsw);
    };
    double switchesBefore = switches();
    uint64_t wakeups = host_.Wakeups();
    auto start = Clock::now();
    auto end = After(start, seconds);
    // One wait for the whole spell, so that the host's loop adds no wake-ups of its own.
    while (Clock::now() < end) {
        auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
        if (!host_.Pump(static_cast<int>(std::max<long long>(1, left))))
            return Fail(host_.Fault());
        lastProgress_ = Clock::now();
    }
    double spent = std::chrono::duration<double>(Clock::now() - start).count();
    wakeupsPerSecond = (host_.Wakeups() - wakeups) / spent;
    switchesPerSecond = (switches() - switchesBefore) / spent;
    return fault_.empty();
}
