// The double's own faults that would mislead the plug-in's tests: wrong
// reference counts, callbacks outside event handling or out of order, a poll
// descriptor that does not follow the queue, bytes in the wrong place.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/select.h>

#include <array>
#include <deque>
#include <thread>

#include "fakeusb/FakeUsb.h"

using namespace fakeusb;
using ::testing::ElementsAre;

namespace {

bool Readable(int fd) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, 0) == 1;
}

class FakeUsbTest : public ::testing::Test {
protected:
    void SetUp() override {
        Reset();
        ASSERT_EQ(libusb_init(&context), 0);
    }

    void TearDown() override {
        for (libusb_transfer* t : transfers) {
            libusb_free_transfer(t);
        }
        if (handle != nullptr) {
            libusb_close(handle);
        }
        libusb_exit(context);
        EXPECT_EQ(Outstanding::Now(), Outstanding{});
        Reset();
    }

    // Opens the first listed device, as the plug-in does: list, open, free.
    libusb_device_handle* OpenFirst() {
        libusb_device** list = nullptr;
        EXPECT_GE(libusb_get_device_list(context, &list), 1);
        EXPECT_EQ(libusb_open(list[0], &handle), 0);
        libusb_free_device_list(list, 1);
        return handle;
    }

    // Each completion appends its transfer's index to `delivered`.
    static void LIBUSB_CALL Delivered(libusb_transfer* t) {
        auto* self = static_cast<FakeUsbTest*>(t->user_data);
        for (size_t i = 0; i < self->transfers.size(); i++) {
            if (self->transfers[i] == t) {
                self->delivered.push_back(static_cast<int>(i));
            }
        }
    }

    static void LIBUSB_CALL DeliveredAndResubmitted(libusb_transfer* t) {
        Delivered(t);
        EXPECT_EQ(libusb_submit_transfer(t), 0);
    }

    libusb_transfer* Bulk(unsigned char endpoint, int length) {
        libusb_transfer* t = libusb_alloc_transfer(0);
        transfers.push_back(t);
        buffers.emplace_back(length, 0);
        libusb_fill_bulk_transfer(t, handle, endpoint, buffers.back().data(), length, Delivered, this, 0);
        return t;
    }

    void HandleEvents() {
        timeval zero{0, 0};
        EXPECT_EQ(libusb_handle_events_timeout(context, &zero), 0);
    }

    libusb_context* context = nullptr;
    libusb_device_handle* handle = nullptr;
    std::vector<libusb_transfer*> transfers;
    std::deque<std::vector<unsigned char>> buffers;
    std::vector<int> delivered;
};

TEST_F(FakeUsbTest, DeviceListFollowsThePlugsAndCountsEveryReference) {
    int first = Bus::Add(AndroidPhone(1, 5, "A"));
    Bus::Add(AndroidPhone(1, 7, "B"));
    Bus::Add(AndroidPhone(2, 3, "C"), 0);

    libusb_device** list = nullptr;
    ASSERT_EQ(libusb_get_device_list(context, &list), 3);
    EXPECT_EQ(libusb_get_bus_number(list[0]), 2);
    EXPECT_EQ(libusb_get_device_address(list[1]), 5);
    libusb_device* phone = libusb_ref_device(list[1]);
    EXPECT_EQ(Outstanding::Now().deviceRefs, 4);
    libusb_free_device_list(list, 1);

    Bus::Unplug(first);
    ASSERT_EQ(libusb_get_device_list(context, &list), 2);
    EXPECT_EQ(Bus::IdOf(list[0]), 3);
    libusb_free_device_list(list, 1);
    EXPECT_EQ(libusb_open(phone, &handle), LIBUSB_ERROR_NO_DEVICE);
    libusb_unref_device(phone);
    EXPECT_EQ(Outstanding::Now().deviceRefs, 0);
}

