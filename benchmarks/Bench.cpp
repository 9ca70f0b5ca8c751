#include "Bench.h"

#include "AllocationCounter.h"
#include "BaselineHost.h"
#include "PluginHost.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>

namespace {

using emuphone::LinkModel;
using emuphone::PhoneOptions;

constexpr double kMegabyte = 1e6;
constexpr int kConnectMs = 5000;
const size_t kSizes[] = {64, 1024, 16384, 65536};

std::string SizeName(size_t size)
{
    return size >= 1024 ? std::to_string(size / 1024) + " KiB" : std::to_string(size) + " B";
}

} // namespace

// One phone, freshly plugged in accessory mode, for one program's session: the
// two programs always meet identical phones in the same state. A phone is not
// reused: a source phone's stream cannot be restarted for the next host.
void Bench::Session(const std::string& name, FigureTable::Program program, PhoneOptions options, const Body& body)
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
void Bench::Both(const std::string& name, const PhoneOptions& options, const Body& body)
{
    Session(name, FigureTable::Plugin, options, body);
    Session(name, FigureTable::Baseline, options, body);
}

void Bench::Throughput(const std::string& figure, const Link& link, FigureTable::Program program,
                       const Workload::Sample& sample)
{
    std::string where = figure + ", " + link.name;
    table_.Add(where, "MB/s", program, sample.bytesPerSecond / kMegabyte);
    if (!link.model.IsInstant())
        table_.Add(where + ", of link", "fraction", program, sample.bytesPerSecond / link.model.bytesPerSecond);
    table_.Add("CPU " + where, "s/GB", program, sample.cpuSecondsPerGigabyte);
}

void Bench::Round(const Link& link)
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
            // What a message costs in reads decides how long the link idles.
            if (!link.model.IsInstant() && sample.bytes) {
                double messages = static_cast<double>(sample.bytes) / size;
                std::string where = figure + ", " + link.name;
                table_.Add(where + ", reads per message", "count", p, sample.reads / messages);
                table_.Add(where + ", zero-length reads per message", "count", p, sample.zeroLengthReads / messages);
            }
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

void Bench::Allocations()
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
