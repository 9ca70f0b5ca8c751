// The ledger is what tells a plug-in that leaks or frees twice from one that
// does not: each of its findings, once.
#include "toolkit-standin/ToolkitStrings.h"

#include <gmock/gmock.h>

#include <cstring>

using standin::ToolkitStrings;
using testing::ElementsAre;

TEST(ToolkitStrings, EveryStringThatDoesNotComeBackOnceByItsOwnRoadIsNamed) {
    ToolkitStrings strings;
    char* bus = strings.IssueParameter("bus", "1");
    strings.IssueParameter("dev", "2");
    char* title = strings.Allocate(4);
    std::memcpy(title, "USB", 4);
    char* unterminated = strings.Allocate(2);
    char foreign[] = "not issued";

    strings.Release(bus);
    EXPECT_STREQ("#", bus) << "released text is overwritten";
    EXPECT_EQ("USB", strings.TakeProperty(title));
    EXPECT_EQ(std::nullopt, strings.TakeProperty(nullptr));
    strings.Release(bus);
    strings.Release(nullptr);
    strings.Release(foreign);
    strings.Release(title);
    strings.TakeProperty(title);
    strings.TakeProperty(unterminated);

    EXPECT_THAT(strings.Problems(),
                ElementsAre("field \"bus\" released twice", "freeString given null",
                            "freeString given a string the toolkit never issued",
                            "freeString given the toolkit-owned buffer allocString(4)",
                            "property result is not a live allocString buffer",
                            "property text in allocString(2) lacks its terminator", "field \"dev\" never released"));
}
