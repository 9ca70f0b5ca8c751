#include "kesto-host/OutgoingBuffer.h"

#include <gtest/gtest.h>

#include <numeric>

#include "kesto/KestoBearer.h"

namespace {

// A plug-in side that records every write it takes, or refuses while busy.
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
                return KestoBearerErrorNone;
            }
            writes.emplace_back(data, data + length);
            return KestoBearerErrorNone;
        };
    }
};

std::vector<uint8_t> Bytes(size_t n) {
    std::vector<uint8_t> bytes(n);
    std::iota(bytes.begin(), bytes.end(), 0);
    return bytes;
}

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

TEST(OutgoingBuffer, HalfAKilobyteGoesOutAsAShortPieceThenTheHeldByte) {
    OutgoingBuffer buffer;
    Plugin plugin;
    std::vector<uint8_t> input = Bytes(512);
    buffer.Append(input.data(), input.size());
    buffer.OfferTo(plugin.Writer());
    ASSERT_EQ(plugin.writes.size(), 2u);
    EXPECT_EQ(plugin.writes[0].size(), 511u);
    EXPECT_EQ(plugin.writes[1], std::vector<uint8_t>{input.back()});
}

TEST(OutgoingBuffer, WriteInFlightKeepsEverythingForLater) {
    OutgoingBuffer buffer;
    Plugin plugin;
    std::vector<uint8_t> input = Bytes(300);
    buffer.Append(input.data(), input.size());
    plugin.busy = true;
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

TEST(OutgoingBuffer, FailedWriteReportsItsCodeAndKeepsTheBytes) {
    OutgoingBuffer buffer;
    Plugin plugin;
    plugin.result = KestoBearerErrorFailed;
    std::vector<uint8_t> input = Bytes(10);
    buffer.Append(input.data(), input.size());
    EXPECT_EQ(buffer.OfferTo(plugin.Writer()), KestoBearerErrorFailed);
    EXPECT_EQ(buffer.Size(), 10u);
}

} // namespace