TEST_F(FakeUsbTest, CallbacksRunInsideEventHandlingInCompletionOrder) {
    Bus::Add(AccessoryPhone(1, 6, "A"));
    ASSERT_EQ(libusb_claim_interface(OpenFirst(), 0), 0);
    for (libusb_transfer* t : {Bulk(0x81, 64), Bulk(0x81, 64), Bulk(0x01, 4)}) {
        ASSERT_EQ(libusb_submit_transfer(t), 0);
    }
    std::vector<Submission> inFlight = Transfers::InFlight();
    ASSERT_EQ(inFlight.size(), 3u);
    const int fd = Events::PollFd(context);
    EXPECT_FALSE(Readable(fd));

    ASSERT_TRUE(Transfers::Complete(inFlight[2].id));
    ASSERT_TRUE(Transfers::Complete(inFlight[0].id, LIBUSB_TRANSFER_COMPLETED, {7, 8, 9}));
    EXPECT_TRUE(Readable(fd));
    EXPECT_TRUE(delivered.empty());
    EXPECT_FALSE(Transfers::Complete(inFlight[0].id)); // no longer in flight

    HandleEvents();
    EXPECT_THAT(delivered, ElementsAre(2, 0));
    EXPECT_EQ(transfers[2]->actual_length, 4);
    EXPECT_EQ(transfers[0]->actual_length, 3);
    EXPECT_THAT(std::vector<unsigned char>(buffers[0].begin(), buffers[0].begin() + 4), ElementsAre(7, 8, 9, 0));
    EXPECT_FALSE(Readable(fd));

    ASSERT_TRUE(Transfers::Complete(inFlight[1].id, LIBUSB_TRANSFER_TIMED_OUT));
    EXPECT_TRUE(Readable(fd));
    HandleEvents();
    EXPECT_EQ(transfers[1]->status, LIBUSB_TRANSFER_TIMED_OUT);
    EXPECT_EQ(transfers[1]->actual_length, 0);
}

TEST_F(FakeUsbTest, CompletionQueuedByACallbackWaitsForTheNextEventHandling) {
    Bus::Add(AccessoryPhone(1, 6, "A"));
    ASSERT_EQ(libusb_claim_interface(OpenFirst(), 0), 0);
    Transfers::SetResponder([](const Submission& s) { Transfers::Complete(s.id, LIBUSB_TRANSFER_COMPLETED, {1}); });
    libusb_transfer* read = Bulk(0x81, 16);
    read->callback = DeliveredAndResubmitted; // a phone that always has more to say
    ASSERT_EQ(libusb_submit_transfer(read), 0);

    HandleEvents();
    HandleEvents();
    EXPECT_EQ(delivered.size(), 2u);
    EXPECT_TRUE(Readable(Events::PollFd(context)));
    Transfers::SetResponder(nullptr);
    HandleEvents(); // the last resubmission stays in flight
    EXPECT_FALSE(Readable(Events::PollFd(context)));
    ASSERT_EQ(libusb_cancel_transfer(read), 0);
    read->callback = Delivered;
    HandleEvents();
}

TEST_F(FakeUsbTest, CancellationDeliversWhatTheTestSetAndIsRefusedOnceFinished) {
    Bus::Add(AccessoryPhone(1, 6, "A"));
    ASSERT_EQ(libusb_claim_interface(OpenFirst(), 0), 0);
    libusb_transfer* read = Bulk(0x81, 16);
    EXPECT_EQ(libusb_cancel_transfer(read), LIBUSB_ERROR_NOT_FOUND);
    ASSERT_EQ(libusb_submit_transfer(read), 0);
    ASSERT_TRUE(Transfers::SetCancelled(Transfers::InFlight()[0].id, 2, {5, 6}));

    EXPECT_EQ(libusb_cancel_transfer(read), 0);
    EXPECT_EQ(libusb_cancel_transfer(read), LIBUSB_ERROR_NOT_FOUND);
    HandleEvents();
    EXPECT_EQ(read->status, LIBUSB_TRANSFER_CANCELLED);
    EXPECT_EQ(read->actual_length, 2);
    EXPECT_EQ(buffers[0][1], 6);
    EXPECT_THAT(Calls::Named("libusb_cancel_transfer"), ElementsAre("libusb_cancel_transfer(1:6, 0x81)",
                                                                     "libusb_cancel_transfer(1:6, 0x81)",
                                                                     "libusb_cancel_transfer(1:6, 0x81)"));
}

TEST_F(FakeUsbTest, ResubmittingOrFreeingATransferInFlightIsReportedAndRefused) {
    Misuses::SetFailTests(false);
    Bus::Add(AccessoryPhone(1, 6, "A"));
    ASSERT_EQ(libusb_claim_interface(OpenFirst(), 0), 0);
    libusb_transfer* write = Bulk(0x01, 8);
    ASSERT_EQ(libusb_submit_transfer(write), 0);
    EXPECT_EQ(libusb_submit_transfer(write), LIBUSB_ERROR_BUSY);
    libusb_free_transfer(write);
    EXPECT_EQ(Misuses::Count(), 2);
    EXPECT_EQ(Transfers::Submitted().size(), 1u);

    ASSERT_TRUE(Transfers::CompleteOldest(0x01, LIBUSB_TRANSFER_COMPLETED, {}, 3));
    HandleEvents();
    EXPECT_EQ(write->actual_length, 3);
    ASSERT_EQ(libusb_submit_transfer(Bulk(0x82, 8)), 0); // interface 1 is not claimed
    EXPECT_TRUE(Transfers::Submitted()[0].interfaceClaimed);
    EXPECT_FALSE(Transfers::Submitted()[1].interfaceClaimed);
    ASSERT_EQ(libusb_cancel_transfer(transfers[1]), 0);
    HandleEvents();
}

