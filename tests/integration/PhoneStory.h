#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "emulated-phone/PhoneWorld.h"
#include "harness/Toolkit.h"

using Ms = std::chrono::milliseconds;

// A toolkit of the shipped plug-in, loaded with dlopen as a toolkit loads it.
Toolkit::Options PluginToolkit();
// Each open descriptor as "number=what it refers to".
std::vector<std::string> OpenDescriptors();
// The count once other threads' late closes are done, waiting at most two seconds for
// expected, or with -1 until the count holds still for 100 ms.
int OpenDescriptorsOnceSettled(int expected);

Toolkit::Fields At(const emuphone::EmulatedPhone& phone);
bool RunUntilConnected(Toolkit& toolkit, ToolkitConnection& connection, Ms timeout = Ms(5000));

// The toolkit's side of a stream to the phone's echo application.
struct EchoRun {
    uint64_t returned = 0; // every byte compared with the pattern at its offset
    int error = 0;         // the first non-zero result the toolkit got, slot or event loop
    double seconds = 0;
};

// The length of the write that starts at stream offset `sent`.
using PieceSizes = std::function<size_t(uint64_t sent)>;

// Writes `total` pattern bytes in pieces and reads them back, until all are
// back, an error reaches the toolkit, or `patience` has passed.
EchoRun Echo(Toolkit& toolkit, ToolkitConnection& connection, uint64_t total, const PieceSizes& pieces,
             Ms patience = Ms(20000));
inline EchoRun Echo(Toolkit& toolkit, ToolkitConnection& connection, uint64_t total, size_t piece = 16000,
                    Ms patience = Ms(20000)) {
    return Echo(toolkit, connection, total, [piece](uint64_t) { return piece; }, patience);
}

// Each test is a story of a phone on the emulated bus and a toolkit that loads
// the plug-in. The world is the test's own; the fixture checks at the end that
// with the connections destroyed and the phones unplugged no descriptor is left.
class PhoneStory : public testing::Test {
protected:
    emuphone::EmulatedPhone& Plug(const emuphone::PhoneOptions& options = {});
    // A connection to the phone where it sits now, established.
    ToolkitConnection& Connect(emuphone::EmulatedPhone& phone);
    bool RunUntilConnected(ToolkitConnection& connection) { return ::RunUntilConnected(*toolkit, connection); }
    void TearDown() override;

    emuphone::PhoneWorld world{emuphone::PhoneWorld::IoctlPath::Interposed};
    const std::vector<std::string> descriptorsAtStart = OpenDescriptors();
    std::optional<Toolkit> toolkit{std::in_place, PluginToolkit()};

private:
    std::vector<emuphone::EmulatedPhone*> phones_;
    std::vector<ToolkitConnection*> connections_;
};
