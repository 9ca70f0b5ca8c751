// Measures the shipped plug-in, driven through its tables by a lean toolkit
// loop, against a plain libusb program doing the same job, both on phones
// emulated in this process. Runs alternate between the two and repeat; the
// table holds medians.
#include "AllocationCounter.h"
#include "BaselineHost.h"
#include "FigureTable.h"
#include "PluginHost.h"
#include "Workload.h"

#include "emulated-phone/PhoneWorld.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

namespace {

using emuphone::LinkModel;
using emuphone::PhoneOptions;

constexpr double kMegabyte = 1e6;
constexpr int kConnectMs = 5000;
const size_t kSizes[] = {64, 1024, 16384, 65536};
// Each round plugs 24 phones, each at a new address: the emulated bus cannot
// plug a phone at an address used before (umockdev keeps the old device's
// /sys/dev/char link), so one process stays within the 126 addresses.
constexpr int kMostRepeats = 4;

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
    LinkModel model;
};

std::string SizeName(size_t size)
{
    return size >= 1024 ? std::to_string(size / 1024) + " KiB" : std::to_string(size) + " B";
}

class Bench {
public:
    using Body = std::function<bool(BenchHost&, Workload&, FigureTable::Program)>;

    explicit Bench(const Settings& settings) : settings_(settings) {}

