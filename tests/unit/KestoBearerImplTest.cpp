#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>

#include "bearer/KestoBearerImpl.h"
#include "harness/Toolkit.h"

using testing::ElementsAre;

namespace {

// A bearer whose operations fail by throwing, filled into the toolkit's kind of table.
class ThrowingBearer : public KestoBearerImpl {
public:
    ThrowingBearer(Toolkit& toolkit, KestoBearerInterface* table)
        : KestoBearerImpl("throwing", toolkit.Context(), table, sizeof *table, &toolkit.Support(),
                          sizeof(KestoBearerSupportAPI)) {}
    int CreateConnection(void*, void**) override { throw std::bad_alloc(); }
    char* GetProperty(int) override { throw std::runtime_error("no such property"); }
};

class Bearer : public testing::Test {
protected:
    static Toolkit::Options Named(const char* name) {
        Toolkit::Options options{KestoBearerInitialize};
        options.name = name;
        return options;
    }

    Toolkit toolkit{Named("Head unit USB #2")};
};

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
