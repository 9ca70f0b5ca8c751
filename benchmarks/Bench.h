#pragma once

#include "BenchHost.h"
#include "FigureTable.h"
#include "Workload.h"

#include "emulated-phone/LinkModel.h"
#include "emulated-phone/PhoneOptions.h"
#include "emulated-phone/PhoneWorld.h"

#include <cstdint>
#include <functional>
#include <string>

// The plan of a benchmark run: which phones are plugged, which program meets
// each of them and what it is made to do there; the figures go to the table.
class Bench {
public:
    struct Settings {
        bool quick = false;
        bool verbose = false;
        int repeats = 4;
        Workload::Window window{0.05, 0.3};
        int roundTrips = 1000;
        double idleSeconds = 2;
        uint64_t countWarmUpBytes = 4 << 20;
        uint64_t countedBytes = 16 << 20;
        std::string json = "bench.json";
        std::string plugin = KESTO_PLUGIN_PATH;
    };
    struct Link {
        const char* name;
        emuphone::LinkModel model;
    };
    using Body = std::function<bool(BenchHost&, Workload&, FigureTable::Program)>;

    // Each round plugs 24 phones, each at a new address: the emulated bus cannot
    // plug a phone at an address used before (umockdev keeps the old device's
    // /sys/dev/char link), so one process stays within the 126 addresses.
    static constexpr int kMostRepeats = 4;

    explicit Bench(const Settings& settings) : settings_(settings) {}

    // Receive, send (then idle) and echo at every message size, both programs.
    void Round(const Link& link);
    // Counted apart from the timed runs: every counted allocation walks the stack.
    void Allocations();
    FigureTable& Table() { return table_; }

private:
    void Session(const std::string& name, FigureTable::Program program, emuphone::PhoneOptions options,
                 const Body& body);
    void Both(const std::string& name, const emuphone::PhoneOptions& options, const Body& body);
    void Throughput(const std::string& figure, const Link& link, FigureTable::Program program,
                    const Workload::Sample& sample);

    const Settings& settings_;
    emuphone::PhoneWorld world_{emuphone::PhoneWorld::IoctlPath::Interposed};
    FigureTable table_;
};
