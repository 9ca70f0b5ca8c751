#include <cstdio>

#include "KestoConnectionAAPFixture.h"
#include "aap/KestoConnectionAAP.h"

namespace aap {
namespace {

using fakeusb::Failures;
using fakeusb::Function;
using Lookup = ToolkitConnection::Lookup;

const char kVersionQuery[] = "c0 33 00 00 00 00 02 00";
const std::vector<std::string> kDefaultIdentity{"Norvane", "AAPTest", "Norvane AAP Bearer", "0.1",
                                                "https://norvane.example/kesto", "serial_number"};

// The identity strings sent, in order; their indexes are in the setup packets.
std::vector<std::string> IdentitySent() {
    std::vector<std::string> sent;
    for (const Submission& s : Transfers::Submitted()) {
        if (s.IsControl() && s.setup.request == 52) {
            sent.emplace_back(s.data.begin(), s.data.end());
        }
    }
    return sent;
}

// The whole switch: version query, each identity row, start request.
std::vector<std::string> SwitchSetups(const std::vector<std::string>& identity) {
    std::vector<std::string> setups{kVersionQuery};
    for (unsigned row = 0; row < identity.size(); ++row) {
        char setup[32];
        const size_t length = identity[row].size();
        std::snprintf(setup, sizeof setup, "40 34 00 00 %02x 00 %02x %02x", static_cast<uint8_t>(row),
                      static_cast<uint8_t>(length), static_cast<uint8_t>(length >> 8));
        setups.push_back(setup);
    }
    setups.push_back("40 35 00 00 00 00 00 00");
    return setups;
}

TEST_F(AccessoryConnection, OnlyGoogleAccessoryProductsSkipTheSwitch) {
    const std::tuple<uint16_t, uint16_t, bool> ids[] = {
        {0x18D1, 0x2D00, true}, {0x18D1, 0x2D01, true}, {0x18D1, 0x2D02, false}, {0x04E8, 0x2D00, false}};
    for (const auto& [vendor, product, accessory] : ids) {
        fakeusb::DeviceSpec described = fakeusb::AccessoryPhone(1, 5, kSerial);
        described.descriptor.idVendor = vendor;
        described.descriptor.idProduct = product;
        fakeusb::Bus::Add(described);
        ToolkitConnection& connection = Establish();
        const std::vector<Submission> inFlight = Transfers::InFlight();
        ASSERT_EQ(1u, inFlight.size());
        EXPECT_EQ(accessory ? kIn : 0x00, inFlight[0].endpoint) << std::hex << vendor << ":" << product;
        EXPECT_EQ(accessory ? 3000u : 2000u, inFlight[0].timeout);
        EXPECT_EQ(accessory ? 0 : 1, CallCount("libusb_get_string_descriptor_ascii(1:5, 3)"));
        EXPECT_EQ(accessory ? 2u : 0u, connection.Log().size());
        NextStory(connection);
    }
}

TEST_F(AccessoryConnection, PhoneIsSwitchedWithTheGivenOrDefaultIdentity) {
    const std::pair<Fields, std::vector<std::string>> cases[] = {
        {{}, kDefaultIdentity},
        {{{"manufacturer", "Acme Motors"}},
         {"Acme Motors", "AAPTest", "Norvane AAP Bearer", "0.1", "https://norvane.example/kesto", "serial_number"}},
        {{{"model", "Dash"}, {"desc", "Head unit"}, {"version", "7.2"}, {"uri", "https://acme.example/"},
          {"serial", "HU-0042"}},
         {"Norvane", "Dash", "Head unit", "7.2", "https://acme.example/", "HU-0042"}},
    };
    for (const auto& [given, identity] : cases) {
        PlugPhone();
        ToolkitConnection& connection = Establish(given);
        toolkit.RunUntil([&] { return !connection.TimerRequests().empty(); });
        EXPECT_EQ(1, connection.TimerRequests().front());
        EXPECT_THAT(ControlSetups(), ElementsAreArray(SwitchSetups(identity)));
        EXPECT_EQ(identity, IdentitySent());
        for (const Submission& s : Transfers::Submitted()) {
            EXPECT_EQ(s.IsControl() ? 2000u : 3000u, s.timeout); // the search may have begun
        }
        const auto answered = [&given = given](const char* key) { return given.count(key) == 1; };
        EXPECT_THAT(std::vector<Lookup>(connection.Lookups().begin() + 4, connection.Lookups().end()),
                    ElementsAre(Lookup{"manufacturer", 0, false, answered("manufacturer")},
                                Lookup{"model", 0, false, answered("model")},
                                Lookup{"desc", 1, false, answered("desc")},
                                Lookup{"version", 0, false, answered("version")},
                                Lookup{"uri", 1, false, answered("uri")},
                                Lookup{"serial", 0, false, answered("serial")}));
        EXPECT_THAT(connection.Log(), Contains("Device supports Android Accessory Protocol version 2"));
        NextStory(connection);
    }
}

TEST_F(AccessoryConnection, VersionReplyDecidesWhetherTheSwitchGoesOn) {
    const std::tuple<Bytes, std::string, int> replies[] = {
        {{1, 0}, "Device supports Android Accessory Protocol version 1", 0},
        {{2, 0}, "Device supports Android Accessory Protocol version 2", 0},
        {{0, 0}, "Device does not support the Android Accessory Protocol, supports 0x0000", KestoBearerErrorFailed},
        {{1}, "Failed to get control transfer of expected length, 1 of 2", KestoBearerErrorFailed},
    };
    for (const auto& [version, logged, failure] : replies) {
        PlugPhone(PhoneScript{version});
        ToolkitConnection& connection = Establish();
        toolkit.RunUntil([&] { return connection.Failure() != 0 || !connection.TimerRequests().empty(); });
        EXPECT_THAT(connection.Log(), Contains(logged));
        EXPECT_EQ(failure, connection.Failure()) << logged;
        EXPECT_EQ(failure ? 1u : 8u, ControlSetups().size()) << logged;
        NextStory(connection);
    }
}

TEST_F(AccessoryConnection, PhoneEndsAControlRequestBadly) {
    const char kRow2[] = "40 34 00 00 02 00 12 00";
    struct Ending {
        const char* story;
        std::vector<int> statuses;
        std::vector<std::string> setups;
        std::vector<std::string> log;
        int failure;
    };
    const Ending endings[] = {
        {"an error is retried four times with the same row; the fifth fails",
         {0, 0, 0, 1, 1, 1, 1, 1},
         {kVersionQuery, "40 34 00 00 00 00 07 00", "40 34 00 00 01 00 07 00", kRow2, kRow2, kRow2, kRow2, kRow2},
         {"Device supports Android Accessory Protocol version 2",
          "Retrying setup transfer with status 1, state: 2, retry: 1",
          "Retrying setup transfer with status 1, state: 2, retry: 2",
          "Retrying setup transfer with status 1, state: 2, retry: 3",
          "Retrying setup transfer with status 1, state: 2, retry: 4",
          "Setup transfer failed with status: 1, state: 2, retry: 5"},
         KestoBearerErrorFailed},
        {"timed out", {LIBUSB_TRANSFER_TIMED_OUT}, {kVersionQuery}, {}, KestoBearerErrorFailed},
        {"cancelled", {LIBUSB_TRANSFER_CANCELLED}, {kVersionQuery}, {}, 0},
        {"stall", {LIBUSB_TRANSFER_STALL}, {kVersionQuery}, {"Setup transfer failed with status: 4, state: 1"},
         KestoBearerErrorFailed},
        {"no device", {LIBUSB_TRANSFER_NO_DEVICE}, {kVersionQuery}, {"Setup transfer failed with status: 5, state: 1"},
         KestoBearerErrorFailed},
        {"overflow", {LIBUSB_TRANSFER_OVERFLOW}, {kVersionQuery}, {"Setup transfer failed with status: 6, state: 1"},
         KestoBearerErrorFailed},
    };
    for (const Ending& ending : endings) {
        SCOPED_TRACE(ending.story);
        PlugPhone(PhoneScript{{2, 0}, ending.statuses});
        ToolkitConnection& connection = Establish();
        Settle();
        toolkit.RunFor(std::chrono::milliseconds(20));
        EXPECT_EQ(ending.failure, connection.Failure());
        EXPECT_THAT(ControlSetups(), ElementsAreArray(ending.setups));
        EXPECT_THAT(connection.Log(), ElementsAreArray(ending.log));
        NextStory(connection);
    }
}

TEST_F(AccessoryConnection, EveryStepMayFailFourTimesBecauseRetriesCountPerStep) {
    PhoneScript script;
    for (int step = 0; step < 8; ++step) {
        script.statuses.insert(script.statuses.end(), {1, 1, 1, 1, 0});
    }
    PlugPhone(script);
    ToolkitConnection& connection = Establish();
    toolkit.RunUntil([&] { return connection.Failure() != 0 || !connection.TimerRequests().empty(); });
    EXPECT_EQ(40u, ControlSetups().size());
    EXPECT_EQ(30u, IdentitySent().size());
    EXPECT_EQ(32, std::count_if(connection.Log().begin(), connection.Log().end(), [](const std::string& line) {
                  return line.rfind("Retrying setup transfer with status 1", 0) == 0;
              }));
    EXPECT_EQ(0, connection.Failure());
}

// Each row: the control submission libusb refuses (0 is the version query,
// made inside Establish), after the statuses the phone has answered with.
TEST_F(AccessoryConnection, RefusedControlSubmissionFailsTheConnection) {
    const std::tuple<std::vector<int>, int, std::string> refusals[] = {
        {{}, 0, "Failed to submit version query control message, -1"},
        {{1}, 1, "Failed to submit version query control message, -1"}, // its retry
        {{}, 3, "Failed to submit identity string 2, -1"},
        {{0, 1}, 2, "Failed to submit identity string 0, -1"}, // its retry
        {{}, 7, "Failed to submit switch to AAP control message, -1"},
    };
    for (const auto& [statuses, skip, logged] : refusals) {
        PlugPhone(PhoneScript{{2, 0}, statuses});
        Failures::Fail(Function::SubmitTransfer, LIBUSB_ERROR_IO, skip);
        ToolkitConnection& connection = Establish({}, skip == 0 ? KestoBearerErrorFailed : KestoBearerErrorNone);
        if (skip != 0) {
            RunUntilFailed(connection);
            EXPECT_EQ(KestoBearerErrorFailed, connection.Failure());
        }
        EXPECT_THAT(Tail(connection.Log(), 2),
                    ElementsAre("Failed to submit libusb transfer for control transfer: libusb error -1", logged));
        NextStory(connection);
    }
}

TEST_F(AccessoryConnection, ControlCompletionInTheDataPhaseIsAnError) {
    ToolkitConnection& connection = Connected();
    const uint8_t setup[8] = {0x40, 53, 0, 0, 0, 0, 0, 0};
    static_cast<KestoConnectionAAP*>(static_cast<KestoConnectionImpl*>(connection.Handle()))
        ->OnControlComplete(kCompleted, setup, nullptr, 0);
    EXPECT_EQ("Control callback called when not expected (state = 7)", connection.Log().back());
    uint32_t activity = 0;
    EXPECT_EQ(KestoBearerErrorFailed, toolkit.Interface().connectionGetActivity(connection.Handle(), &activity));
}

// libusb cannot cancel the version query, and the phone answers it while the
// connection is being destroyed: the answer is ignored.
TEST_F(AccessoryConnection, ControlAnswerDuringDestructionIsIgnored) {
    PlugPhone(PhoneScript{{2, 0}, {}, false});
    ToolkitConnection& connection = Establish();
    const int query = Transfers::OldestInFlight(0x00)->id;
    Failures::Fail(Function::CancelTransfer, LIBUSB_ERROR_OTHER);
    fakeusb::Events::SetHandleEventsHook([query] { Transfers::Complete(query, kCompleted, {2, 0}); });
    toolkit.Destroy(connection);
    EXPECT_THAT(connection.Log(), ElementsAre("Error cancelling control transfer"));
}

} // namespace
} // namespace aap