TEST_F(FakeUsbTest, ControlTransfersKeepTheSetupPacketAndReceiveAfterIt) {
    Bus::Add(AndroidPhone(1, 5, "A"));
    OpenFirst();
    std::array<unsigned char, 8 + 3> out{};
    libusb_fill_control_setup(out.data(), 0x40, 52, 0, 1, 3);
    std::copy_n("abc", 3, out.begin() + 8);
    std::array<unsigned char, 8 + 2> in{};
    libusb_fill_control_setup(in.data(), 0xC0, 51, 0, 0, 2);
    for (unsigned char* buffer : {out.data(), in.data()}) {
        libusb_transfer* t = libusb_alloc_transfer(0);
        transfers.push_back(t);
        libusb_fill_control_transfer(t, handle, buffer, Delivered, this, 2000);
        ASSERT_EQ(libusb_submit_transfer(t), 0);
    }

    std::vector<Submission> s = Transfers::InFlight();
    EXPECT_EQ(s[0].setup.request, 52);
    EXPECT_EQ(s[0].setup.index, 1);
    EXPECT_THAT(s[0].data, ElementsAre('a', 'b', 'c'));
    EXPECT_TRUE(s[1].IsIn());
    EXPECT_EQ(s[1].timeout, 2000u);
    EXPECT_FALSE(Transfers::Complete(s[1].id, LIBUSB_TRANSFER_COMPLETED, {1, 2, 3})); // more than wLength
    ASSERT_TRUE(Transfers::Complete(s[1].id, LIBUSB_TRANSFER_COMPLETED, {2, 0}));
    ASSERT_TRUE(Transfers::Complete(s[0].id));
    HandleEvents();
    EXPECT_EQ(in[8], 2);
    EXPECT_EQ(transfers[1]->actual_length, 2);
    EXPECT_EQ(transfers[0]->actual_length, 3);
    EXPECT_THAT(Calls::Named("libusb_submit_transfer"),
                ElementsAre("libusb_submit_transfer(1:5, 0x00, control, 40 34 00 00 01 00 03 00)",
                            "libusb_submit_transfer(1:5, 0x00, control, c0 33 00 00 00 00 02 00)"));
}

TEST_F(FakeUsbTest, ScriptedFailuresSkipThenFailTheGivenNumberOfCalls) {
    Bus::Add(AndroidPhone(1, 5, "A"));
    libusb_device** list = nullptr;
    ASSERT_EQ(libusb_get_device_list(context, &list), 1);
    Failures::Fail(Function::Open, LIBUSB_ERROR_ACCESS, 2, 1);
    std::vector<int> results;
    for (int i = 0; i < 4; i++) {
        libusb_device_handle* h = nullptr;
        results.push_back(libusb_open(list[0], &h));
        libusb_close(h);
    }
    libusb_free_device_list(list, 1);
    EXPECT_THAT(results, ElementsAre(0, LIBUSB_ERROR_ACCESS, LIBUSB_ERROR_ACCESS, 0));
    EXPECT_EQ(Calls::Count("libusb_open"), 4);

    Failures::Fail(Function::AllocTransfer, 0, Failures::kAlways);
    EXPECT_EQ(libusb_alloc_transfer(0), nullptr);
    EXPECT_EQ(libusb_alloc_transfer(0), nullptr);
}

