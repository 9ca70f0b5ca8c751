#include "kesto-host/StringLedger.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

TEST(StringLedger, EveryParameterHandedBackBalancesAndAKeptOneIsOutstanding) {
    StringLedger ledger;
    char* bus = ledger.Lend("1");
    EXPECT_STREQ(bus, "1");
    EXPECT_TRUE(ledger.HandBack(ledger.Lend("7")));
    EXPECT_EQ(ledger.Outstanding(), 1u);
    EXPECT_FALSE(ledger.Balanced());
    EXPECT_TRUE(ledger.HandBack(bus));
    EXPECT_TRUE(ledger.Balanced());
    EXPECT_EQ(ledger.Lent(), 2u);
    EXPECT_EQ(ledger.HandedBack(), 2u);
}

TEST(StringLedger, SecondOrForeignHandBackIsRefusedAndCounted) {
    StringLedger ledger;
    char* serial = ledger.Lend("serial_number");
    char foreign[] = "not ours";
    EXPECT_TRUE(ledger.HandBack(serial));
    EXPECT_FALSE(ledger.HandBack(serial));
    EXPECT_FALSE(ledger.HandBack(foreign));
    EXPECT_FALSE(ledger.HandBack(nullptr));
    EXPECT_EQ(ledger.BadHandBacks(), 3u);
    EXPECT_FALSE(ledger.Balanced());
}

// A property text comes back to the toolkit once, never through freeString.
TEST(StringLedger, PropertyBufferIsReleasedOnceAndNeverHandedBack) {
    StringLedger ledger;
    char* text = ledger.Allocate(4);
    std::memcpy(text, "USB", 4);
    EXPECT_FALSE(ledger.Balanced());
    EXPECT_FALSE(ledger.HandBack(text));
    EXPECT_EQ(ledger.BuffersNotReleased(), 1u);
    EXPECT_TRUE(ledger.Release(text));
    EXPECT_FALSE(ledger.Release(text));
    EXPECT_EQ(ledger.BuffersNotReleased(), 0u);
}

} // namespace