    // One phone, freshly plugged in accessory mode, for one program's session:
    // the two programs always meet the same phone in the same state.
    void Session(const std::string& name, FigureTable::Program program, PhoneOptions options, const Body& body)
    {
        options.startInAccessoryMode = true;
        emuphone::EmulatedPhone& phone = world_.AddPhone(options);
        std::unique_ptr<BenchHost> host;
        if (program == FigureTable::Plugin)
            host = std::make_unique<PluginHost>(settings_.plugin);
        else
            host = std::make_unique<BaselineHost>();
        const char* who = program == FigureTable::Plugin ? "plug-in" : "baseline";
        auto start = std::chrono::steady_clock::now();
        // Before connecting: the phone's stream may start inside the call that connects.
        Workload workload(*host, phone);
        bool connected = host->Connect(phone.BusNumber(), phone.Address(), kConnectMs);
        auto connectedAt = std::chrono::steady_clock::now();
        if (!connected)
            table_.Fault(std::string(who) + ", " + name + ": cannot connect: " + host->Fault());
        else if (!body(*host, workload, program))
            table_.Fault(std::string(who) + ", " + name + ": " + workload.Fault());
        host.reset();
        phone.Unplug();
        if (settings_.verbose)
            std::fprintf(stderr, "%s, %s: connected in %.3f s, session %.3f s\n", who, name.c_str(),
                         std::chrono::duration<double>(connectedAt - start).count(),
                         std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }

    // The plug-in's session, then the plain program's.
    void Both(const std::string& name, const PhoneOptions& options, const Body& body)
    {
        Session(name, FigureTable::Plugin, options, body);
        Session(name, FigureTable::Baseline, options, body);
    }

    void Throughput(const std::string& figure, const Link& link, FigureTable::Program program,
                    const Workload::Sample& sample)
    {
        std::string where = figure + ", " + link.name;
        table_.Add(where, "MB/s", program, sample.bytesPerSecond / kMegabyte);
        if (!link.model.IsInstant())
            table_.Add(where + ", of link", "fraction", program, sample.bytesPerSecond / link.model.bytesPerSecond);
        table_.Add("CPU " + where, "s/GB", program, sample.cpuSecondsPerGigabyte);
    }

    void Repeat(const Link& link)
    {
        for (size_t size : kSizes) {
            PhoneOptions options;
            options.link = link.model;
            options.application = PhoneOptions::Application::Source;
            options.sourceChunk = size;
            std::string figure = "receive " + SizeName(size);
            Both(figure + ", " + link.name, options, [&](BenchHost&, Workload& w, FigureTable::Program p) {
                Workload::Sample sample;
                if (!w.Receive(settings_.window, sample))
                    return false;
                Throughput(figure, link, p, sample);
                return true;
            });
        }
        PhoneOptions sink;
        sink.link = link.model;
        sink.application = PhoneOptions::Application::Sink;
        Both(std::string("send, ") + link.name, sink, [&](BenchHost&, Workload& w, FigureTable::Program p) {
            for (size_t size : kSizes) {
                Workload::Sample sample;
                if (!w.Send(size, settings_.window, sample))
                    return false;
                Throughput("send " + SizeName(size), link, p, sample);
            }
            // Once everything sent has arrived, the link idles, still connected.
            if (link.model.IsInstant())
                return true;
            double wakeups = 0;
            double switches = 0;
            if (!w.Idle(settings_.idleSeconds, wakeups, switches))
                return false;
            table_.Add("wake-ups of an idle connected link", "1/s", p, wakeups);
            table_.Add("context switches in the process while idle", "1/s", p, switches);
            return true;
        });
        PhoneOptions echo;
        echo.link = link.model;
        Both(std::string("echo, ") + link.name, echo, [&](BenchHost&, Workload& w, FigureTable::Program p) {
            for (size_t size : kSizes) {
                Workload::Sample sample;
                if (!w.Echo(size, settings_.window, sample))
                    return false;
                Throughput("echo " + SizeName(size), link, p, sample);
            }
            std::vector<double> trips;
            if (!w.RoundTrips(settings_.roundTrips, trips))
                return false;
            std::sort(trips.begin(), trips.end());
            std::string figure = std::string("64 B echo round trip, ") + link.name;
            table_.Add(figure + ", median", "us", p, trips[trips.size() / 2]);
            table_.Add(figure + ", 99th percentile", "us", p, trips[trips.size() * 99 / 100]);
            return true;
        });
    }

    // Counted apart from the timed runs: every counted allocation walks the stack.
    void Allocations()
    {
        const double megabytes = settings_.countedBytes / kMegabyte;
        auto record = [&](const std::string& what, FigureTable::Program p, const AllocationCounter::Counts& counts) {
            auto own = counts.byOwner[p == FigureTable::Plugin ? AllocationCounter::Plugin : AllocationCounter::Baseline];
            table_.Add("heap allocations by the program per MB " + what, "1/MB", p, own / megabytes);
            table_.Add("heap allocations by libusb per MB " + what, "1/MB", p,
                       counts.byOwner[AllocationCounter::Libusb] / megabytes);
        };
        PhoneOptions source;
        source.link = LinkModel::Instant();
        source.application = PhoneOptions::Application::Source;
        Both("allocations while receiving", source, [&](BenchHost& host, Workload& w, FigureTable::Program p) {
            if (!w.ReceiveBytes(settings_.countWarmUpBytes))
                return false;
            auto* plugin = dynamic_cast<PluginHost*>(&host);
            uint64_t timers = plugin ? plugin->TimerRequests() : 0;
            AllocationCounter::Start();
            bool done = w.ReceiveBytes(settings_.countedBytes);
            AllocationCounter::Counts counts = AllocationCounter::Stop();
            record("received (16 KiB)", p, counts);
            table_.Add("toolkit timer requests per MB received (16 KiB)", "1/MB", p,
                       plugin ? (plugin->TimerRequests() - timers) / megabytes : 0);
            return done;
        });
        PhoneOptions echo;
        echo.link = LinkModel::Instant();
        Both("allocations while echoing", echo, [&](BenchHost&, Workload& w, FigureTable::Program p) {
            if (!w.EchoBytes(16384, settings_.countWarmUpBytes))
                return false;
            AllocationCounter::Start();
            bool done = w.EchoBytes(16384, settings_.countedBytes);
            record("echoed (16 KiB)", p, AllocationCounter::Stop());
            return done;
        });
    }

    FigureTable& Table() { return table_; }

private:
    const Settings& settings_;
    emuphone::PhoneWorld world_{emuphone::PhoneWorld::IoctlPath::Interposed};
    FigureTable table_;
};

bool Parse(int argc, char** argv, Settings& settings)
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
            settings.repeats = std::clamp(std::atoi(argv[++i]), 1, kMostRepeats);
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
    Settings settings;
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
    const Link links[] = {{"instant link", LinkModel::Instant()}, {"high-speed link", LinkModel::HighSpeed()}};
    for (int repeat = 0; repeat < settings.repeats; ++repeat) {
        for (const Link& link : links)
            bench.Repeat(link);
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
