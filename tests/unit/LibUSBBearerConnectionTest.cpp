// The USB transport against the libusb test double: opening, claiming and
// closing a phone, and control, bulk OUT and bulk IN transfers as the owner
// sees them. Completions arrive as the toolkit drives them: the event handle
// becomes readable, then HandleEvents runs.
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakeusb/FakeUsb.h"
#include "support/AllocationFailures.h"
#include "usb/LibUSBBearerConnection.h"

namespace {

using fakeusb::Bus;
using fakeusb::Calls;
using fakeusb::Events;
using fakeusb::Failures;
using fakeusb::Function;
using fakeusb::Submission;
using fakeusb::Transfers;
using testing::ElementsAre;
using testing::IsEmpty;
using Bytes = std::vector<uint8_t>;
using Texts = std::vector<std::string>;

constexpr unsigned char kIn = 0x81;
constexpr unsigned char kOut = 0x01;
constexpr unsigned char kEndpointZero = 0x00;
constexpr uint32_t kReadTimeoutMs = 3000;
constexpr int kWaitMs = 5000; // generous: the ARM run is emulated
constexpr int kSlots = static_cast<int>(LibUSBBearerConnection::kReadSlotCount);
const std::string kVersionAnswered = "control 0 setup c0 33 00 00 00 00 02 00 data 02 00 length 2";

// Bytes from..length-1 of a recognisable payload.
Bytes Count(size_t length, size_t from = 0) {
    Bytes bytes;
    for (size_t i = from; i < length; ++i) {
        bytes.push_back(static_cast<uint8_t>(i));
    }
    return bytes;
}

std::string Hex(const uint8_t* bytes, int length) {
    if (bytes == nullptr) {
        return "null";
    }
    std::string text;
    char byte[4];
    for (int i = 0; i < length; ++i) {
        snprintf(byte, sizeof byte, i == 0 ? "%02x" : " %02x", bytes[i]);
        text += byte;
    }
    return text;
}

// Everything the transport tells its owner, completions in arrival order.
struct Recorder : LibUSBBearerObserver {
    Texts events;
    Texts logs;
    std::vector<int> timeouts;
    std::function<void()> onControl; // runs once, inside the next control completion

    void OnReadComplete(int status) override { events.push_back("read " + std::to_string(status)); }
    void OnWriteComplete(int status) override { events.push_back("write " + std::to_string(status)); }
    void OnControlComplete(int status, const uint8_t* setup, const uint8_t* data, int length) override {
        std::function<void()> hook = std::move(onControl);
        onControl = nullptr;
        if (hook) {
            hook(); // first: the pointers must survive what the owner does meanwhile
        }
        events.push_back("control " + std::to_string(status) + " setup " + Hex(setup, 8) + " data " +
                         Hex(data, length) + " length " + std::to_string(length));
    }
    void OnTimeoutRequested(int ms) override { timeouts.push_back(ms); }
    void OnLog(const char* format, va_list args) override {
        char text[256];
        vsnprintf(text, sizeof text, format, args);
        logs.push_back(text);
    }
    int OnTransportError(int code) override {
        events.push_back("error " + std::to_string(code));
        return 0;
    }
};

class DeviceSession : public testing::Test {
protected:
    void SetUp() override {
        fakeusb::Reset();
        ASSERT_EQ(Start(), 0);
    }
    void TearDown() override {
        Stop();
        fakeusb::Reset();
    }

    int Start() {
        transport = std::make_unique<LibUSBBearerConnection>(0, &observer);
        return transport->Initialise();
    }
    // Whatever state it is in, a transport gives everything back when destroyed.
    void Stop() {
        transport.reset();
        EXPECT_EQ(fakeusb::Outstanding::Now(), fakeusb::Outstanding{});
    }
    // A new transport for each row of a table; `arrange` runs before it starts.
    int Fresh(const std::function<void()>& arrange = [] {}) {
        Stop();
        fakeusb::Reset();
        AllocationFailures::Reset();
        observer = Recorder();
        arrange();
        return Start();
    }

    // An accessory-mode phone at 1:address; interface 0 has bulk 0x81 IN and 0x01 OUT.
    static fakeusb::DeviceSpec Phone(uint8_t address = 5, uint16_t inPacketSize = 512) {
        fakeusb::DeviceSpec phone = fakeusb::AccessoryPhone(1, address, "R58M40", false);
        phone.interfaces[0][0].endpoints[0].maxPacketSize = inPacketSize;
        return phone;
    }
    void OpenPhone(const fakeusb::DeviceSpec& phone = Phone()) {
        Bus::Add(phone);
        ASSERT_EQ(transport->OpenDevice(phone.bus, phone.address), 0);
    }
    void OpenForTransfers() {
        OpenPhone();
        ASSERT_EQ(transport->ClaimInterface(0, 0, false), 0);
        ASSERT_EQ(transport->SetEndpoints(kIn, kOut), 0);
        observer = Recorder();
    }

