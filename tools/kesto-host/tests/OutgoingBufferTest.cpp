#include "kesto-host/OutgoingBuffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>

#include "kesto/KestoBearer.h"

namespace {

// A plug-in side that records every write it takes, takes nothing while busy,
// or fails with `result`.
struct Plugin {
    std::vector<std::vector<uint8_t>> writes;
    bool busy = false;
    int result = KestoBearerErrorNone;

    OutgoingBuffer::WriteFunction Writer() {
        return [this](const uint8_t* data, uint32_t& length) -> int {
            if (result != KestoBearerErrorNone) {
                return result;
            }
            if (busy) {
                length = 0;
            } else {
                writes.emplace_back(data, data + length);
            }
            return KestoBearerErrorNone;
        };
    }
};

std::vector<uint8_t> Bytes(size_t n) {
    std::vector<uint8_t> bytes(n);
    std::iota(bytes.begin(), bytes.end(), 0);
    return bytes;
}

// Whole packets go out as they are: ending them is the plug-in's business. A
// write the plug-in fails or refuses (one is in flight) keeps everything for
// later, and what is appended meanwhile joins it.
TEST(OutgoingBuffer, PiecesAreTheDataAsItCameCutOnlyAtOnePhoneReadAndNothingRefusedIsLost) {
    for (size_t size : {6u, 512u, 1024u, 16384u, 16385u, 65536u, 100000u}) {
        SCOPED_TRACE(testing::Message() << "input of " << size);
        OutgoingBuffer buffer;
        Plugin plugin;
        const std::vector<uint8_t> input = Bytes(size);
        buffer.Append(input.data(), size - 5);
        plugin.result = KestoBearerErrorFailed;
        EXPECT_EQ(buffer.OfferTo(plugin.Writer()), KestoBearerErrorFailed);
        plugin.result = KestoBearerErrorNone;
        plugin.busy = true;
        size_t taken = 99;
        EXPECT_EQ(buffer.OfferTo(plugin.Writer(), &taken), KestoBearerErrorNone);
        EXPECT_EQ(taken, 0u);
        EXPECT_EQ(buffer.Size(), size - 5);

        plugin.busy = false;
        buffer.Append(input.data() + size - 5, 5);
        EXPECT_EQ(buffer.OfferTo(plugin.Writer(), &taken), KestoBearerErrorNone);
        EXPECT_EQ(taken, size);
        std::vector<uint8_t> sent;
        for (size_t i = 0; i < plugin.writes.size(); ++i) {
            const size_t expected = std::min<size_t>(OutgoingBuffer::kMaxPiece, size - sent.size());
            EXPECT_EQ(plugin.writes[i].size(), expected) << "write " << i;
            sent.insert(sent.end(), plugin.writes[i].begin(), plugin.writes[i].end());
        }
        EXPECT_EQ(sent, input);
        EXPECT_TRUE(buffer.Empty());
    }
}

} // namespace
