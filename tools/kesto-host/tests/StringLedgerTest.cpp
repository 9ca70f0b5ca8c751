#include "kesto-host/StringLedger.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

TEST(StringLedger, PluginThatHandsEveryParameterBackBalances) {
    StringLedger ledger;
    char* bus = ledger.Lend("1");
    char* dev = ledger.Lend("7");
    EXPECT_STREQ(bus, "1");
    EXPECT_TRUE(ledger.HandBack(dev));
    EXPECT_TRUE(ledger.HandBack(bus));
    EXPECT_TRUE(ledger.Balanced());
    EXPECT_EQ(ledger.Lent(), 2u);
    EXPECT_EQ(ledger.HandedBack(), 2u);
}

TEST(StringLedger, KeptParameterStringIsOutstanding) {
    StringLedger ledger;
    ledger.Lend("Norvane");
    EXPECT_TRUE(ledger.HandBack(ledger.Lend("AAPTest")));
    EXPECT_EQ(ledger.Outstanding(), 1u);
    EXPECT_FALSE(ledger.Balanced());
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

TEST(StringLedger, PropertyBufferComesBackOnceAsAProperty) {
    StringLedger ledger;
    char* text = ledger.Allocate(4);
    std::memcpy(text, "USB", 4);
    EXPECT_FALSE(ledger.Balanced());
    EXPECT_TRUE(ledger.Release(text));
    EXPECT_FALSE(ledger.Release(text));
    EXPECT_TRUE(ledger.Balanced());
}

TEST(StringLedger, PropertyBufferFreedAsAParameterIsCaught) {
    StringLedger ledger;
    char* text = ledger.Allocate(4);
    EXPECT_FALSE(ledger.HandBack(text));
    EXPECT_EQ(ledger.BuffersNotReleased(), 1u);
    EXPECT_FALSE(ledger.Balanced());
}

} // namespace
