#include "PhoneStory.h"

#include <dlfcn.h>

#include <algorithm>
#include <filesystem>
#include <thread>
#include <utility>

#include "emulated-phone/StreamPattern.h"

using Clock = std::chrono::steady_clock;

Toolkit::Options PluginToolkit() {
    // Loaded once for the process: a toolkit does not unload its bearers between connections.
    static void* const library = dlopen(KESTO_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        ADD_FAILURE() << dlerror();
        return Toolkit::Options{nullptr};
    }
    return Toolkit::Options{reinterpret_cast<KestoBearerInitializeFn>(dlsym(library, "KestoBearerInitialize"))};
}

std::vector<std::string> OpenDescriptors() {
    std::vector<std::string> targets;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", error)) {
        const std::filesystem::path target = std::filesystem::read_symlink(entry.path(), error);
        if (!error) {
            targets.push_back(entry.path().filename().string() + "=" + target.string());
        }
    }
    return targets;
}

// Descriptors are closed a moment late on other threads: a phone pulled by its
// own trigger leaves the bus on its timer thread, and umockdev's worker closes
// its end of a device node after the client closed its own. A leak never settles.
int OpenDescriptorsOnceSettled(int expected) {
    const auto end = Clock::now() + std::chrono::seconds(2);
    int count = static_cast<int>(OpenDescriptors().size());
    for (int last = -1; count != (expected < 0 ? last : expected) && Clock::now() < end;) {
        std::this_thread::sleep_for(Ms(expected < 0 ? 100 : 5));
        last = std::exchange(count, static_cast<int>(OpenDescriptors().size()));
    }
    return count;
}

Toolkit::Fields At(const emuphone::EmulatedPhone& phone) {
    return {{"bus", std::to_string(phone.BusNumber())}, {"dev", std::to_string(phone.Address())}};
}

bool RunUntilConnected(Toolkit& toolkit, ToolkitConnection& connection, Ms timeout) {
    return toolkit.RunUntil([&] { return connection.Connected() || connection.Failure() != 0; }, timeout) &&
           connection.Connected();
}

EchoRun Echo(Toolkit& toolkit, ToolkitConnection& connection, uint64_t total, const PieceSizes& pieces,
             Ms patience) {
    EchoRun run;
    uint64_t sent = 0;
    bool mismatch = false;
    std::vector<uint8_t> expected;
    const Clock::time_point start = Clock::now();
    while (run.returned < total && run.error == 0 && !mismatch && connection.Failure() == 0) {
        if (Clock::now() > start + patience) {
            ADD_FAILURE() << "echo stalled: " << run.returned << " of " << total << " bytes back";
            break;
        }
        if (sent < total) {
            std::vector<uint8_t> bytes(static_cast<size_t>(std::min<uint64_t>(pieces(sent), total - sent)));
            emuphone::StreamPattern::Fill(sent, bytes.data(), bytes.size());
            const Toolkit::Transfer written = toolkit.Write(connection, bytes);
            run.error = written.result;
            sent += written.result == KestoBearerErrorNone ? written.length : 0;
        }
        toolkit.RunOnce(Ms(10));
        for (Toolkit::Transfer read = toolkit.Read(connection, 16384); run.error == 0 && !mismatch;
             read = toolkit.Read(connection, 16384)) {
            run.error = read.result;
            if (read.result != KestoBearerErrorNone || read.bytes.empty()) {
                break;
            }
            expected.resize(read.bytes.size());
            emuphone::StreamPattern::Fill(run.returned, expected.data(), expected.size());
            mismatch = run.returned + read.bytes.size() > sent || read.bytes != expected;
            EXPECT_FALSE(mismatch) << "the stream differs in the " << read.bytes.size() << " bytes from offset "
                                   << run.returned;
            run.returned += read.bytes.size();
        }
    }
    run.error = run.error != 0 ? run.error : connection.Failure();
    run.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return run;
}

emuphone::EmulatedPhone& PhoneStory::Plug(const emuphone::PhoneOptions& options) {
    phones_.push_back(&world.AddPhone(options));
    return *phones_.back();
}

ToolkitConnection& PhoneStory::Connect(emuphone::EmulatedPhone& phone) {
    ToolkitConnection& connection = toolkit->CreateConnection(At(phone));
    connections_.push_back(&connection);
    EXPECT_EQ(KestoBearerErrorNone, toolkit->Establish(connection));
    return connection;
}

void PhoneStory::TearDown() {
    if (HasFailure()) {
        for (const ToolkitConnection* connection : connections_) {
            for (const std::string& line : connection->Log()) {
                std::printf("  plug-in: %s\n", line.c_str());
            }
        }
    }
    toolkit.reset();
    for (emuphone::EmulatedPhone* phone : phones_) {
        phone->Unplug();
    }
    const int atStart = static_cast<int>(descriptorsAtStart.size());
    EXPECT_EQ(atStart, OpenDescriptorsOnceSettled(atStart)) << "descriptors left open; at start: "
        << testing::PrintToString(descriptorsAtStart) << "\nnow: " << testing::PrintToString(OpenDescriptors());
}
