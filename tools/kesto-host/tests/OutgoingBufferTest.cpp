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

// Whole packets go out as they are: ending them is the plug-in's business.
TEST(OutgoingBuffer, PiecesAreTheDataAsItCameCutOnlyAtOnePhoneRead) {
    for (size_t size : {1u, 512u, 1024u, 16384u, 16385u, 65536u, 100000u}) {
        OutgoingBuffer buffer;
        Plugin plugin;
        std::vector<uint8_t> input = Bytes(size);
        buffer.Append(input.data(), input.size());
        ASSERT_EQ(buffer.OfferTo(plugin.Writer()), KestoBearerErrorNone);
        std::vector<uint8_t> sent;
        for (size_t i = 0; i < plugin.writes.size(); ++i) {
            const size_t expected = std::min<size_t>(OutgoingBuffer::kMaxPiece, size - sent.size());
            EXPECT_EQ(plugin.writes[i].size(), expected) << "input of " << size << ", write " << i;
            sent.insert(sent.end(), plugin.writes[i].begin(), plugin.writes[i].end());
        }
        EXPECT_EQ(sent, input) << "input of " << size;
        EXPECT_TRUE(buffer.Empty());
    }
}

TEST(OutgoingBuffer, RefusedOrFailedWriteKeepsEverythingForLater) {
    OutgoingBuffer buffer;
    Plugin plugin;
    std::vector<uint8_t> input = Bytes(300);
    buffer.Append(input.data(), input.size());
    plugin.result = KestoBearerErrorFailed;
    EXPECT_EQ(buffer.OfferTo(plugin.Writer()), KestoBearerErrorFailed);
    EXPECT_EQ(buffer.Size(), 300u);

    plugin.result = KestoBearerErrorNone;
    plugin.busy = true; // a write in flight
    size_t taken = 99;
    EXPECT_EQ(buffer.OfferTo(plugin.Writer(), &taken), KestoBearerErrorNone);
    EXPECT_EQ(taken, 0u);
    EXPECT_EQ(buffer.Size(), 300u);

    plugin.busy = false;
    std::vector<uint8_t> more = Bytes(5);
    buffer.Append(more.data(), more.size());
    EXPECT_EQ(buffer.OfferTo(plugin.Writer(), &taken), KestoBearerErrorNone);
    EXPECT_EQ(taken, 305u);
    ASSERT_EQ(plugin.writes.size(), 1u);
    EXPECT_EQ(plugin.writes[0].back(), 4);
}

} // namespace
