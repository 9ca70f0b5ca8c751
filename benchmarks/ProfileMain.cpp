// One workload, one program, counted in bytes rather than timed, for a
// profiler to watch (scripts/profile runs it under callgrind). Under callgrind
// the counts cover only the measured bytes: the connection and the warm-up are
// zeroed away and the measured stretch is dumped on its own.
#include "BaselineHost.h"
#include "PluginHost.h"

#include "emulated-phone/LinkModel.h"
#include "emulated-phone/PhoneOptions.h"
#include "emulated-phone/PhoneWorld.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#define KESTO_MEASURE_BEGIN() CALLGRIND_ZERO_STATS
#define KESTO_MEASURE_END() CALLGRIND_DUMP_STATS_AT("measured")
#else
#define KESTO_MEASURE_BEGIN() ((void)0)
#define KESTO_MEASURE_END() ((void)0)
#endif

namespace {

constexpr int kConnectMs = 60000;
constexpr int kPumpMs = 10;
// No progress for this long (valgrind's pace included) is a hang.
constexpr std::chrono::seconds kStall{60};

struct Plan {
    bool plugin = true;
    bool receive = true;
    bool highSpeed = false;
    size_t size = 16384;
    uint64_t warmUpBytes = 1 << 20;
    uint64_t bytes = 8 << 20;
    std::string pluginPath = KESTO_PLUGIN_PATH;
};

bool Parse(int argc, char** argv, Plan& plan)
{
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        bool more = i + 1 < argc;
        if (arg == "plugin" || arg == "baseline")
            plan.plugin = arg == "plugin";
        else if (arg == "receive" || arg == "send")
            plan.receive = arg == "receive";
        else if (arg == "--high-speed")
            plan.highSpeed = true;
        else if (arg == "--size" && more)
            plan.size = std::strtoull(argv[++i], nullptr, 10);
        else if (arg == "--bytes" && more)
            plan.bytes = std::strtoull(argv[++i], nullptr, 10);
        else if (arg == "--warm-up" && more)
            plan.warmUpBytes = std::strtoull(argv[++i], nullptr, 10);

        else if (arg == "--plugin" && more)
            plan.pluginPath = argv[++i];
        else
            return false;
    }
    return plan.size > 0 && plan.bytes > 0;
}

// Pumps the host until done() holds; false on a fault or a stall.
template <typename Done, typename Step>
bool Run(BenchHost& host, Done done, Step step, const uint64_t& progress)
{
    auto lastChange = std::chrono::steady_clock::now();
    uint64_t seen = progress;
    while (!done()) {
        step();
        if (!host.Pump(kPumpMs)) {
            std::fprintf(stderr, "host failed: %s\n", host.Fault().c_str());
            return false;
        }
        auto now = std::chrono::steady_clock::now();
        if (progress != seen) {
            seen = progress;
            lastChange = now;
        } else if (now - lastChange > kStall) {
            std::fprintf(stderr, "no progress after %llu bytes\n", static_cast<unsigned long long>(seen));
            return false;
        }
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    Plan plan;
    if (!Parse(argc, argv, plan)) {
        std::fprintf(stderr,
                     "usage: %s plugin|baseline receive|send [--high-speed] [--size BYTES] [--bytes BYTES] [--warm-up BYTES] "
                     "[--plugin FILE]\n",
                     argv[0]);
        return 2;
    }
    if (!emuphone::PhoneWorld::PreloadActive()) {
        std::fprintf(stderr, "kesto-profile needs umockdev's preload\n");
        return 2;
    }
    emuphone::PhoneWorld world(emuphone::PhoneWorld::IoctlPath::Interposed);
    emuphone::PhoneOptions options;
    options.startInAccessoryMode = true;
    options.link = plan.highSpeed ? emuphone::LinkModel::HighSpeed() : emuphone::LinkModel::Instant();
    options.application =
        plan.receive ? emuphone::PhoneOptions::Application::Source : emuphone::PhoneOptions::Application::Sink;
    options.sourceChunk = plan.size;
    emuphone::EmulatedPhone& phone = world.AddPhone(options);

    std::unique_ptr<BenchHost> host;
    if (plan.plugin)
        host = std::make_unique<PluginHost>(plan.pluginPath);
    else
        host = std::make_unique<BaselineHost>();
    uint64_t received = 0;
    host->SetReceiver([&received](const uint8_t*, size_t length) { received += length; });
    if (!host->Connect(phone.BusNumber(), phone.Address(), kConnectMs)) {
        std::fprintf(stderr, "cannot connect: %s\n", host->Fault().c_str());
        return 1;
    }

    std::vector<uint8_t> message(plan.size, 0x5A);
    uint64_t sent = 0;
    uint64_t arrived = 0;
    auto write = [&] {
        while (host->TryWrite(message.data(), message.size()))
            sent += message.size();
        arrived = phone.Report().bytesFromHost;
    };
    auto noWrite = [] {};
    auto measure = [&](uint64_t bytes) {
        if (plan.receive) {
            uint64_t goal = received + bytes;
            return Run(*host, [&] { return received >= goal; }, noWrite, received);
        }
        uint64_t goal = arrived + bytes;
        return Run(*host, [&] { return arrived >= goal; }, write, arrived);
    };

    // Counted in bytes, not seconds: the phone's threads then do the same work
    // in every run, and a run's counts repeat exactly.
    if (!measure(plan.warmUpBytes))
        return 1;
    uint64_t before = plan.receive ? received : arrived;
    KESTO_MEASURE_BEGIN();
    bool done = measure(plan.bytes);
    KESTO_MEASURE_END();
    uint64_t measured = (plan.receive ? received : arrived) - before;
    host.reset();
    phone.Unplug();
    if (!done)
        return 1;
    std::printf("measured %llu bytes\n", static_cast<unsigned long long>(measured));
    return 0;
}
