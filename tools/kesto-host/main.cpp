// kesto-host: loads the accessory bearer plug-in and drives one connection to a
// phone the way a remote-display toolkit does.

#include <cmath>
#include <cstdio>
#include <memory>

#include "kesto-host/Bridge.h"
#include "kesto-host/DeviceLister.h"
#include "kesto-host/EchoCheck.h"
#include "kesto-host/EventLoop.h"
#include "kesto-host/Options.h"
#include "kesto-host/PluginLoader.h"
#include "kesto-host/ToolkitSession.h"

namespace {

constexpr int kExitUsage = 2;

int RunList(const Options& options, HostLog& log) {
    std::vector<DeviceLister::Device> devices;
    std::string error;
    if (!DeviceLister::Enumerate(devices, error)) {
        log.Error("%s", error.c_str());
        return EventLoop::kExitFailure;
    }
    DeviceLister::Print(devices, options.listAll, stdout);
    return 0;
}

// Sets "bus" and "dev": as given, or those of the phone found on the bus.
bool PickDevice(const Options& options, HostLog& log, CommandFields& fields) {
    int bus = options.bus;
    int address = options.address;
    if (bus == 0) {
        std::vector<DeviceLister::Device> devices;
        DeviceLister::Device chosen;
        std::string error;
        if (!DeviceLister::Enumerate(devices, error) || !DeviceLister::Choose(devices, options.serial, chosen, error)) {
            log.Error("%s", error.c_str());
            return false;
        }
        log.Note("phone at %s", DeviceLister::Describe(chosen).c_str());
        bus = chosen.bus;
        address = chosen.address;
    }
    fields["bus"] = std::to_string(bus);
    fields["dev"] = std::to_string(address);
    return true;
}

std::chrono::milliseconds Milliseconds(double seconds) {
    return std::chrono::milliseconds(std::llround(seconds * 1000));
}

std::unique_ptr<StreamClient> MakeClient(const Options& options, HostLog& log) {
    if (options.mode == Options::Mode::Echo) {
        return std::make_unique<EchoCheck>(log, options.echoBytes, options.pings, options.pingBytes, options.echoSeed,
                                           options.progressBytes);
    }
    return std::make_unique<Bridge>(log, Milliseconds(options.lingerSeconds));
}

// The tool's version, then the plug-in's as its bearer reports it.
int PrintVersion(const Options& options) {
    std::printf("kesto-host %s\n", KESTO_HOST_VERSION);
    std::fflush(stdout);
    HostLog log(options.verbosity == Verbosity::Verbose ? Verbosity::Verbose : Verbosity::Quiet);
    PluginLoader plugin;
    if (!plugin.Load(options.pluginPath, log)) {
        return EventLoop::kExitFailure;
    }
    ToolkitSession session(plugin.Initialize(), CommandFields(), log);
    std::string version;
    if (!session.BearerVersion(version)) {
        return EventLoop::kExitFailure;
    }
    int exitCode = session.Finish(0);
    std::printf("plug-in %s (%s)\n", version.c_str(), plugin.Path().c_str());
    return exitCode;
}

int Connect(const Options& options, HostLog& log, KestoBearerInitializeFn initialize, CommandFields fields) {
    ToolkitSession session(initialize, std::move(fields), log);
    std::unique_ptr<StreamClient> client = MakeClient(options, log);
    int exitCode = EventLoop::kExitFailure;
    if (session.Start()) {
        exitCode = EventLoop(session, *client, log, Milliseconds(options.timeoutSeconds)).Run();
    } else {
        session.ReportStage();
    }
    // A failed establish still leaves a connection to destroy.
    return session.Finish(exitCode);
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    std::string error;
    if (!Options::Parse(argc, argv, options, error)) {
        std::fprintf(stderr, "kesto-host: %s\nTry 'kesto-host --help'.\n", error.c_str());
        return kExitUsage;
    }
    if (options.help) {
        std::fputs(Options::HelpText(), stdout);
        return 0;
    }
    if (options.version) {
        return PrintVersion(options);
    }
    HostLog log(options.verbosity);
    if (options.mode == Options::Mode::List) {
        return RunList(options, log);
    }
    EventLoop::PrepareSignals();
    PluginLoader plugin;
    CommandFields fields = options.fields;
    if (!plugin.Load(options.pluginPath, log) || !PickDevice(options, log, fields)) {
        return EventLoop::kExitFailure;
    }
    return Connect(options, log, plugin.Initialize(), std::move(fields));
}
