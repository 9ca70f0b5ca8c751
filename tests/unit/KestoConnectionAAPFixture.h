#pragma once

// A toolkit driving accessory connections to phones on the fake bus. A phone
// not yet in accessory mode answers the accessory requests as its script says;
// bulk transfers are the test's to answer. Every story ends with the
// connection destroyed and nothing left behind: no libusb object, no toolkit
// string, no descriptor.

#include <dirent.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "fakeusb/FakeUsb.h"
#include "harness/Toolkit.h"

namespace aap {

using Bytes = std::vector<uint8_t>;
using Fields = ToolkitConnection::Fields;
using fakeusb::Submission;
using fakeusb::Transfers;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;

inline const Bytes kDeviceHandshake{0xFF, 0xFF, 0x00, 0x00, 0x0A, 0x0A, 0x44, 0x45, 0x56};
inline const Bytes kHostHandshake{0xFF, 0xFF, 0x00, 0x00, 0x0A, 0x0A, 0x48, 0x4F, 0x53, 0x54};
inline const std::string kSerial = "R58M40";
constexpr unsigned char kIn = 0x81;
constexpr unsigned char kOut = 0x01;
constexpr int kCompleted = LIBUSB_TRANSFER_COMPLETED;

inline Bytes Join(Bytes head, const Bytes& tail) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

inline Bytes Text(const std::string& text) { return Bytes(text.begin(), text.end()); }

inline int OpenDescriptors() {
    int count = 0;
    if (DIR* dir = opendir("/proc/self/fd")) {
        while (readdir(dir) != nullptr) {
            ++count;
        }
        closedir(dir);
    }
    return count;
}

// How often this exact call, as the double prints it, was made.
inline long CallCount(const std::string& call) {
    const std::vector<std::string> all = fakeusb::Calls::All();
    return std::count(all.begin(), all.end(), call);
}

// Setup packets of the control requests so far, e.g. "c0 33 00 00 00 00 02 00".
inline std::vector<std::string> ControlSetups() {
    std::vector<std::string> setups;
    for (const std::string& call : fakeusb::Calls::Named("libusb_submit_transfer")) {
        if (call.find("control, ") != std::string::npos) {
            setups.push_back(call.substr(call.find("control, ") + 9, 23));
        }
    }
    return setups;
}

// Bulk submissions on one endpoint, oldest first.
inline std::vector<Submission> Submitted(unsigned char endpoint) {
    std::vector<Submission> found;
    for (const Submission& s : Transfers::Submitted()) {
        if (s.endpoint == endpoint && !s.IsControl()) {
            found.push_back(s);
        }
    }
    return found;
}

// How a phone not yet in accessory mode answers on endpoint 0.
struct PhoneScript {
    Bytes version{2, 0};
    // Statuses of the first control requests in order; later ones complete.
    std::vector<int> statuses{};
    bool answers = true;
    // Plugged in, in list order, once the phone has accepted the start request.
    std::vector<fakeusb::DeviceSpec> comesBackAs{fakeusb::AccessoryPhone(1, 6, kSerial)};
};

class AccessoryConnection : public testing::Test {
protected:
    void SetUp() override {
        fakeusb::Reset();
        descriptors = OpenDescriptors();
    }

    void TearDown() override {
        for (ToolkitConnection* connection : established) {
            Destroy(*connection);
        }
        toolkit.Terminate();
        ExpectNothingHeld();
        fakeusb::Reset();
    }

    void ExpectNothingHeld() {
        EXPECT_EQ(fakeusb::Outstanding{}, fakeusb::Outstanding::Now());
        EXPECT_THAT(toolkit.StringProblems(), testing::IsEmpty());
        EXPECT_EQ(descriptors, OpenDescriptors());
    }

    // Destroys a connection wherever its story left it: the completions that
    // the teardown delivers find nothing out of place and start nothing.
    void Destroy(ToolkitConnection& connection) {
        const size_t before = connection.Log().size();
        toolkit.Destroy(connection);
        EXPECT_THAT(std::vector<std::string>(connection.Log().begin() + static_cast<long>(before), connection.Log().end()),
                    testing::Each(testing::Not(testing::AnyOf(testing::HasSubstr("not expected"),
                                                              testing::Eq("Closing so not starting new read")))));
    }

