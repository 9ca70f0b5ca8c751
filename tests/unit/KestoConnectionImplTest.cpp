#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "bearer/KestoBearerImpl.h"
#include "bearer/KestoConnectionImpl.h"
#include "harness/Toolkit.h"
#include "support/PatternText.h"

using testing::ElementsAre;
using Lookup = ToolkitConnection::Lookup;

namespace {

// A connection whose every toolkit-facing operation throws: a std::exception,
// or an int, which is none.
class ThrowingConnection : public KestoConnectionImpl {
public:
    ThrowingConnection(void* bearer, ToolkitConnection& record, bool standard = true)
        : KestoConnectionImpl(static_cast<KestoBearerImpl*>(bearer), record.Context()), standard_(standard) {}

    int Establish() override { Throw(); }
    int Read(uint8_t*, uint32_t*) override { Throw(); }
    int Write(const uint8_t*, uint32_t*) override { Throw(); }
    int GetEventHandle(int*, intptr_t*) override { Throw(); }
    int GetActivity(uint32_t*) override { Throw(); }
    char* GetProperty(int) override { Throw(); }
    int TimerExpired() override { Throw(); }

private:
    [[noreturn]] void Throw() const {
        if (standard_) {
            throw std::runtime_error("phone unplugged");
        }
        throw 42;
    }

    bool standard_;
};

// The fenced connection slots, in table order, as the toolkit calls them.
// When the operation throws, GetProperty answers a null string and the others 11.
const char* const kFencedSlots[] = {"Establish",   "Read",        "Write",       "GetEventHandle",
                                    "GetActivity", "GetProperty", "TimerExpired"};

intptr_t CallSlot(const KestoBearerInterface& table, void* connection, int slot) {
    uint8_t buffer[16] = {};
    uint32_t length = sizeof buffer;
    int handle = -1;
    intptr_t extra = 0;
    switch (slot) {
    case 0: return table.connectionEstablish(connection);
    case 1: return table.connectionRead(connection, buffer, &length);
    case 2: return table.connectionWrite(connection, buffer, &length);
    case 3: return table.connectionGetEventHandle(connection, &handle, &extra);
    case 4: return table.connectionGetActivity(connection, &length);
    case 5: return reinterpret_cast<intptr_t>(table.connectionGetProperty(connection, KestoConnectionPropertyTransport));
    default: return table.connectionTimerExpired(connection);
    }
}

class ConnectionFrame : public testing::Test {
protected:
    Toolkit toolkit{{KestoBearerInitialize}};
    ToolkitConnection& record = toolkit.AddConnection({{"bus", "3"}});
    ThrowingConnection connection{toolkit.Bearer(), record};
};

// A standard exception becomes a log line and a failure; any other passes
// through, logging nothing.
TEST_F(ConnectionFrame, EveryFencedSlotTurnsAStandardExceptionIntoALogLineAndAFailure) {
    ThrowingConnection foreign(toolkit.Bearer(), record, false);
    std::vector<std::string> expected;
    for (int slot = 0; slot < 7; ++slot) {
        EXPECT_EQ(slot == 5 ? 0 : KestoBearerErrorFailed, CallSlot(toolkit.Interface(), &connection, slot))
            << kFencedSlots[slot];
        EXPECT_THROW(CallSlot(toolkit.Interface(), &foreign, slot), int) << kFencedSlots[slot];
        expected.push_back(std::string("KestoConnectionImpl::") + kFencedSlots[slot] +
                           " caught exception: phone unplugged\n");
    }
    EXPECT_EQ(expected, record.Log());
    EXPECT_TRUE(toolkit.BearerLog().empty());
}

TEST_F(ConnectionFrame, LongLogLinesReachTheToolkitCutTo255Characters) {
    for (size_t length : {254, 255, 256, 300}) {
        connection.Log("%s", PatternText(length).c_str());
        EXPECT_EQ(PatternText(length).substr(0, 255), record.Log().back()) << length << " characters";
    }
}

TEST_F(ConnectionFrame, StatusIsKeptWhateverTheToolkitAnswers) {
    const std::pair<int, int> answersAndStatuses[] = {{-1, KestoConnectionStatusConnected},
                                                      {0, KestoConnectionStatusConnecting},
                                                      {11, KestoConnectionStatusConnecting}};
    for (const auto& [answer, status] : answersAndStatuses) {
        toolkit.AnswerStatusWith(answer);
        EXPECT_EQ(answer, connection.SetStatus(status));
        EXPECT_EQ(status, connection.Status()) << "toolkit answered " << answer;
    }
    EXPECT_THAT(record.Statuses(), ElementsAre(4, 3, 3));
}

TEST_F(ConnectionFrame, FieldsAreFetchedWithTheCallersFlagAndHandedBack) {
    int word = 0;
    char* bus = connection.GetParameter("bus", 1, &word);
    ASSERT_STREQ("3", bus);
    connection.FreeString(bus);
    EXPECT_EQ(nullptr, connection.GetParameter("dev", 0, nullptr));
    EXPECT_THAT(record.Lookups(), ElementsAre(Lookup{"bus", 1, true, true}, Lookup{"dev", 0, false, false}));
}

// Both ways a toolkit can lack a connection log: a null slot, or a support
// table that ends before it.
TEST(ToolkitWithoutConnectionLog, ConnectionMessagesReachTheBearerLog) {
    Toolkit::Options nullSlot{KestoBearerInitialize};
    nullSlot.connectionLog = false;
    Toolkit::Options shortTable{KestoBearerInitialize};
    shortTable.supportSize = offsetof(KestoBearerSupportAPI, connectionLog);
    for (const Toolkit::Options& options : {nullSlot, shortTable}) {
        Toolkit toolkit(options);
        ToolkitConnection& record = toolkit.AddConnection();
        ThrowingConnection connection(toolkit.Bearer(), record);
        EXPECT_EQ(KestoBearerErrorFailed, toolkit.Interface().connectionEstablish(&connection));
        EXPECT_THAT(toolkit.BearerLog(), ElementsAre("KestoConnectionImpl::Establish caught exception: phone unplugged\n"));
        EXPECT_TRUE(record.Log().empty());
    }
}

} // namespace
