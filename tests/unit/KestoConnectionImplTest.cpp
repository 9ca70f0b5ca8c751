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

enum class Thrown { Standard, Foreign };

// A connection whose every toolkit-facing operation throws: a std::exception
// carrying the given message, or an int, which is no std::exception.
class ThrowingConnection : public KestoConnectionImpl {
public:
    ThrowingConnection(void* bearer, ToolkitConnection& record, Thrown thrown, std::string message = "phone unplugged")
        : KestoConnectionImpl(static_cast<KestoBearerImpl*>(bearer), record.Context()), thrown_(thrown),
          message_(std::move(message)) {}

    int Establish() override { Throw(); }
    int Read(uint8_t*, uint32_t*) override { Throw(); }
    int Write(const uint8_t*, uint32_t*) override { Throw(); }
    int GetEventHandle(int*, intptr_t*) override { Throw(); }
    int GetActivity(uint32_t*) override { Throw(); }
    char* GetProperty(int) override { Throw(); }
    int TimerExpired() override { Throw(); }

private:
    [[noreturn]] void Throw() const {
        if (thrown_ == Thrown::Standard) {
            throw std::runtime_error(message_);
        }
        throw 42;
    }

    Thrown thrown_;
    std::string message_;
};

// One fenced connection slot as the toolkit calls it, with the value it
// answers when its operation throws (a code, or a null string).
struct FencedSlot {
    const char* operation;
    intptr_t failed;
    intptr_t (*call)(const KestoBearerInterface& table, void* connection);
};

const FencedSlot kFencedSlots[] = {
    {"Establish", KestoBearerErrorFailed,
     [](const KestoBearerInterface& t, void* c) -> intptr_t { return t.connectionEstablish(c); }},
    {"Read", KestoBearerErrorFailed,
     [](const KestoBearerInterface& t, void* c) -> intptr_t {
         uint8_t buffer[16];
         uint32_t length = sizeof buffer;
         return t.connectionRead(c, buffer, &length);
     }},
    {"Write", KestoBearerErrorFailed,
     [](const KestoBearerInterface& t, void* c) -> intptr_t {
         const uint8_t buffer[4] = {1, 2, 3, 4};
         uint32_t length = sizeof buffer;
         return t.connectionWrite(c, buffer, &length);
     }},
    {"GetEventHandle", KestoBearerErrorFailed,
     [](const KestoBearerInterface& t, void* c) -> intptr_t {
         int handle = -1;
         intptr_t extra = 0;
         return t.connectionGetEventHandle(c, &handle, &extra);
     }},
    {"GetActivity", KestoBearerErrorFailed,
     [](const KestoBearerInterface& t, void* c) -> intptr_t {
         uint32_t activity = 0;
         return t.connectionGetActivity(c, &activity);
     }},
    {"GetProperty", 0,
     [](const KestoBearerInterface& t, void* c) -> intptr_t {
         return reinterpret_cast<intptr_t>(t.connectionGetProperty(c, KestoConnectionPropertyTransport));
     }},
    {"TimerExpired", KestoBearerErrorFailed,
     [](const KestoBearerInterface& t, void* c) -> intptr_t { return t.connectionTimerExpired(c); }},
};

class ConnectionFrame : public testing::Test {
protected:
    Toolkit toolkit{{KestoBearerInitialize}};
    ToolkitConnection& record = toolkit.AddConnection({{"bus", "3"}});
    ThrowingConnection connection{toolkit.Bearer(), record, Thrown::Standard};
};

TEST_F(ConnectionFrame, EveryFencedSlotTurnsAStandardExceptionIntoALogLineAndAFailure) {
    std::vector<std::string> expected;
    for (const FencedSlot& slot : kFencedSlots) {
        EXPECT_EQ(slot.failed, slot.call(toolkit.Interface(), &connection)) << slot.operation;
        expected.push_back(std::string("KestoConnectionImpl::") + slot.operation +
                           " caught exception: phone unplugged\n");
    }
    EXPECT_EQ(expected, record.Log());
    EXPECT_TRUE(toolkit.BearerLog().empty());
}

TEST_F(ConnectionFrame, ExceptionsOutsideTheStandardHierarchyPassThrough) {
    ThrowingConnection foreign(toolkit.Bearer(), record, Thrown::Foreign);
    for (const FencedSlot& slot : kFencedSlots) {
        EXPECT_THROW(slot.call(toolkit.Interface(), &foreign), int) << slot.operation;
    }
    EXPECT_TRUE(record.Log().empty());
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
        ThrowingConnection connection(toolkit.Bearer(), record, Thrown::Standard);
        EXPECT_EQ(KestoBearerErrorFailed, toolkit.Interface().connectionEstablish(&connection));
        EXPECT_THAT(toolkit.BearerLog(), ElementsAre("KestoConnectionImpl::Establish caught exception: phone unplugged\n"));
        EXPECT_TRUE(record.Log().empty());
    }
}

} // namespace
