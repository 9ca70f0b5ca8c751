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

// A toolkit of the shipped plug-in, loaded with dlopen as a toolkit loads it.
Toolkit::Options PluginToolkit();
int OpenDescriptors();
// Each open descriptor with what it refers to, for a message.
std::string DescribeDescriptors();
// The count once other threads' late closes are done, waiting at most two seconds for
// expected, or with -1 until the count holds still for 100 ms.
int OpenDescriptorsOnceSettled(int expected);

Toolkit::Fields At(const emuphone::EmulatedPhone& phone, Toolkit::Fields fields = {});
bool Logged(const ToolkitConnection& connection, const std::string& text);

// The toolkit's side of a stream to the phone's echo application.
struct EchoRun {
    uint64_t sent = 0;
    uint64_t returned = 0; // every byte compared with the pattern at its offset
    int error = 0;         // the first non-zero result the toolkit got, slot or event loop
    bool mismatch = false;
    double seconds = 0;
};

// The length of the write that starts at stream offset `sent`.
using PieceSizes = std::function<size_t(uint64_t sent)>;

// Writes `total` pattern bytes in pieces of `piece` and reads them back, until
// all are back, an error reaches the toolkit, or `patience` has passed.
EchoRun Echo(Toolkit& toolkit, ToolkitConnection& connection, uint64_t total, size_t piece = 16000,
             std::chrono::milliseconds patience = std::chrono::seconds(20));
EchoRun Echo(Toolkit& toolkit, ToolkitConnection& connection, uint64_t total, const PieceSizes& pieces,
             std::chrono::milliseconds patience = std::chrono::seconds(20));

// Each test is a story of a phone on the emulated bus and a toolkit that loads
// the plug-in. The world is the test's own; the fixture checks at the end that
// with the connections destroyed and the phones unplugged no descriptor is left.
class PhoneStory : public testing::Test {
protected:
    using Ms = std::chrono::milliseconds;

    emuphone::EmulatedPhone& Plug(const emuphone::PhoneOptions& options = {});
    // A connection to the phone where it sits now, established.
    ToolkitConnection& Connect(emuphone::EmulatedPhone& phone, Toolkit::Fields fields = {});
    bool RunUntilConnected(ToolkitConnection& connection, Ms timeout = Ms(5000));
    void TearDown() override;

    emuphone::PhoneWorld world{emuphone::PhoneWorld::IoctlPath::Interposed};
    const int descriptorsAtStart = OpenDescriptors();
    const std::string listingAtStart = DescribeDescriptors();
    std::optional<Toolkit> toolkit{std::in_place, PluginToolkit()};

private:
    std::vector<emuphone::EmulatedPhone*> phones_;
    std::vector<ToolkitConnection*> connections_;
};
