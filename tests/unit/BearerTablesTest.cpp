#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>

#include "bearer/KestoBearerImpl.h"
#include "harness/Toolkit.h"
#include "support/AllocationFailures.h"

namespace {

constexpr size_t kWord = sizeof(void*);
constexpr size_t kSupportSlots = sizeof(KestoBearerSupportAPI) / kWord;
constexpr uintptr_t kUntouched = 0x5A5A5A5A;

// A toolkit's table seen as words, with room past where its size ends.
using Words = std::array<uintptr_t, 25>;

KestoBearerInterface* AsInterface(Words& words) { return reinterpret_cast<KestoBearerInterface*>(words.data()); }
KestoBearerSupportAPI* AsSupport(Words& words) { return reinterpret_cast<KestoBearerSupportAPI*>(words.data()); }

template <typename Table>
Words AsWords(const Table& table) {
    Words words{};
    std::memcpy(words.data(), &table, sizeof table);
    return words;
}

// A table size in bytes and the number of slots it should carry.
struct SizeCase {
    size_t size;
    size_t slots;
};

// A second bearer is loaded into raw tables next to the harness toolkit's own,
// whose tables serve as the reference and as the source of support functions.
class BearerTables : public testing::Test {
protected:
    void ExpectInterfaceFilled(const SizeCase& c) {
        Words table;
        table.fill(kUntouched);
        void* bearer = KestoBearerInitialize("USBAAP", toolkit.Context(), AsInterface(table), c.size,
                                             &toolkit.Support(), sizeof(KestoBearerSupportAPI));
        ASSERT_NE(nullptr, bearer);
        const Words full = AsWords(toolkit.Interface());
        for (size_t i = 0; i < table.size(); ++i) {
            EXPECT_EQ(i < c.slots ? full[i] : kUntouched, table[i]) << "slot " << i << " of " << c.size << " bytes";
        }
        toolkit.Interface().bearerTerminate(bearer);
    }

    void ExpectSupportCopied(const SizeCase& c) {
        Words table = AsWords(toolkit.Support());
        std::fill(table.begin() + kSupportSlots, table.end(), kUntouched);
        KestoBearerInterface scratch{};
        auto* bearer = static_cast<KestoBearerImpl*>(
            KestoBearerInitialize("USBAAP", toolkit.Context(), &scratch, sizeof scratch, AsSupport(table), c.size));
        ASSERT_NE(nullptr, bearer);
        // The toolkit's table may be gone once the entry point returns.
        table.fill(0);
        const Words reference = AsWords(toolkit.Support());
        const Words copy = AsWords(bearer->Support());
        for (size_t i = 0; i < kSupportSlots; ++i) {
            EXPECT_EQ(i < c.slots ? reference[i] : 0, copy[i]) << "support slot " << i << " of " << c.size << " bytes";
        }
        if (c.slots == kSupportSlots) {
            // Copying past the nine slots would have overwritten the name behind them.
            EXPECT_EQ("USBAAP", toolkit.TakeProperty(scratch.bearerGetProperty(bearer, KestoBearerPropertyName)));
        }
        scratch.bearerTerminate(bearer);
    }

    Toolkit toolkit{{KestoBearerInitialize}};
};

TEST_F(BearerTables, ToolkitTableGetsTheWholeSlotsItsSizeHoldsAndNothingBeyond) {
    const SizeCase cases[] = {{0, 0},
                              {kWord - 1, 0},
                              {3 * kWord, 3},
                              {4 * kWord - 1, 3},
                              {11 * kWord - 1, 10},
                              {11 * kWord, 11},
                              {25 * kWord, 11}};
    for (const SizeCase& c : cases) {
        ExpectInterfaceFilled(c);
    }
}

TEST_F(BearerTables, ShortSupportTableLeavesTheMissingSlotsNullAndALongOneIsCutAtNine) {
    const SizeCase cases[] = {{0, 0}, {5 * kWord, 5}, {8 * kWord, 8}, {9 * kWord, 9}, {25 * kWord, 9}};
    for (const SizeCase& c : cases) {
        ExpectSupportCopied(c);
    }
}

TEST_F(BearerTables, ToolkitOutOfMemoryGetsNoBearerAndAnUntouchedTable) {
    ScopedAllocationFailures failures;
    Words table;
    table.fill(kUntouched);
    AllocationFailures::FailAfter(0);
    EXPECT_EQ(nullptr, KestoBearerInitialize("USBAAP", toolkit.Context(), AsInterface(table), sizeof table,
                                             &toolkit.Support(), sizeof(KestoBearerSupportAPI)));
    for (uintptr_t word : table) {
        EXPECT_EQ(kUntouched, word);
    }
    EXPECT_TRUE(toolkit.BearerLog().empty());
}

} // namespace