    // For tests that tell several stories: ends this one and clears the bus.
    void NextStory(ToolkitConnection& connection) {
        Destroy(connection);
        ExpectNothingHeld();
        fakeusb::Reset();
        returned.clear();
        controlRequests = 0;
    }

    // A phone at 1:5 that switches to accessory mode as scripted.
    void PlugPhone(PhoneScript script = {}, fakeusb::DeviceSpec described = fakeusb::AndroidPhone(1, 5, kSerial)) {
        phone = fakeusb::Bus::Add(described);
        Transfers::SetResponder([this, script](const Submission& s) {
            if (!s.IsControl() || !script.answers) {
                return;
            }
            const size_t n = controlRequests++;
            const int status = n < script.statuses.size() ? script.statuses[n] : kCompleted;
            const bool version = s.setup.request == 51 && status == kCompleted;
            Transfers::Complete(s.id, status, version ? script.version : Bytes{});
            if (s.setup.request == 53 && status == kCompleted) {
                fakeusb::Bus::Unplug(phone);
                for (const fakeusb::DeviceSpec& back : script.comesBackAs) {
                    returned.push_back(fakeusb::Bus::Add(back));
                }
            }
        });
    }

    // A connection to bus 1, address 5 (fields in `extra` added or replaced).
    ToolkitConnection& Establish(const Fields& extra = {}, int expected = KestoBearerErrorNone) {
        Fields fields{{"bus", "1"}, {"dev", "5"}};
        for (const auto& [key, value] : extra) {
            fields[key] = value;
        }
        ToolkitConnection& connection = toolkit.CreateConnection(fields);
        EXPECT_EQ(expected, toolkit.Establish(connection));
        established.push_back(&connection);
        return connection;
    }

    // Runs the toolkit until every completion the phone has made is delivered.
    void Settle() {
        toolkit.RunUntil([] { return fakeusb::Events::QueuedCompletions() == 0; });
    }

    void RunUntilFailed(const ToolkitConnection& connection) {
        toolkit.RunUntil([&] { return connection.Failure() != 0; });
    }

    // Runs the toolkit until a transfer is in flight on `endpoint`.
    Submission AwaitTransfer(unsigned char endpoint, std::chrono::milliseconds limit = std::chrono::seconds(5)) {
        toolkit.RunUntil([&] { return Transfers::OldestInFlight(endpoint).has_value(); }, limit);
        return Transfers::OldestInFlight(endpoint).value_or(Submission{});
    }

    // The phone sends `bytes` on the oldest read; the toolkit takes delivery.
    void PhoneSends(const Bytes& bytes, int status = kCompleted) {
        ASSERT_TRUE(Transfers::CompleteOldest(kIn, status, bytes));
        Settle();
    }

    // A phone already in accessory mode at 1:5 that has sent `firstChunk`.
    ToolkitConnection& AtHandshake(const Bytes& firstChunk) {
        phone = fakeusb::Bus::Add(fakeusb::AccessoryPhone(1, 5, kSerial));
        ToolkitConnection& connection = Establish();
        PhoneSends(firstChunk);
        return connection;
    }

    // The same, past the handshake and connected.
    ToolkitConnection& Connected(const Bytes& firstChunk = kDeviceHandshake) {
        ToolkitConnection& connection = AtHandshake(firstChunk);
        EXPECT_TRUE(Transfers::CompleteOldest(kOut));
        Settle();
        EXPECT_THAT(connection.Statuses(), ElementsAre(3, 4));
        return connection;
    }

    Toolkit toolkit{{KestoBearerInitialize}};
    int phone = -1;
    std::vector<ToolkitConnection*> established; // each destroyed at the latest by TearDown
    std::vector<int> returned; // the phone's ids after re-enumeration
    size_t controlRequests = 0;
    int descriptors = 0;
};

} // namespace aap
