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

// Each open descriptor as "number=what it refers to".
std::vector<std::string> DescriptorTargets() {
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

int OpenDescriptors() { return static_cast<int>(DescriptorTargets().size()); }

std::string DescribeDescriptors() {
    std::string listing;
    for (const std::string& target : DescriptorTargets()) {
        listing += " " + target;
    }
    return listing;
}

Toolkit::Fields At(const emuphone::EmulatedPhone& phone, Toolkit::Fields fields) {
    fields["bus"] = std::to_string(phone.BusNumber());
    fields["dev"] = std::to_string(phone.Address());
    return fields;
}

bool Logged(const ToolkitConnection& connection, const std::string& text) {
    const std::vector<std::string>& log = connection.Log();
    return std::any_of(log.begin(), log.end(), [&](const std::string& line) { return line.find(text) != line.npos; });
}

EchoRun Echo(Toolkit& toolkit, ToolkitConnection& connection, uint64_t total, size_t piece,
             std::chrono::milliseconds patience) {
    return Echo(toolkit, connection, total, [piece](uint64_t) { return piece; }, patience);
}

EchoRun Echo(Toolkit& toolkit, ToolkitConnection& connection, uint64_t total, const PieceSizes& pieces,
             std::chrono::milliseconds patience) {
    EchoRun run;
    std::vector<uint8_t> expected;
    const Clock::time_point start = Clock::now();
    const Clock::time_point end = start + patience;
    while (run.returned < total && run.error == 0 && !run.mismatch && connection.Failure() == 0) {
        if (Clock::now() > end) {
            ADD_FAILURE() << "echo stalled: " << run.returned << " of " << total << " bytes back";
            break;
        }
        if (run.sent < total) {
            std::vector<uint8_t> bytes(static_cast<size_t>(std::min<uint64_t>(pieces(run.sent), total - run.sent)));
            emuphone::StreamPattern::Fill(run.sent, bytes.data(), bytes.size());
            const Toolkit::Transfer written = toolkit.Write(connection, bytes);
            run.error = written.result;
            run.sent += written.result == KestoBearerErrorNone ? written.length : 0;
        }
        toolkit.RunOnce(std::chrono::milliseconds(10));
        for (Toolkit::Transfer read = toolkit.Read(connection, 16384); run.error == 0 && !run.mismatch;
             read = toolkit.Read(connection, 16384)) {
            run.error = read.result;
            if (read.result != KestoBearerErrorNone || read.bytes.empty()) {
                break;
            }
            expected.resize(read.bytes.size());
            emuphone::StreamPattern::Fill(run.returned, expected.data(), expected.size());
            run.mismatch = run.returned + read.bytes.size() > run.sent || read.bytes != expected;
            EXPECT_FALSE(run.mismatch) << "the stream differs in the " << read.bytes.size() << " bytes from offset "
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

ToolkitConnection& PhoneStory::Connect(emuphone::EmulatedPhone& phone, Toolkit::Fields fields) {
    ToolkitConnection& connection = toolkit->CreateConnection(At(phone, std::move(fields)));
    connections_.push_back(&connection);
    EXPECT_EQ(KestoBearerErrorNone, toolkit->Establish(connection));
    return connection;
}

bool PhoneStory::RunUntilConnected(ToolkitConnection& connection, Ms timeout) {
    return toolkit->RunUntil([&] { return connection.Connected() || connection.Failure() != 0; }, timeout) &&
           connection.Connected();
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
    EXPECT_EQ(descriptorsAtStart, OpenDescriptorsOnceSettled(descriptorsAtStart))
        << "descriptors left open; at start:" << listingAtStart << "\nnow:" << DescribeDescriptors();
}

// Descriptors are closed a moment late on other threads: a phone pulled by its
// own trigger leaves the bus on its timer thread, and umockdev's worker closes
// its end of a device node after the client closed its own. A leak never settles.
int OpenDescriptorsOnceSettled(int expected) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    int count = OpenDescriptors();
    for (int last = -1; count != (expected < 0 ? last : expected) && std::chrono::steady_clock::now() < end;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(expected < 0 ? 100 : 5));
        last = std::exchange(count, OpenDescriptors());
    }
    return count;
}
