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
    void SetUp() override { ASSERT_EQ(Fresh(), 0); }
    void TearDown() override {
        Stop();
        fakeusb::Reset();
    }

    // Whatever state it is in, a transport gives everything back when destroyed.
    void Stop() {
        transport.reset();
        EXPECT_EQ(fakeusb::Outstanding::Now(), fakeusb::Outstanding{});
    }
    // A new transport (again for each row of a table); `arrange` runs before it starts.
    int Fresh(const std::function<void()>& arrange = [] {}) {
        Stop();
        fakeusb::Reset();
        AllocationFailures::Reset();
        observer = Recorder();
        arrange();
        transport = std::make_unique<LibUSBBearerConnection>(0, &observer);
        return transport->Initialise();
    }

    // An accessory-mode phone at 1:5; interface 0 has bulk 0x81 IN and 0x01 OUT.
    static fakeusb::DeviceSpec Phone(uint16_t inPacketSize = 512) {
        fakeusb::DeviceSpec phone = fakeusb::AccessoryPhone(1, 5, "R58M40", false);
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

// libusb_init refused and the first read transfer missing are the
// connection's to show (KestoConnectionAAPEstablishTest); each allocation
// failing in turn, the allocation sweep's.
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
    struct Row { std::function<void()> inject; int result; std::string message; };
    const Row rows[] = {
        {roomForLibusbOnly, LIBUSB_ERROR_OTHER, "FD compositor creation failed: 1 (Too many open files)"},
        {[] { AllocationFailures::FailSize(16384); }, LIBUSB_ERROR_NO_MEM, "Error: could not allocate read buffer"},
        {noTransfer(kSlots), LIBUSB_ERROR_NO_MEM, "Could not allocate transfer for write transfers"},
        {noTransfer(kSlots + 1), LIBUSB_ERROR_NO_MEM, "Could not allocate transfer for control transfers"},
        {[] { Failures::Fail(Function::GetPollfds, LIBUSB_ERROR_NO_MEM); }, LIBUSB_ERROR_NO_MEM,
         "Could not list libusb's descriptors"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.message);
        EXPECT_EQ(Fresh(row.inject), row.result);
        setrlimit(RLIMIT_NOFILE, &saved);
        EXPECT_THAT(observer.logs, ElementsAre(row.message));
    }
}

// ---- Opening, claiming, releasing ----

TEST_F(DeviceSession, TheFirstDeviceListedAtTheAddressIsOpenedOrNoneIsFound) {
    const std::string notOpened = "Error: Could not open device on bus 1 at address 5";
    int first = -1;
    auto twoThere = [&first] {
        first = Bus::Add(Phone());
        Bus::Add(Phone());
    };
    struct Row { const char* story; std::function<void()> arrange; int result, opens; Texts logs; };
    const Row rows[] = {
        {"two at that address", twoThere, 0, 1, {}},
        {"the first of two refuses", [&] { twoThere(); Failures::Fail(Function::Open, LIBUSB_ERROR_ACCESS); },
         LIBUSB_ERROR_NOT_FOUND, 1, {"Error: Couldn't open device with libusb error -3", notOpened}},
        {"no device list", [] { Bus::Add(Phone()); Failures::Fail(Function::GetDeviceList, LIBUSB_ERROR_NO_MEM); },
         LIBUSB_ERROR_NOT_FOUND, 0, {notOpened}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.story);
        ASSERT_EQ(Fresh(row.arrange), 0);
        EXPECT_EQ(transport->OpenDevice(1, 5), row.result);
        const libusb_device* opened = transport->GetDevice();
        EXPECT_EQ(opened != nullptr ? Bus::IdOf(opened) : -1, row.result == 0 ? first : -1);
        EXPECT_EQ(Calls::Count("libusb_open"), row.opens);
        EXPECT_EQ(observer.logs, row.logs);
    }
}