TEST_F(FakeUsbTest, DescriptorsAndConfigurationFollowTheDeviceSpec) {
    DeviceSpec phone = AccessoryPhone(1, 6, "0123456789");
    phone.configuration = 0;
    phone.kernelDriverActive = 1;
    int id = Bus::Add(phone);
    OpenFirst();
    libusb_device* device = libusb_get_device(handle);

    libusb_config_descriptor* config = nullptr;
    ASSERT_EQ(libusb_get_config_descriptor_by_value(device, 1, &config), 0);
    ASSERT_EQ(config->bNumInterfaces, 2);
    const libusb_interface_descriptor& adb = config->interface[1].altsetting[0];
    EXPECT_EQ(adb.bInterfaceSubClass, 0x42);
    EXPECT_EQ(adb.endpoint[1].bEndpointAddress, 0x02);
    libusb_free_config_descriptor(config);

    EXPECT_EQ(libusb_get_max_packet_size(device, 0x81), LIBUSB_ERROR_OTHER); // unconfigured
    EXPECT_EQ(libusb_claim_interface(handle, 0), LIBUSB_ERROR_NOT_FOUND);
    ASSERT_EQ(libusb_set_configuration(handle, 1), 0);
    EXPECT_EQ(libusb_get_max_packet_size(device, 0x81), 512);
    EXPECT_EQ(libusb_claim_interface(handle, 0), LIBUSB_ERROR_BUSY); // the kernel driver holds it
    EXPECT_EQ(libusb_detach_kernel_driver(handle, 0), 0);
    EXPECT_EQ(libusb_claim_interface(handle, 0), 0);
    EXPECT_EQ(libusb_set_configuration(handle, 1), LIBUSB_ERROR_BUSY);
    EXPECT_THAT(Bus::ClaimedInterfaces(id), ElementsAre(0));

    unsigned char serial[8];
    EXPECT_EQ(libusb_get_string_descriptor_ascii(handle, DeviceSpec::kSerialIndex, serial, sizeof serial), 7);
    EXPECT_STREQ(reinterpret_cast<char*>(serial), "0123456");
    EXPECT_EQ(libusb_get_string_descriptor_ascii(handle, 9, serial, sizeof serial), LIBUSB_ERROR_PIPE);
}

TEST_F(FakeUsbTest, UnplugEndsTransfersInFlightAndOpenHandlesAnswerNoDevice) {
    int id = Bus::Add(AccessoryPhone(1, 6, "A"));
    ASSERT_EQ(libusb_claim_interface(OpenFirst(), 0), 0);
    ASSERT_EQ(libusb_submit_transfer(Bulk(0x81, 16)), 0);

    Bus::Unplug(id);
    HandleEvents();
    EXPECT_EQ(transfers[0]->status, LIBUSB_TRANSFER_NO_DEVICE);
    EXPECT_EQ(libusb_submit_transfer(transfers[0]), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(libusb_release_interface(handle, 0), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_FALSE(Bus::Present(id));
}

// The plug-in's event thread select()s on the descriptor while the test thread
// completes transfers and handles events; also run under ThreadSanitizer.
TEST_F(FakeUsbTest, PollDescriptorWakesAThreadWaitingInSelect) {
    static std::vector<std::pair<char, int>> notified;
    notified.clear();
    libusb_set_pollfd_notifiers(
        context, [](int fd, short, void*) { notified.push_back({'+', fd}); },
        [](int fd, void*) { notified.push_back({'-', fd}); }, nullptr);
    const libusb_pollfd** fds = libusb_get_pollfds(context);
    ASSERT_NE(fds, nullptr);
    ASSERT_NE(fds[0], nullptr);
    const int fd = fds[0]->fd;
    EXPECT_EQ(fds[0]->events, POLLIN);
    EXPECT_EQ(fds[1], nullptr);
    free(fds);

    Bus::Add(AccessoryPhone(1, 6, "A"));
    ASSERT_EQ(libusb_claim_interface(OpenFirst(), 0), 0);
    ASSERT_EQ(libusb_submit_transfer(Bulk(0x81, 16)), 0);
    std::thread waiter([fd] {
        fd_set read;
        FD_ZERO(&read);
        FD_SET(fd, &read);
        EXPECT_EQ(select(fd + 1, &read, nullptr, nullptr, nullptr), 1);
    });
    ASSERT_TRUE(Transfers::CompleteOldest(0x81, LIBUSB_TRANSFER_COMPLETED, {1, 2}));
    waiter.join();
    HandleEvents();
    EXPECT_THAT(delivered, ElementsAre(0));

    Events::AddPollFd(0, POLLIN);
    Events::RemovePollFd(0);
    Events::AddPollFd(1, POLLOUT);
    libusb_free_transfer(transfers[0]);
    transfers.clear();
    libusb_close(handle);
    handle = nullptr;
    libusb_exit(context);
    EXPECT_THAT(notified, ElementsAre(std::make_pair('+', 0), std::make_pair('-', 0), std::make_pair('+', 1),
                                      std::make_pair('-', fd), std::make_pair('-', 1)));
    ASSERT_EQ(libusb_init(&context), 0); // for TearDown
}

} // namespace
