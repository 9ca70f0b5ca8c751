// Measures the shipped plug-in, driven through its tables by a lean toolkit
// loop, against a plain libusb program doing the same job, both on phones
// emulated in this process. Runs alternate between the two and repeat; the
// table holds medians.
#include "AllocationCounter.h"
#include "BaselineHost.h"
#include "Bench.h"
#include "PluginHost.h"

#include "emulated-phone/PhoneWorld.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

bool Parse(int argc, char** argv, Bench::Settings& settings)
{
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        bool more = i + 1 < argc;
        if (arg == "--quick") {
            settings.quick = true;
            settings.repeats = 1;
            settings.window = {0.02, 0.05};
            settings.roundTrips = 100;
            settings.idleSeconds = 0.3;
            settings.countWarmUpBytes = 1 << 20;
            settings.countedBytes = 2 << 20;
        } else if (arg == "--verbose") {
            settings.verbose = true;
        } else if (arg == "--repeats" && more) {
            settings.repeats = std::clamp(std::atoi(argv[++i]), 1, Bench::kMostRepeats);
        } else if (arg == "--json" && more) {
            settings.json = argv[++i];
        } else if (arg == "--plugin" && more) {
            settings.plugin = argv[++i];
        } else {
            std::fprintf(stderr, "usage: %s [--quick] [--verbose] [--repeats N] [--json FILE] [--plugin FILE]\n", argv[0]);
            return false;
        }
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    Bench::Settings settings;
    if (!Parse(argc, argv, settings))
        return 2;
    if (!emuphone::PhoneWorld::PreloadActive()) {
        std::fprintf(stderr, "kesto-bench needs umockdev's preload: run it through scripts/bench\n");
        return 2;
    }
    Bench bench(settings);
    {
        PluginHost probe(settings.plugin);
        if (probe.CodeAddress() == nullptr) {
            std::fprintf(stderr, "cannot load %s: %s\n", settings.plugin.c_str(), probe.Fault().c_str());
            return 2;
        }
        AllocationCounter::Locate(probe.CodeAddress(), BaselineHost::CodeAddress());
    }
    const Bench::Link links[] = {{"instant link", emuphone::LinkModel::Instant()},
                                 {"high-speed link", emuphone::LinkModel::HighSpeed()}};
    for (int repeat = 0; repeat < settings.repeats; ++repeat) {
        for (const Bench::Link& link : links)
            bench.Round(link);
        std::fprintf(stderr, "round %d of %d done\n", repeat + 1, settings.repeats);
    }
    bench.Allocations();
    bench.Table().Print(stdout);
    if (!bench.Table().WriteJson(settings.json, settings.repeats, settings.quick)) {
        std::fprintf(stderr, "cannot write %s\n", settings.json.c_str());
        return 1;
    }
    std::printf("figures also in %s\n", settings.json.c_str());
    return bench.Table().HasFaults() ? 1 : 0;
}