// A claim that libusb refuses is the connection's to show (KestoConnectionAAPRediscoveryTest).
TEST_F(DeviceSession, ClaimingGoesByWhatTheKernelDriverQueryAnswers) {
    auto fail = [](Function f, int error) { return [=] { Failures::Fail(f, error); }; };
    struct Row { const char* answer; int kernelDriverActive; std::function<void()> inject; int result; Texts logs; };
    const Row rows[] = {
        {"query not supported", LIBUSB_ERROR_NOT_SUPPORTED, [] {}, 0,
         {"Warning: Kernel driver status query not supported"}},
        {"query fails", 0, fail(Function::KernelDriverActive, LIBUSB_ERROR_IO), LIBUSB_ERROR_IO,
         {"Error: Unable to determine if kernel driver is active: libusb error -1"}},
        {"driver active", 1, [] {}, 0, {}},
        {"driver will not let go", 1, fail(Function::DetachKernelDriver, LIBUSB_ERROR_ACCESS), LIBUSB_ERROR_ACCESS,
         {"Error: Unable to detatch active kernel driver: libusb error -3"}},
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

// Close cancels what is in flight and waits for every transfer to come back,
// however long the device takes to end one whose cancellation failed.
TEST_F(TransferEngine, CloseWaitsForEveryTransferAndTheDeviceCanBeOpenedAgain) {
    ASSERT_EQ(SubmitReads(2), 0);
    std::vector<Submission> reads = Transfers::InFlight();
    ASSERT_EQ(reads.size(), 2u);
    ASSERT_EQ(Write(Count(10)), 0);
    ASSERT_EQ(AskVersion(), 0);
    ASSERT_TRUE(Transfers::Complete(reads[0].id, LIBUSB_TRANSFER_COMPLETED, {1})); // not handled yet: too late to cancel
    ASSERT_TRUE(Transfers::SetCancelled(reads[1].id, 2, {7, 7}));                  // data in hand goes too
    Failures::Fail(Function::CancelTransfer, LIBUSB_ERROR_IO, /*skip=*/2); // the write's
    Failures::Fail(Function::HandleEvents, LIBUSB_ERROR_IO);               // and the first pass
    int passes = 0; // the device ends the write all the same, a pass later
    Events::SetHandleEventsHook([&] {
        if (++passes == 2) {
            Transfers::CompleteOldest(kOut);
        }
    });
    size_t before = Calls::All().size();

    transport->Close();
    Events::SetHandleEventsHook(nullptr); // it counts on this stack, and TearDown closes again
    EXPECT_THAT(observer.logs, ElementsAre("Error cancelling write transfer", "Process events failed: -1"));
    EXPECT_THAT(observer.events, ElementsAre("error 11", "read 0", "read 3",
                                             "control 3 setup c0 33 00 00 00 00 02 00 data null length 0", "write 0"));
    Texts calls = Calls::All();
    EXPECT_THAT(Texts(calls.begin() + before, calls.end()),
                ElementsAre("libusb_cancel_transfer(1:5, 0x81)", "libusb_cancel_transfer(1:5, 0x81)",
                            "libusb_cancel_transfer(1:5, 0x01)", "libusb_cancel_transfer(1:5, 0x00)",
                            "libusb_release_interface(1:5, 0)", "libusb_close(1:5)"));
    EXPECT_EQ(fakeusb::Outstanding::Now().deviceRefs, 0); // neither the handle nor ours
    EXPECT_EQ(transport->PeekReadLength(), 0u);
    transport->Close(); // as with nothing ever opened, libusb is not asked
    EXPECT_EQ(Calls::All().size(), calls.size());

    ASSERT_EQ(transport->OpenDevice(1, 5), 0);
    EXPECT_EQ(SubmitReads(-1), 0);
    EXPECT_EQ(Transfers::InFlight().size(), LibUSBBearerConnection::kReadSlotCount); // every slot idle again
    EXPECT_EQ(Write(Count(4)), 0);
    EXPECT_EQ(AskVersion(), 0);
}

// A toolkit may handle signals on any thread, so libusb's poll can be cut
// short at any pass, Close's drain included: that is no failure, and the
// pass still delivers.
TEST_F(TransferEngine, ASignalThatCutsLibusbsPollShortIsNoFailure) {
    ASSERT_EQ(SubmitReads(1), 0);
    Failures::Fail(Function::HandleEvents, LIBUSB_ERROR_INTERRUPTED);
    Finish(Oldest(kIn), LIBUSB_TRANSFER_COMPLETED, {1, 2});
    EXPECT_EQ(Take(8), Bytes({1, 2}));
    ASSERT_EQ(SubmitReads(1), 0);
    Failures::Fail(Function::HandleEvents, LIBUSB_ERROR_INTERRUPTED);
    transport->Close();
    EXPECT_TRUE(observer.logs.empty()) << observer.logs[0];
    EXPECT_THAT(observer.events, ElementsAre("read 0", "read 3"));
}

// ---- Control transfers and writes ----

// One of each may be in flight. The owner may start its next control request
// inside the completion, before it looks at the answer, which is its own copy.
TEST_F(TransferEngine, ASecondWriteOrControlRequestWhileOneIsInFlightIsRefusedAndTouchesNothing) {
    ASSERT_EQ(Write(Count(10)), 0);
    ASSERT_EQ(AskVersion(), 0);
    EXPECT_EQ(Write(Bytes(10, 0xEE)), LIBUSB_ERROR_BUSY);
    EXPECT_EQ(transport->SubmitControlTransfer(0x40, 53, 0, 0, 0, nullptr, 2000), LIBUSB_ERROR_BUSY);
    EXPECT_EQ(Transfers::Submitted().size(), 2u);
    EXPECT_THAT(observer.logs, IsEmpty());

    Finish(Oldest(kOut), LIBUSB_TRANSFER_COMPLETED, {}, 4);
    EXPECT_EQ(Oldest(kOut).data, Count(10, 4)); // the retry still sends the first write's bytes
    const Bytes strings = Count(300);
    observer.onControl = [&] { EXPECT_EQ(transport->SubmitControlTransfer(0x40, 52, 0, 1, 300, strings.data(), 0), 0); };
    Finish(Oldest(kEndpointZero), LIBUSB_TRANSFER_COMPLETED, {2, 0});
    EXPECT_THAT(observer.events, ElementsAre(kVersionAnswered));
    EXPECT_EQ(Oldest(kEndpointZero).data, strings);

    AllocationFailures::FailSize(8 + 300); // no memory for the owner's copy: the request ends in error
    Finish(Oldest(kEndpointZero));
    EXPECT_EQ(observer.logs.back(), "Unable to allocate memory for user-side control buffer");
    EXPECT_EQ(observer.events.back(), "control 1 setup null data null length 0");
    EXPECT_EQ(AskVersion(), 0);
}

// A control request libusb refuses is the connection's to show (KestoConnectionAAPSwitchTest).
TEST_F(DeviceSession, ARefusedWriteOrControlRequestIsLoggedReturnedAndLeavesNothingSet) {
    auto write = [this] { return Write(Count(10)); };
    struct Row { std::function<void()> inject; std::function<int()> submit; int result; std::string message; };
    const Row rows[] = {
        {[] { Failures::Fail(Function::SubmitTransfer, LIBUSB_ERROR_IO); }, write, LIBUSB_ERROR_IO,
         "Failed to submit libusb transfer for write: libusb error -1"},
        {[] { AllocationFailures::FailSize(10); }, write, LIBUSB_ERROR_NO_MEM, "Could not allocate buffer for write"},
        {[] { AllocationFailures::FailSize(8 + 2); }, [this] { return AskVersion(); }, LIBUSB_ERROR_NO_MEM,
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

// A write sent whole, or ended by a stall, is the connection's to show (KestoConnectionAAPDataTest).
TEST_F(TransferEngine, AWriteIsReportedOnceWhenNothingOfItIsLeftToSend) {
    // No events: the rest is resent. A retried write comes first, so that the next one shows a fresh start.
    struct Row { size_t length; int status, sent; bool restRefused; Texts logs, events; };
    const Row rows[] = {
        {10, LIBUSB_TRANSFER_COMPLETED, 4, false, {"Retrying partial write"}, {}},
        {10, LIBUSB_TRANSFER_COMPLETED, 4, true,
         {"Retrying partial write", "Failed to resubmit transfer: libusb error -4"}, {"write 1"}},
        {300, LIBUSB_TRANSFER_TIMED_OUT, 100, false, {"Write timeout: 100 of 300 written", "Retrying partial write"}, {}},
        {300, LIBUSB_TRANSFER_TIMED_OUT, 0, false, {"Write timeout: 0 of 300 written"}, {"write 2"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::to_string(row.sent) + " of " + std::to_string(row.length) + ", status " +
                     std::to_string(row.status) + (row.restRefused ? ", rest refused" : ""));
        observer = Recorder();
        ASSERT_EQ(Write(Count(row.length), 1000), 0);
        EXPECT_EQ(Oldest(kOut).data, Count(row.length));
        if (row.restRefused) {
            Failures::Fail(Function::SubmitTransfer, LIBUSB_ERROR_NO_DEVICE);
        }
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
    EXPECT_EQ(Oldest(kOut).flags, 0);
    Finish(Oldest(kOut), LIBUSB_TRANSFER_COMPLETED, {}, 512); // half now, half resent
    Finish(Oldest(kOut));
    EXPECT_EQ(Oldest(kOut).length, 0);
    EXPECT_THAT(observer.events, IsEmpty());
    Finish(Oldest(kOut));
    ASSERT_EQ(Write(Count(512)), 0); // the refusal is remembered
    EXPECT_EQ(Oldest(kOut).flags, 0);
    Finish(Oldest(kOut));
    EXPECT_EQ(Oldest(kOut).length, 0);
    Finish(Oldest(kOut));
    EXPECT_THAT(observer.events, ElementsAre("write 0", "write 0"));
    // Five plain writes; the refused submission and its retry, the rest and a
    // packet; the 512 and a packet.
    EXPECT_EQ(Calls::Count("libusb_submit_transfer"), 5 + 2 + 2 + 2);
    // A packet that cannot go ends the write in error.
    ASSERT_EQ(Write(Count(512)), 0);
    Failures::Fail(Function::SubmitTransfer, LIBUSB_ERROR_NO_DEVICE);
    Finish(Oldest(kOut));
    EXPECT_EQ(observer.logs.back(), "Failed to submit zero-length packet: libusb error -4");
    EXPECT_EQ(observer.events.back(), "write 1");
}

// ---- Reads ----

// However they end, reads retire in the order they were submitted. Reads
// ending empty, and the data phase's bytes, are the connection's to show
// (KestoConnectionAAPDataTest).
TEST_F(TransferEngine, ReadsRetireInTheOrderSubmittedAndFreeASlotWithItsLastByte) {
    Failures::Fail(Function::SubmitTransfer, LIBUSB_ERROR_IO, /*skip=*/1);
    EXPECT_EQ(SubmitReads(-1), LIBUSB_ERROR_IO); // stops at the refusal, whose slot stays idle
    EXPECT_THAT(observer.logs, ElementsAre("Failed to submit libusb transfer for read: libusb error -1"));
    ASSERT_EQ(Transfers::InFlight().size(), 1u);
    EXPECT_EQ(SubmitReads(-1), 0);
    std::vector<Submission> reads = Transfers::InFlight();
    ASSERT_EQ(reads.size(), LibUSBBearerConnection::kReadSlotCount);

    Finish(reads[1], LIBUSB_TRANSFER_TIMED_OUT, {4, 5}); // waits for the one ahead of it
    EXPECT_THAT(observer.events, IsEmpty());
    EXPECT_EQ(transport->PeekReadLength(), 0u);
    Finish(reads[0], LIBUSB_TRANSFER_CANCELLED, {1, 2, 3}); // bytes are kept whatever the status
    EXPECT_THAT(observer.events, ElementsAre("read 3", "read 2"));

    EXPECT_EQ(Take(2), (Bytes{1, 2}));
    EXPECT_EQ(transport->PeekReadLength(), 1u); // what is left of the chunk, so a Read never spans two
    EXPECT_EQ(SubmitReads(-1), 0);
    EXPECT_EQ(Transfers::InFlight().size(), reads.size() - 2); // both slots still hold data
    EXPECT_EQ(Take(3), (Bytes{3, 4, 5}));                      // a Take may span them
    EXPECT_EQ(SubmitReads(-1), 0);
    EXPECT_EQ(Transfers::InFlight().size(), reads.size());
    EXPECT_THAT(Take(100), IsEmpty());
}

// 16384 bytes, the phone's largest write, is whole packets at 64, 512 and
// 1024 bytes (at 512 the connection shows it, with the halts cleared:
// KestoConnectionAAPInterfaceTest); any other packet size gets as many whole
// packets as fit. A size libusb cannot tell is the connection's to show
// (KestoConnectionAAPRediscoveryTest); one of 0 is no size either.
TEST_F(DeviceSession, ReadsAskForWholePacketsUpToThePhonesLargestWrite) {
    struct Row { uint16_t packetSize; unsigned long failedAllocation; int result, readLength; Texts logs; };
    const Row rows[] = {
        {1023, 0, 0, 16368, {}},
        {0, 0, LIBUSB_ERROR_OTHER, 16384,
         {"Error: couldn't determine maximum packet size for device endpoint 0x81: libusb error -99"}},
        {1023, 16368, LIBUSB_ERROR_NO_MEM, 16384, {"Could not allocate buffer for read"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE("packets of " + std::to_string(row.packetSize));
        ASSERT_EQ(Fresh(), 0);
        OpenPhone(Phone(row.packetSize));
        if (row.failedAllocation != 0) {
            AllocationFailures::FailSize(row.failedAllocation);
        }
        EXPECT_EQ(transport->SetEndpoints(kIn, kOut), row.result);
        EXPECT_EQ(observer.logs, row.logs);
        ASSERT_EQ(SubmitReads(-1), 0);
        for (const Submission& read : Transfers::InFlight()) {
            EXPECT_EQ(read.length, row.readLength);
        }
    }
}

// ---- Timers ----

TEST_F(TransferEngine, ASubmissionWithATimeOutEvenARefusedOneAsksForATimerInWholeMillisecondsRoundedUp) {
    auto failing = [this](Function function) {
        return [this, function] {
            Failures::Fail(function, LIBUSB_ERROR_IO);
            return SubmitReads(1);
        };
    };
    // seconds < 0: libusb has no time-out pending. Its query failing leaves
    // the time unset: look again as soon as possible.
    struct Row { long seconds, microseconds; std::function<int()> submit; std::vector<int> asked; };
    const Row rows[] = {
        {0, 200, [this] { return AskVersion(); }, {1}},
        {1, 1500, [this] { return Write(Count(3), 1000); }, {1002}},
        {2, 0, failing(Function::SubmitTransfer), {2000}},
        {0, 0, [this] { return SubmitReads(1); }, {1}},
        // Without a time-out of its own it cannot change libusb's next one.
        {3, 0, [this] { return Write(Count(3), 0); }, {}},
        {-1, 0, [this] { return Write(Count(3), 1000); }, {}},
        {5, 0, failing(Function::GetNextTimeout), {1}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::to_string(row.seconds) + " s " + std::to_string(row.microseconds) + " us");
        if (row.seconds < 0) {
            Events::ClearNextTimeout();
        } else {
            Events::SetNextTimeout(row.seconds, row.microseconds);
        }
        observer = Recorder();
        row.submit();
        EXPECT_THAT(observer.timeouts, testing::ElementsAreArray(row.asked));
        if (transport->IsWriteInProgress()) {
            Finish(Oldest(kOut));
        }
    }
}

} // namespace
