#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <cstdint>
#include <cstring>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>

#include "bearer/KestoBearerImpl.h"
#include "harness/Toolkit.h"
#include "support/AllocationFailures.h"

using testing::ElementsAre;

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

// A bearer whose operations fail by throwing, filled into the toolkit's kind of table.
class ThrowingBearer : public KestoBearerImpl {
public:
    ThrowingBearer(Toolkit& toolkit, KestoBearerInterface* table)
        : KestoBearerImpl("throwing", toolkit.Context(), table, sizeof *table, &toolkit.Support(),
                          sizeof(KestoBearerSupportAPI)) {}
    int CreateConnection(void*, void**) override { throw std::bad_alloc(); }
    char* GetProperty(int) override { throw std::runtime_error("no such property"); }
};

// The toolkit's own bearer; where a test loads a second one into raw tables,
// the toolkit's tables serve as the reference and the source of support functions.
class Bearer : public testing::Test {
protected:
    static Toolkit::Options Named(const char* name) {
        Toolkit::Options options{KestoBearerInitialize};
        options.name = name;
        return options;
    }

    Toolkit toolkit{Named("Head unit USB #2")};
};

TEST_F(Bearer, ToolkitTableGetsTheWholeSlotsItsSizeHoldsAndNothingBeyond) {
    const SizeCase cases[] = {{0, 0},
                              {kWord - 1, 0},
                              {3 * kWord, 3},
                              {4 * kWord - 1, 3},
                              {11 * kWord - 1, 10},
                              {11 * kWord, 11},
                              {25 * kWord, 11}};
    const Words full = AsWords(toolkit.Interface());
    for (const SizeCase& c : cases) {
        Words table;
        table.fill(kUntouched);
        void* bearer = KestoBearerInitialize("USBAAP", toolkit.Context(), AsInterface(table), c.size,
                                             &toolkit.Support(), sizeof(KestoBearerSupportAPI));
        ASSERT_NE(nullptr, bearer);
        for (size_t i = 0; i < table.size(); ++i) {
            EXPECT_EQ(i < c.slots ? full[i] : kUntouched, table[i]) << "slot " << i << " of " << c.size << " bytes";
        }
        toolkit.Interface().bearerTerminate(bearer);
    }
}

TEST_F(Bearer, ShortSupportTableLeavesTheMissingSlotsNullAndALongOneIsCutAtNine) {
    const SizeCase cases[] = {{0, 0}, {5 * kWord, 5}, {8 * kWord, 8}, {9 * kWord, 9}, {25 * kWord, 9}};
    const Words reference = AsWords(toolkit.Support());
    for (const SizeCase& c : cases) {
        Words table = reference;
        std::fill(table.begin() + kSupportSlots, table.end(), kUntouched);
        KestoBearerInterface scratch{};
        auto* bearer = static_cast<KestoBearerImpl*>(
            KestoBearerInitialize("USBAAP", toolkit.Context(), &scratch, sizeof scratch, AsSupport(table), c.size));
        ASSERT_NE(nullptr, bearer);
        // The toolkit's table may be gone once the entry point returns.
        table.fill(0);
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
}

TEST_F(Bearer, ToolkitOutOfMemoryGetsNoBearerAndAnUntouchedTable) {
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

TEST_F(Bearer, ToolkitAsksForPropertiesAndGetsFreshCopiesOfKnownOnes) {
    const std::pair<int, std::optional<std::string>> cases[] = {
        {KestoBearerPropertyName, "Head unit USB #2"},
        {KestoBearerPropertyTitle, "Kesto Android Accessory Protocol bearer"},
        {KestoBearerPropertyDescription, "Connects to an Android device, acting as an Accessory"},
        {KestoBearerPropertyVersion, "2.7.0.2565"},
        {4, std::nullopt},
        {1000, std::nullopt},
        {-1, std::nullopt},
        {INT_MIN, std::nullopt}};
    for (const auto& [property, text] : cases) {
        EXPECT_EQ(text, toolkit.BearerProperty(property)) << "property " << property;
    }
}

TEST_F(Bearer, ToolkitOutOfStringsGetsNoPropertyAndNoComplaint) {
    toolkit.FailAllocations(true);
    for (int property = KestoBearerPropertyName; property <= KestoBearerPropertyVersion; ++property) {
        EXPECT_EQ(std::nullopt, toolkit.BearerProperty(property)) << "property " << property;
    }
    EXPECT_TRUE(toolkit.BearerLog().empty());
}

TEST_F(Bearer, FencesTurnStandardExceptionsIntoALogLineAndAFailure) {
    KestoBearerInterface table{};
    ThrowingBearer throwing(toolkit, &table);
    void* connection = &table;
    EXPECT_EQ(KestoBearerErrorFailed, table.bearerCreateConnection(&throwing, nullptr, &connection));
    EXPECT_EQ(&table, connection);
    EXPECT_EQ(nullptr, table.bearerGetProperty(&throwing, KestoBearerPropertyTitle));
    EXPECT_THAT(toolkit.BearerLog(),
                ElementsAre("KestoBearerImpl::CreateConnection caught exception: std::bad_alloc\n",
                            "KestoBearerImpl::GetProperty caught exception: no such property\n"));
}

TEST_F(Bearer, ToolkitMayTerminateOrDestroyANullHandle) {
    toolkit.Interface().bearerTerminate(nullptr);
    toolkit.Interface().connectionDestroy(nullptr);
    EXPECT_TRUE(toolkit.BearerLog().empty());
}

} // namespace