    // What the toolkit does: wait for the event handle, then have the transport handle events.
    void Deliver() {
        pollfd handle = {transport->GetEventHandle(nullptr), POLLIN, 0};
        ASSERT_EQ(poll(&handle, 1, kWaitMs), 1) << "the event handle never became readable";
        transport->HandleEvents();
        if (Events::QueuedCompletions() == 0) {
            EXPECT_EQ(poll(&handle, 1, 0), 0) << "the event handle stayed readable with nothing left to handle";
        }
    }
    void Finish(const Submission& s, int status = LIBUSB_TRANSFER_COMPLETED, const Bytes& data = {},
                int actualLength = Transfers::kAuto) {
        ASSERT_TRUE(Transfers::Complete(s.id, status, data, actualLength));
        Deliver();
    }
    static Submission Oldest(unsigned char endpoint) {
        return Transfers::OldestInFlight(endpoint).value_or(Submission{}); // id 0 completes nothing
    }

    int Write(const Bytes& bytes, uint32_t timeoutMs = 0) {
        return transport->SubmitWrite(bytes.data(), static_cast<uint32_t>(bytes.size()), timeoutMs);
    }
    // The accessory protocol version query: vendor request 51, device to host, 2 bytes.
    int AskVersion() { return transport->SubmitControlTransfer(0xC0, 51, 0, 0, 2, nullptr, 2000); }
    int SubmitReads(int count) { return transport->SubmitReads(kReadTimeoutMs, count); }
    Bytes Take(uint32_t maxLength) {
        Bytes bytes(maxLength);
        bytes.resize(transport->ReadData(bytes.data(), maxLength));
        return bytes;
    }

