#include <climits>
#include <functional>

#include "KestoConnectionAAPFixture.h"
#include "support/AllocationFailures.h"

namespace aap {
namespace {

using fakeusb::Failures;
using fakeusb::Function;
using Lookup = ToolkitConnection::Lookup;

const char kAltWithoutInterface[] = "Error: altsetting present but interface field missing from command string.";

// Both bus and dev are asked for before either is judged; an alternate
// setting needs an interface other than -1.
TEST_F(AccessoryConnection, CommandStringThatCannotWorkIsRefusedBeforeAnythingStarts) {
    const std::string kMissing = "Error: missing bus or dev fields from command string.";
    const std::pair<Fields, std::vector<std::string>> refusals[] = {
        {{{"bus", "1"}}, {kMissing}},
        {{{"dev", "5"}}, {kMissing}},
        {{}, {kMissing}},
        {{{"bus", "1"}, {"dev", "5"}, {"altsetting", "2"}},
         {"Using USB alternate setting number 2", kAltWithoutInterface}},
        {{{"bus", "1"}, {"dev", "5"}, {"interface", "-1"}, {"altsetting", "0"}},
         {"Using USB interface number -1", "Using USB alternate setting number 0", kAltWithoutInterface}},
    };
    const char* const asked[] = {"bus", "dev", "interface", "altsetting"};
    for (const auto& [fields, log] : refusals) {
        ToolkitConnection& connection = toolkit.CreateConnection(fields);
        EXPECT_EQ(KestoBearerErrorInvalidParameter, toolkit.Establish(connection));
        EXPECT_THAT(connection.Log(), ElementsAreArray(log));
        ASSERT_EQ(log.back() == kMissing ? 2u : 4u, connection.Lookups().size());
        for (size_t i = 0; i < connection.Lookups().size(); ++i) {
            EXPECT_EQ((Lookup{asked[i], 0, false, fields.count(asked[i]) == 1}), connection.Lookups()[i]);
        }
        EXPECT_TRUE(connection.Statuses().empty());
    }
    EXPECT_EQ(0, fakeusb::Calls::Count("libusb_init"));
}

// Each text goes into "bus", "dev" and "interface"; no phone sits anywhere.
TEST_F(AccessoryConnection, NumericFieldsAreReadAsLeadingDecimalNumbers) {
    const std::pair<const char*, int> texts[] = {{"007", 7}, {"12abc", 12}, {" 4", 4},  {"0x1f", 0},
                                                 {"+5", 5},  {"-3", -3},    {"abc", 0}, {"", 0},
                                                 {"99999999999", INT_MAX},  {"-99999999999", INT_MIN}};
    for (const auto& [text, value] : texts) {
        ToolkitConnection& connection =
            Establish({{"bus", text}, {"dev", text}, {"interface", text}}, KestoBearerErrorCannotOpenDevice);
        const std::string n = std::to_string(value);
        EXPECT_EQ("Using USB interface number " + n, connection.Log().front()) << '"' << text << '"';
        EXPECT_EQ("Error: Could not open android device on bus " + n + " at address " + n + " (libusb error -5)",
                  connection.Log().back());
    }
}

// After a failed Establish every slot answers with that failure, takes no
// bytes and touches no transfer.
void ExpectEverySlotAnswers(const KestoBearerInterface& api, ToolkitConnection& connection, int failure) {
    void* handle = connection.Handle();
    uint8_t buffer[1024] = {};
    uint32_t length = sizeof buffer;
    EXPECT_EQ(failure, api.connectionWrite(handle, buffer, &length));
    EXPECT_EQ(0u, length);
    length = sizeof buffer;
    EXPECT_EQ(failure, api.connectionRead(handle, buffer, &length));
    EXPECT_EQ(0u, length);
    uint32_t activity = 0xA5;
    EXPECT_EQ(failure, api.connectionGetActivity(handle, &activity));
    EXPECT_EQ(0xA5u, activity);
    int eventHandle = 0;
    EXPECT_EQ(failure, api.connectionGetEventHandle(handle, &eventHandle, nullptr));
    EXPECT_EQ(failure, api.connectionTimerExpired(handle));
    EXPECT_THAT(Submitted(kOut), testing::IsEmpty());
}

TEST_F(AccessoryConnection, TransportOrPhoneThatCannotStartFailsEstablish) {
    struct EarlyFailure {
        std::function<void()> arrange;
        int result;
        std::vector<std::string> log;
        bool connecting; // reported only once the transport runs
    };
    const EarlyFailure failures[] = {
        {[] { Failures::Fail(Function::Init, LIBUSB_ERROR_ACCESS); }, KestoBearerErrorFailed,
         {"Error, could not initialise libusb", "Failed to initialise LibUSBBearerConnection: libusb error -3"}, false},
        {[] { Failures::Fail(Function::AllocTransfer, 0); }, KestoBearerErrorFailed,
         {"Could not allocate transfer for read transfers",
          "Failed to initialise LibUSBBearerConnection: libusb error -11"},
         false},
        {[] { AllocationFailures::FailAfter(0); }, KestoBearerErrorFailed,
         {"Out of memory allocating connection instance"}, false},
        {[] { Failures::Fail(Function::Open, LIBUSB_ERROR_ACCESS); }, KestoBearerErrorCannotOpenDevice,
         {"Error: Couldn't open device with libusb error -3", "Error: Could not open device on bus 1 at address 5",
          "Error: Could not open android device on bus 1 at address 5 (libusb error -5)"},
         true},
        {[] { Failures::Fail(Function::GetDeviceDescriptor, LIBUSB_ERROR_IO); }, KestoBearerErrorFailed,
         {"Unable to get device descriptor with error -1"}, true},
        {[] { Failures::Fail(Function::GetDeviceDescriptor, LIBUSB_ERROR_IO, 1); }, KestoBearerErrorFailed,
         {"Unable to get device descriptor, error -1"}, true},
    };
    for (const EarlyFailure& failure : failures) {
        fakeusb::Bus::Add(fakeusb::AndroidPhone(1, 5, kSerial));
        ScopedAllocationFailures allocations;
        failure.arrange();
        ToolkitConnection& connection = Establish({}, failure.result);
        EXPECT_THAT(connection.Log(), ElementsAreArray(failure.log));
        EXPECT_EQ(failure.connecting, !connection.Statuses().empty());
        ExpectEverySlotAnswers(toolkit.Interface(), connection, failure.result);
        NextStory(connection);
    }
}

TEST_F(AccessoryConnection, ConnectionIsEstablishedOnceAndUsedOnlyAfterwards) {
    const KestoBearerInterface& api = toolkit.Interface();
    void* never = toolkit.CreateConnection().Handle();
    uint8_t buffer[8] = {};
    uint32_t length = sizeof buffer;
    uint32_t activity = 0;
    EXPECT_EQ(KestoBearerErrorFailed, api.connectionGetActivity(never, &activity));
    EXPECT_EQ(KestoBearerErrorFailed, api.connectionRead(never, buffer, &length));
    EXPECT_EQ(0u, length);
    EXPECT_EQ(KestoBearerErrorFailed, api.connectionWrite(never, buffer, &length));

    fakeusb::Bus::Add(fakeusb::AccessoryPhone(1, 5, kSerial));
    ToolkitConnection& twice = Establish();
    EXPECT_EQ(KestoBearerErrorFailed, api.connectionEstablish(twice.Handle()));
    EXPECT_EQ(1, fakeusb::Calls::Count("libusb_init"));
    EXPECT_EQ(4u, twice.Lookups().size());
}

} // namespace
} // namespace aap
