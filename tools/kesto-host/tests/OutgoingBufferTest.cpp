#include "kesto-host/OutgoingBuffer.h"

#include <gtest/gtest.h>

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

// The phone ends a read only on a short packet: a whole number of packets
// (64 divides every packet size) would wait in the phone for more.
TEST(OutgoingBuffer, NoTransferIsAWholeNumberOfPacketsOrLargerThanThePhoneReads) {
    for (size_t size : {1u, 63u, 64u, 512u, 1024u, 4096u, 16383u, 16384u, 16447u, 65536u, 100000u}) {
        OutgoingBuffer buffer;
        Plugin plugin;
        std::vector<uint8_t> input = Bytes(size);
        buffer.Append(input.data(), input.size());
        ASSERT_EQ(buffer.OfferTo(plugin.Writer()), KestoBearerErrorNone);
        std::vector<uint8_t> sent;
        for (const std::vector<uint8_t>& w : plugin.writes) {
            EXPECT_NE(w.size() % 64, 0u) << "input of " << size;
            EXPECT_LE(w.size(), OutgoingBuffer::kMaxPiece);
            sent.insert(sent.end(), w.begin(), w.end());
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