    Recorder observer;
    ScopedAllocationFailures allocations;
    std::unique_ptr<LibUSBBearerConnection> transport;
};

// A phone opened, interface 0 claimed and the bulk endpoints set.
class TransferEngine : public DeviceSession {
protected:
    void SetUp() override {
        DeviceSession::SetUp();
        OpenForTransfers();
    }
};

// ---- Start-up ----

TEST_F(DeviceSession, AStartUpThatFailsAtAnyStepLeavesNothingBehindOnceDestroyed) {
    rlimit saved;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    auto roomForLibusbOnly = [&saved] {
        int lowestFree = dup(0);
        close(lowestFree);
        rlimit tight = saved;
        tight.rlim_cur = static_cast<rlim_t>(lowestFree) + 2; // libusb's pipe fits, the event thread's do not
        setrlimit(RLIMIT_NOFILE, &tight);
    };
    auto noTransfer = [](int allocationsBefore) {
        return [=] { Failures::Fail(Function::AllocTransfer, LIBUSB_ERROR_NO_MEM, allocationsBefore); };
    };
    struct Row { std::function<void()> inject; int result; testing::Matcher<std::string> message; };
    const Row rows[] = {
        {[] { Failures::Fail(Function::Init, LIBUSB_ERROR_ACCESS); }, LIBUSB_ERROR_ACCESS,
         "Error, could not initialise libusb"},
        {roomForLibusbOnly, LIBUSB_ERROR_OTHER, "FD compositor creation failed: 1 (Too many open files)"},
        {[] { AllocationFailures::FailAfter(0); }, LIBUSB_ERROR_OTHER,
         testing::StartsWith("FD compositor creation failed: 1 (")},
        {noTransfer(0), LIBUSB_ERROR_NO_MEM, "Could not allocate transfer for read transfers"},
        {noTransfer(kSlots - 1), LIBUSB_ERROR_NO_MEM, "Could not allocate transfer for read transfers"},
        {[] { AllocationFailures::FailSize(16384); }, LIBUSB_ERROR_NO_MEM, "Error: could not allocate read buffer"},
        {noTransfer(kSlots), LIBUSB_ERROR_NO_MEM, "Could not allocate transfer for write transfers"},
        {noTransfer(kSlots + 1), LIBUSB_ERROR_NO_MEM, "Could not allocate transfer for control transfers"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE("step " + std::to_string(&row - rows));
        EXPECT_EQ(Fresh(row.inject), row.result);
        setrlimit(RLIMIT_NOFILE, &saved);
        EXPECT_THAT(observer.logs, ElementsAre(row.message));
    }
}

// ---- Opening, claiming, releasing ----

TEST_F(DeviceSession, OpeningFailsWithNotFoundWhateverTheCause) {
    const std::string notOpened = "Error: Could not open device on bus 1 at address 5";
    struct Row { const char* cause; std::function<void()> arrange; int opens; Texts logs; };
    const Row rows[] = {
        {"nothing at that address", [] { Bus::Add(Phone(6)); }, 0, {notOpened}},
        {"no device list", [] { Bus::Add(Phone()); Failures::Fail(Function::GetDeviceList, LIBUSB_ERROR_NO_MEM); },
         0, {notOpened}},
        {"the first of two at that address refuses",
         [] { Bus::Add(Phone()); Bus::Add(Phone()); Failures::Fail(Function::Open, LIBUSB_ERROR_ACCESS); }, 1,
         {"Error: Couldn't open device with libusb error -3", notOpened}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.cause);
        ASSERT_EQ(Fresh(row.arrange), 0);
        EXPECT_EQ(transport->OpenDevice(1, 5), LIBUSB_ERROR_NOT_FOUND);
        EXPECT_EQ(transport->GetDevice(), nullptr);
        EXPECT_EQ(Calls::Count("libusb_open"), row.opens);
        EXPECT_EQ(observer.logs, row.logs);
    }
}

TEST_F(DeviceSession, OfTwoDevicesAtTheSameAddressTheFirstListedIsOpened) {
    int first = Bus::Add(Phone());
    Bus::Add(Phone());
    ASSERT_EQ(transport->OpenDevice(1, 5), 0);
    EXPECT_EQ(Bus::IdOf(transport->GetDeviceHandle()), first);
    EXPECT_THAT(observer.logs, IsEmpty());
}

TEST_F(DeviceSession, ClaimingGoesByWhatTheKernelDriverQueryAnswers) {
    auto fail = [](Function f, int error) { return [=] { Failures::Fail(f, error); }; };
    struct Row { const char* answer; int kernelDriverActive; std::function<void()> inject; int result; Texts logs; };
    const Row rows[] = {
        {"no driver", 0, [] {}, 0, {}},
        {"query not supported", LIBUSB_ERROR_NOT_SUPPORTED, [] {}, 0,
         {"Warning: Kernel driver status query not supported"}},
        {"query fails", 0, fail(Function::KernelDriverActive, LIBUSB_ERROR_IO), LIBUSB_ERROR_IO,
         {"Error: Unable to determine if kernel driver is active: libusb error -1"}},
        {"driver active", 1, [] {}, 0, {}},
        {"driver will not let go", 1, fail(Function::DetachKernelDriver, LIBUSB_ERROR_ACCESS), LIBUSB_ERROR_ACCESS,
         {"Error: Unable to detatch active kernel driver: libusb error -3"}},
        {"claim refused", 0, fail(Function::ClaimInterface, LIBUSB_ERROR_BUSY), LIBUSB_ERROR_BUSY,
         {"Error: Unable to claim interface 0: libusb error -6"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.answer);
        ASSERT_EQ(Fresh(), 0);
        fakeusb::DeviceSpec phone = Phone();
        phone.kernelDriverActive = row.kernelDriverActive;
        OpenPhone(phone);
        row.inject();
        EXPECT_EQ(transport->ClaimInterface(0, 0, false), row.result);
        EXPECT_EQ(observer.logs, row.logs);
        EXPECT_EQ(Bus::ClaimedInterfaces(Bus::IdOf(transport->GetDevice())).size(), row.result == 0 ? 1u : 0u);
    }
}

TEST_F(DeviceSession, EachClaimIsReleasedOnceEvenOneWhoseAlternateSettingFailed) {
    OpenPhone();
    EXPECT_EQ(transport->ReleaseInterface(0), LIBUSB_ERROR_NOT_FOUND); // never claimed: libusb is not asked
    EXPECT_EQ(Calls::Count("libusb_release_interface"), 0);

    EXPECT_EQ(transport->ClaimInterface(0, 3, true), 0); // a setting that cannot be set only warns
    EXPECT_THAT(observer.logs,
                ElementsAre("Warning: Unable to set altsetting 3 on claimed interface 0: libusb error -5"));
    ASSERT_EQ(transport->ClaimInterface(0, 0, false), 0);
    EXPECT_EQ(transport->ReleaseInterface(0), 0);
    EXPECT_EQ(transport->ReleaseInterface(0), LIBUSB_ERROR_NOT_FOUND); // libusb's answer: it kept one claim
    EXPECT_EQ(transport->ReleaseInterface(0), LIBUSB_ERROR_NOT_FOUND); // ours: none left
    EXPECT_EQ(Calls::Count("libusb_release_interface"), 2);
}

// ---- Closing ----

TEST_F(TransferEngine, CloseCancelsEveryTransferAndTheDeviceCanBeOpenedAgain) {
    ASSERT_EQ(SubmitReads(2), 0);
    std::vector<Submission> reads = Transfers::InFlight();
    ASSERT_EQ(reads.size(), 2u);
    ASSERT_EQ(Write(Count(10)), 0);
    ASSERT_EQ(AskVersion(), 0);
    ASSERT_TRUE(Transfers::SetCancelled(reads[1].id, 2, {7, 7})); // data in hand goes too
    size_t before = Calls::All().size();

    transport->Close();
    EXPECT_THAT(observer.events, testing::UnorderedElementsAre(
                                     "read 3", "read 3", "write 3",
                                     "control 3 setup c0 33 00 00 00 00 02 00 data null length 0"));
    EXPECT_THAT(observer.logs, IsEmpty());
    Texts calls = Calls::All();
    EXPECT_THAT(Texts(calls.begin() + before, calls.end()),
                ElementsAre("libusb_cancel_transfer(1:5, 0x81)", "libusb_cancel_transfer(1:5, 0x81)",
                            "libusb_cancel_transfer(1:5, 0x01)", "libusb_cancel_transfer(1:5, 0x00)",
                            "libusb_release_interface(1:5, 0)", "libusb_close(1:5)"));
    EXPECT_EQ(fakeusb::Outstanding::Now().deviceRefs, 0); // neither the handle nor ours
    EXPECT_EQ(transport->PeekReadLength(), 0u);

    ASSERT_EQ(transport->OpenDevice(1, 5), 0);
    EXPECT_EQ(SubmitReads(-1), 0);
    EXPECT_EQ(Transfers::InFlight().size(), LibUSBBearerConnection::kReadSlotCount); // every slot idle again
    EXPECT_EQ(Write(Count(4)), 0);
    EXPECT_EQ(AskVersion(), 0);
}

TEST_F(DeviceSession, ClosingWithNothingOpenDoesNothingAndClosingTwiceIsHarmless) {
    transport->Close();
    EXPECT_THAT(Calls::All(), ElementsAre("libusb_init()", "libusb_set_debug(0)"));
    OpenPhone();
    transport->Close();
    transport->Close();
    EXPECT_EQ(Calls::Count("libusb_close"), 1);
}

TEST_F(TransferEngine, CloseWaitsForEveryTransferHoweverLongItTakes) {
    ASSERT_EQ(SubmitReads(1), 0);
    ASSERT_EQ(Write(Count(4)), 0);
    ASSERT_TRUE(Transfers::CompleteOldest(kIn, LIBUSB_TRANSFER_COMPLETED, {1})); // not handled yet: too late to cancel
    Failures::Fail(Function::CancelTransfer, LIBUSB_ERROR_IO, /*skip=*/1); // the write's
    Failures::Fail(Function::HandleEvents, LIBUSB_ERROR_IO);                // and the first pass
    int passes = 0; // the device ends the write all the same, a pass later
    Events::SetHandleEventsHook([&] {
        if (++passes == 2) {
            Transfers::CompleteOldest(kOut);
        }
    });
    transport->Close();
    EXPECT_THAT(observer.logs, ElementsAre("Error cancelling write transfer", "Process events failed: -1"));
    EXPECT_THAT(observer.events, ElementsAre("error 11", "read 0", "write 0"));
}

// ---- Control transfers ----

TEST_F(TransferEngine, TheOwnerSeesTheSetupPacketAndOnlyTheBytesTheDeviceSent) {
    struct Row { uint8_t requestType, request; uint16_t value, index, length; Bytes sent, answer; std::string seen; };
    // In this order the control buffer grows, then serves a smaller request.
    const Row rows[] = {
        {0xC0, 51, 0, 0, 2, {}, {2, 0}, kVersionAnswered},
        {0x40, 52, 0x1234, 0xABCD, 300, Count(300), {}, "control 0 setup 40 34 34 12 cd ab 2c 01 data null length 0"},
        {0xC0, 51, 0, 0, 64, {}, {}, "control 0 setup c0 33 00 00 00 00 40 00 data null length 0"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.seen);
        observer = Recorder();
        ASSERT_EQ(transport->SubmitControlTransfer(row.requestType, row.request, row.value, row.index, row.length,
                                                   row.sent.data(), 2000),
                  0);
        Submission s = Oldest(kEndpointZero);
        EXPECT_EQ(s.length, 8 + row.length);
        EXPECT_EQ(s.timeout, 2000u);
        EXPECT_EQ(s.data, row.sent);
        Finish(s, LIBUSB_TRANSFER_COMPLETED, row.answer);
        EXPECT_THAT(observer.events, ElementsAre(row.seen));
    }
}

TEST_F(TransferEngine, TheOwnerMayStartTheNextControlRequestBeforeLookingAtTheAnswer) {
    const Bytes strings = Count(300);
    observer.onControl = [&] { EXPECT_EQ(transport->SubmitControlTransfer(0x40, 52, 0, 1, 300, strings.data(), 0), 0); };
    ASSERT_EQ(AskVersion(), 0);
    Finish(Oldest(kEndpointZero), LIBUSB_TRANSFER_COMPLETED, {2, 0});
    EXPECT_THAT(observer.events, ElementsAre(kVersionAnswered));
    EXPECT_EQ(Oldest(kEndpointZero).data, strings);
}

TEST_F(TransferEngine, WithoutMemoryForTheOwnersCopyAControlRequestEndsInError) {
    ASSERT_EQ(AskVersion(), 0);
    AllocationFailures::FailSize(8 + 2);
    Finish(Oldest(kEndpointZero), LIBUSB_TRANSFER_COMPLETED, {2, 0});
    EXPECT_THAT(observer.logs, ElementsAre("Unable to allocate memory for user-side control buffer"));
    EXPECT_THAT(observer.events, ElementsAre("control 1 setup null data null length 0"));
    EXPECT_EQ(AskVersion(), 0);
}

TEST_F(TransferEngine, ASecondWriteOrControlRequestWhileOneIsInFlightIsRefusedAndTouchesNothing) {
    ASSERT_EQ(Write(Count(10)), 0);
    ASSERT_EQ(AskVersion(), 0);
    EXPECT_EQ(Write(Bytes(10, 0xEE)), LIBUSB_ERROR_BUSY);
    EXPECT_EQ(transport->SubmitControlTransfer(0x40, 53, 0, 0, 0, nullptr, 2000), LIBUSB_ERROR_BUSY);
    EXPECT_EQ(Transfers::Submitted().size(), 2u);
    EXPECT_THAT(observer.logs, IsEmpty());

    Finish(Oldest(kOut), LIBUSB_TRANSFER_COMPLETED, {}, 4);
    EXPECT_EQ(Oldest(kOut).data, Count(10, 4)); // the retry still sends the first write's bytes
    Finish(Oldest(kEndpointZero), LIBUSB_TRANSFER_COMPLETED, {2, 0});
    EXPECT_THAT(observer.events, ElementsAre(kVersionAnswered));
}

TEST_F(DeviceSession, ARefusedWriteOrControlRequestIsLoggedReturnedAndLeavesNothingSet) {
    auto refuse = [] { Failures::Fail(Function::SubmitTransfer, LIBUSB_ERROR_IO); };
    auto write = [this] { return Write(Count(10)); };
    auto control = [this] { return AskVersion(); };
    struct Row { std::function<void()> inject; std::function<int()> submit; int result; std::string message; };
    const Row rows[] = {
        {refuse, write, LIBUSB_ERROR_IO, "Failed to submit libusb transfer for write: libusb error -1"},
        {[] { AllocationFailures::FailSize(10); }, write, LIBUSB_ERROR_NO_MEM, "Could not allocate buffer for write"},
        {refuse, control, LIBUSB_ERROR_IO, "Failed to submit libusb transfer for control transfer: libusb error -1"},
        {[] { AllocationFailures::FailSize(8 + 2); }, control, LIBUSB_ERROR_NO_MEM,
         "Could not allocate buffer for control transfer"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.message);
        ASSERT_EQ(Fresh(), 0);
        OpenForTransfers();
        row.inject();
        EXPECT_EQ(row.submit(), row.result);
        EXPECT_THAT(observer.logs, ElementsAre(row.message));
        EXPECT_THAT(Transfers::InFlight(), IsEmpty());
        EXPECT_EQ(row.submit(), 0); // so trying again goes out
    }
}

// ---- Writes ----

TEST_F(TransferEngine, AWriteIsReportedOnceWhenNothingOfItIsLeftToSend) {
    struct Row { size_t length; int status; int sent; Texts logs; Texts events; }; // no events: the rest is resent
    // A retried write comes first, so that the next one shows a fresh start.
    const Row rows[] = {
        {10, LIBUSB_TRANSFER_COMPLETED, 4, {"Retrying partial write"}, {}},
        {300, LIBUSB_TRANSFER_COMPLETED, 300, {}, {"write 0"}},
        {300, LIBUSB_TRANSFER_TIMED_OUT, 100, {"Write timeout: 100 of 300 written", "Retrying partial write"}, {}},
        {300, LIBUSB_TRANSFER_TIMED_OUT, 0, {"Write timeout: 0 of 300 written"}, {"write 2"}},
        {300, LIBUSB_TRANSFER_STALL, 0, {}, {"write 4"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::to_string(row.sent) + " of " + std::to_string(row.length) + ", status " +
                     std::to_string(row.status));
        observer = Recorder();
        ASSERT_EQ(Write(Count(row.length), 1000), 0);
        EXPECT_EQ(Oldest(kOut).data, Count(row.length));
        Finish(Oldest(kOut), row.status, {}, row.sent);
        EXPECT_EQ(observer.logs, row.logs);
        EXPECT_EQ(observer.events, row.events);
        EXPECT_EQ(transport->IsWriteInProgress(), row.events.empty());
        if (row.events.empty()) {
            Submission rest = Oldest(kOut);
            EXPECT_EQ(rest.data, Count(row.length, row.sent));
            EXPECT_EQ(rest.timeout, 1000u);
            Finish(rest);
            EXPECT_THAT(observer.events, ElementsAre("write 0"));
        }
    }
}

TEST_F(TransferEngine, AWriteWhoseRestCannotBeResubmittedEndsInError) {
    ASSERT_EQ(Write(Count(10)), 0);
    Failures::Fail(Function::SubmitTransfer, LIBUSB_ERROR_NO_DEVICE);
    Finish(Oldest(kOut), LIBUSB_TRANSFER_COMPLETED, {}, 4);
    EXPECT_THAT(observer.logs, ElementsAre("Retrying partial write", "Failed to resubmit transfer: libusb error -4"));
    EXPECT_THAT(observer.events, ElementsAre("write 1"));
    EXPECT_FALSE(transport->IsWriteInProgress());
    EXPECT_EQ(Write(Count(10)), 0);
}

// A phone's read ends only on a short packet: a write of whole packets needs
// a zero-length one after it, added by libusb where it can and sent by us
// where it cannot, and the owner hears of the write once, after it.
TEST_F(TransferEngine, AWriteOfWholePacketsEndsWithAZeroLengthPacket) {
    for (const auto& [length, flagged] : {std::pair<size_t, bool>{512, true}, {16384, true}, {1023, false},
                                          {513, false}, {10, false}}) {
        ASSERT_EQ(Write(Count(length)), 0);
        EXPECT_EQ(Oldest(kOut).flags, flagged ? LIBUSB_TRANSFER_ADD_ZERO_PACKET : 0) << length;
        Finish(Oldest(kOut));
    }
    observer = Recorder();
    Failures::Fail(Function::SubmitTransfer, LIBUSB_ERROR_NOT_SUPPORTED); // a libusb without the flag
    ASSERT_EQ(Write(Count(1024)), 0);
    for (int round = 0; round < 2; ++round) { // the refusal is remembered
        EXPECT_EQ(Oldest(kOut).flags, 0);
        Finish(Oldest(kOut), LIBUSB_TRANSFER_COMPLETED, {}, 512); // half now, half resent
        Finish(Oldest(kOut));
        EXPECT_TRUE(transport->IsWriteInProgress());
        EXPECT_EQ(Oldest(kOut).length, 0);
        Finish(Oldest(kOut));
        EXPECT_FALSE(transport->IsWriteInProgress());
        ASSERT_EQ(Write(Count(512)), 0);
        Finish(Oldest(kOut));
        EXPECT_EQ(Oldest(kOut).length, 0);
        Finish(Oldest(kOut));
        if (round == 0) {
            ASSERT_EQ(Write(Count(1024)), 0);
        }
    }
    EXPECT_THAT(observer.events, ElementsAre("write 0", "write 0", "write 0", "write 0"));
    // Five plain writes; the refused submission and its retry; per round the
    // rest, a packet, the 512 and a packet; the second 1024 between rounds.
    EXPECT_EQ(Calls::Count("libusb_submit_transfer"), 5 + 2 + 4 + 1 + 4);
}

// A write that ends short while Close drains would otherwise send its rest,
// which nothing cancels: the drain would never end.
TEST_F(TransferEngine, CloseEndsAWriteThatCompletesShortInsteadOfSendingItsRest) {
    ASSERT_EQ(Write(Count(4096)), 0);
    ASSERT_TRUE(Transfers::CompleteOldest(kOut, LIBUSB_TRANSFER_COMPLETED, {}, 1)); // too late to cancel
    int passes = 0;
    Events::SetHandleEventsHook([&] {
        if (++passes == 50) {
            Transfers::CompleteOldest(kOut); // lets an old build end, and fail below
        }
    });
    transport->Close();
    EXPECT_THAT(observer.events, ElementsAre("write 0"));
    EXPECT_EQ(Calls::Count("libusb_submit_transfer"), 1);
    EXPECT_LT(passes, 50);
}

// ---- Reads ----

TEST_F(TransferEngine, AReadThatFinishesBeforeTheOneSubmittedAheadOfItWaitsItsTurnAndNoDataIsLost) {
    ASSERT_EQ(SubmitReads(2), 0);
    std::vector<Submission> reads = Transfers::InFlight();
    ASSERT_EQ(reads.size(), 2u);
    Finish(reads[1], LIBUSB_TRANSFER_TIMED_OUT, {4, 5});
    EXPECT_THAT(observer.events, IsEmpty());
    EXPECT_EQ(transport->PeekReadLength(), 0u);

    Finish(reads[0], LIBUSB_TRANSFER_CANCELLED, {1, 2, 3});
    EXPECT_THAT(observer.events, ElementsAre("read 3", "read 2"));
    EXPECT_EQ(Take(100), (Bytes{1, 2, 3, 4, 5}));
}

TEST_F(TransferEngine, ReadsGoOnlyToIdleSlotsAndAReadWithNoDataFreesItsSlotAtOnce) {
    const size_t slots = LibUSBBearerConnection::kReadSlotCount;
    EXPECT_EQ(SubmitReads(1), 0);
    EXPECT_EQ(Transfers::InFlight().size(), 1u);
    EXPECT_EQ(SubmitReads(-1), 0);
    EXPECT_EQ(Transfers::InFlight().size(), slots);
    EXPECT_EQ(SubmitReads(-1), 0); // none idle: nothing to do
    EXPECT_EQ(Transfers::Submitted().size(), slots);
    EXPECT_EQ(Transfers::InFlight()[0].timeout, kReadTimeoutMs);

    Finish(Transfers::InFlight()[0]);
    EXPECT_THAT(observer.events, ElementsAre("read 0"));
    EXPECT_EQ(transport->PeekReadLength(), 0u);
    EXPECT_EQ(SubmitReads(-1), 0);
    EXPECT_EQ(Transfers::InFlight().size(), slots);
}

TEST_F(TransferEngine, ReadDataHandsOverChunksInPiecesOfAnySizeAndFreesASlotWithItsLastByte) {
    ASSERT_EQ(SubmitReads(-1), 0);
    std::vector<Submission> reads = Transfers::InFlight();
    const size_t waiting = reads.size() - 2; // the reads that stay in flight throughout
    Finish(reads[0], LIBUSB_TRANSFER_COMPLETED, {1, 2, 3, 4, 5});
    Finish(reads[1], LIBUSB_TRANSFER_COMPLETED, {6, 7, 8});

    EXPECT_EQ(Take(3), (Bytes{1, 2, 3}));
    EXPECT_EQ(transport->PeekReadLength(), 2u); // what is left of the chunk, so a Read never spans two
    EXPECT_EQ(SubmitReads(-1), 0);
    EXPECT_EQ(Transfers::InFlight().size(), waiting); // both slots still hold data

    EXPECT_EQ(Take(4), (Bytes{4, 5, 6, 7}));
    EXPECT_EQ(transport->PeekReadLength(), 1u);
    EXPECT_EQ(SubmitReads(-1), 0);
    EXPECT_EQ(Transfers::InFlight().size(), waiting + 1); // and the emptied one

    EXPECT_EQ(Take(100), (Bytes{8}));
    EXPECT_EQ(transport->PeekReadLength(), 0u);
    EXPECT_THAT(Take(100), IsEmpty());
}

TEST_F(TransferEngine, ARefusedReadGoesBackToTheIdleSlotsWhileTheOneAheadStaysPending) {
    Failures::Fail(Function::SubmitTransfer, LIBUSB_ERROR_IO, /*skip=*/1);
    EXPECT_EQ(SubmitReads(-1), LIBUSB_ERROR_IO);
    EXPECT_THAT(observer.logs, ElementsAre("Failed to submit libusb transfer for read: libusb error -1"));
    std::vector<Submission> reads = Transfers::InFlight();
    ASSERT_EQ(reads.size(), 1u);

    EXPECT_EQ(SubmitReads(-1), 0);
    EXPECT_EQ(Transfers::InFlight().size(), LibUSBBearerConnection::kReadSlotCount);
    Finish(reads[0], LIBUSB_TRANSFER_COMPLETED, {1});
    EXPECT_THAT(observer.events, ElementsAre("read 0"));
}

// 16384 bytes, the phone's largest write, is whole packets at 64, 512 and
// 1024 bytes; any other packet size gets as many whole packets as fit.
TEST_F(DeviceSession, ReadsAskForWholePacketsUpToThePhonesLargestWrite) {
    struct Row { uint16_t packetSize; uint8_t in; unsigned long failedAllocation; int result, readLength; Texts logs; };
    const Row rows[] = {
        {512, kIn, 0, 0, 16384, {}},
        {1023, kIn, 0, 0, 16368, {}},
        {0, kIn, 0, LIBUSB_ERROR_OTHER, 16384,
         {"Error: couldn't determine maximum packet size for device endpoint 0x81: libusb error -99"}},
        {512, 0x85, 0, LIBUSB_ERROR_NOT_FOUND, 16384,
         {"Error: couldn't determine maximum packet size for device endpoint 0x85: libusb error -5"}},
        {1023, kIn, 16368, LIBUSB_ERROR_NO_MEM, 16384, {"Could not allocate buffer for read"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE("packets of " + std::to_string(row.packetSize) + " on " + Hex(&row.in, 1));
        ASSERT_EQ(Fresh(), 0);
        OpenPhone(Phone(5, row.packetSize));
        if (row.failedAllocation != 0) {
            AllocationFailures::FailSize(row.failedAllocation);
        }
        EXPECT_EQ(transport->SetEndpoints(row.in, kOut), row.result);
        EXPECT_EQ(observer.logs, row.logs);
        EXPECT_THAT(Calls::Named("libusb_clear_halt"),
                    ElementsAre("libusb_clear_halt(1:5, 0x" + Hex(&row.in, 1) + ")", "libusb_clear_halt(1:5, 0x01)"));
        ASSERT_EQ(SubmitReads(-1), 0);
        for (const Submission& read : Transfers::InFlight()) {
            EXPECT_EQ(read.length, row.readLength);
        }
    }
}

// ---- Timers ----

TEST_F(TransferEngine, ASubmissionWithATimeOutEvenARefusedOneAsksForATimerInWholeMillisecondsRoundedUp) {
    auto refusedRead = [this] {
        Failures::Fail(Function::SubmitTransfer, LIBUSB_ERROR_IO);
        return SubmitReads(1);
    };
    struct Row { long seconds, microseconds; std::function<int()> submit; std::vector<int> asked; };
    const Row rows[] = {
        {0, 200, [this] { return AskVersion(); }, {1}},
        {1, 1500, [this] { return Write(Count(3), 1000); }, {1002}},
        {2, 0, refusedRead, {2000}},
        {0, 0, [this] { return SubmitReads(1); }, {1}},
        // Without a time-out of its own it cannot change libusb's next one.
        {3, 0, [this] { return Write(Count(3), 0); }, {}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::to_string(row.seconds) + " s " + std::to_string(row.microseconds) + " us");
        Events::SetNextTimeout(row.seconds, row.microseconds);
        observer = Recorder();
        row.submit();
        EXPECT_THAT(observer.timeouts, testing::ElementsAreArray(row.asked));
        if (!transport->IsWriteInProgress()) {
            continue;
        }
        Finish(Oldest(kOut));
    }
    Events::ClearNextTimeout();
    observer = Recorder();
    ASSERT_EQ(Write(Count(3), 1000), 0);
    EXPECT_THAT(observer.timeouts, IsEmpty()); // none pending

    // libusb fills in no time when the query fails: look again as soon as possible.
    Failures::Fail(Function::GetNextTimeout, LIBUSB_ERROR_OTHER);
    ASSERT_EQ(SubmitReads(1), 0);
    EXPECT_THAT(observer.timeouts, ElementsAre(1));
}

} // namespace
