// phone-bench: what the emulated phone costs. Time from the accessory requests
// to the accessory being visible to libusb, echo throughput with 16 KiB
// transfers on both ioctl paths and both link models, and how often libusb's
// descriptors wake while the line is idle. Runs under umockdev's preload.
#include "AccessoryHost.h"

#include "emulated-phone/PhoneWorld.h"

#include <poll.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using namespace emuphone;
using Clock = std::chrono::steady_clock;

namespace {

constexpr size_t kChunk = 16384;
constexpr int kDepth = 2;
constexpr int kSwitchRuns = 5;
constexpr std::chrono::milliseconds kPatience{3000};
constexpr unsigned int kTimeoutMs = 3000;
constexpr int kIdleMs = 2000;
const std::array<std::string, 6> kIdentity = {"Emphone", "Bench", "Emulated phone benchmark", "1.0",
                                              "https://example.invalid/bench", "BENCH0001"};

const char* PathName(PhoneWorld::IoctlPath path)
{
    return path == PhoneWorld::IoctlPath::Socket ? "socket" : "interposed";
}

double Ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

// Milliseconds from the version query, and from the start request, until
// libusb lists the accessory.
std::pair<double, double> SwitchOnce(PhoneWorld::IoctlPath path)
{
    PhoneWorld world(path);
    EmulatedPhone& phone = world.AddPhone();
    AccessoryHost host;
    if (host.Open(phone.BusNumber(), phone.Address()) != 0)
        return {-1, -1};
    uint16_t version = 0;
    auto first = Clock::now();
    host.QueryProtocol(version);
    for (uint16_t i = 0; i < kIdentity.size(); ++i)
        host.SendIdentity(i, kIdentity[i]);
    auto start = Clock::now();
    host.StartAccessory();
    host.Close();
    if (!host.WaitForAccessory("EMULATED0001", kPatience))
        return {-1, -1};
    auto seen = Clock::now();
    return {Ms(seen - first), Ms(seen - start)};
}

void MeasureSwitch(PhoneWorld::IoctlPath path)
{
    std::vector<double> fromFirst, fromStart;
    for (int i = 0; i < kSwitchRuns; ++i) {
        auto [a, b] = SwitchOnce(path);
        fromFirst.push_back(a);
        fromStart.push_back(b);
    }
    std::sort(fromFirst.begin(), fromFirst.end());
    std::sort(fromStart.begin(), fromStart.end());
    std::printf("switch (%s): accessory visible %.1f ms after request 51, %.1f ms after request 53 "
                "(median of %d; drop 30 ms + return 35 ms)\n",
                PathName(path), fromFirst[kSwitchRuns / 2], fromStart[kSwitchRuns / 2], kSwitchRuns);
}

void MeasureEcho(PhoneWorld::IoctlPath path, const LinkModel& link, const char* linkName, uint64_t bytes)
{
    PhoneWorld world(path);
    PhoneOptions options;
    options.startInAccessoryMode = true;
    options.link = link;
    EmulatedPhone& phone = world.AddPhone(options);
    AccessoryHost host;
    if (host.Open(phone.BusNumber(), phone.Address()) || host.ClaimAccessory() || host.Handshake(kTimeoutMs)) {
        std::printf("echo (%s, %s): could not connect\n", PathName(path), linkName);
        return;
    }
    AccessoryHost::EchoResult echo = host.Echo(bytes, kChunk, kDepth);
    if (echo.error) {
        std::printf("echo (%s, %s): failed: %s\n", PathName(path), linkName, echo.problem.c_str());
        return;
    }
    std::printf("echo (%s, %s link): %llu MiB each way in %.2f s: %.1f MB/s, %.0f round trips/s\n", PathName(path),
                linkName, static_cast<unsigned long long>(bytes >> 20), echo.seconds, bytes / echo.seconds / 1e6,
                bytes / kChunk / echo.seconds);
}

// Wake-ups of libusb's descriptors with the accessory claimed and a read pending on a quiet line.
void MeasureIdle(PhoneWorld::IoctlPath path)
{
    PhoneWorld world(path);
    PhoneOptions options;
    options.startInAccessoryMode = true;
    options.sendHandshake = false;
    EmulatedPhone& phone = world.AddPhone(options);
    AccessoryHost host;
    host.Open(phone.BusNumber(), phone.Address());
    host.ClaimAccessory();
    std::vector<uint8_t> buffer(kChunk);
    libusb_transfer* read = libusb_alloc_transfer(0);
    libusb_fill_bulk_transfer(read, host.Handle(), host.In(), buffer.data(), kChunk, [](libusb_transfer*) {},
                              nullptr, 0);
    libusb_submit_transfer(read);
    int wakeups = 0;
    auto end = Clock::now() + std::chrono::milliseconds(kIdleMs);
    while (Clock::now() < end) {
        timeval slice{0, 50000};
        libusb_handle_events_timeout_completed(host.Context(), &slice, nullptr);
        const libusb_pollfd** fds = libusb_get_pollfds(host.Context());
        std::vector<pollfd> set;
        for (int i = 0; fds[i]; ++i)
            set.push_back({fds[i]->fd, fds[i]->events, 0});
        libusb_free_pollfds(fds);
        int left = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count());
        if (left > 0 && poll(set.data(), set.size(), left) > 0)
            ++wakeups;
    }
    std::printf("idle (%s): %.1f wake-ups/s of libusb's descriptors over %d ms\n", PathName(path),
                wakeups * 1000.0 / kIdleMs, kIdleMs);
    libusb_cancel_transfer(read);
    timeval slice{0, 100000};
    libusb_handle_events_timeout_completed(host.Context(), &slice, nullptr);
    libusb_free_transfer(read);
}

} // namespace

int main(int argc, char** argv)
{
    uint64_t bytes = 64ull << 20;
    uint64_t socketBytes = 16ull << 20;
    if (argc > 1 && std::strcmp(argv[1], "--quick") == 0)
        bytes = socketBytes = 1 << 20;
    if (!PhoneWorld::PreloadActive()) {
        std::fprintf(stderr, "phone-bench: run under umockdev-wrapper (LD_PRELOAD=libumockdev-preload.so.0)\n");
        return 2;
    }
    for (auto path : {PhoneWorld::IoctlPath::Socket, PhoneWorld::IoctlPath::Interposed})
        MeasureSwitch(path);
    for (auto path : {PhoneWorld::IoctlPath::Socket, PhoneWorld::IoctlPath::Interposed}) {
        uint64_t size = path == PhoneWorld::IoctlPath::Socket ? socketBytes : bytes;
        MeasureEcho(path, LinkModel::Instant(), "instant", size);
        MeasureEcho(path, LinkModel::HighSpeed(), "high-speed", size);
    }
    for (auto path : {PhoneWorld::IoctlPath::Socket, PhoneWorld::IoctlPath::Interposed})
        MeasureIdle(path);
    return 0;
}
