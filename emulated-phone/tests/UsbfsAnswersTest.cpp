// usbfs answers given straight on the device node, where libusb would blur
// them (it maps ENODATA and "usbfs" alike, -ENOENT and -ECONNRESET alike) or
// where the plug-in never goes: the kernel's answers, not just libusb's view.
#include "emulated-phone/PhoneWorld.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <vector>

namespace emuphone {
namespace {

constexpr uint8_t kIn = 0x81;
constexpr uint8_t kOut = 0x01;

// A node opened as libusb opens it, with the phone in accessory mode and
// silent, so that an IN URB stays in flight until something ends it.
class UsbfsNode : public ::testing::TestWithParam<PhoneWorld::IoctlPath> {
protected:
    void Plug(PhoneOptions options = {})
    {
        Close();
        options.startInAccessoryMode = true;
        options.sendHandshake = false;
        world_ = std::make_unique<PhoneWorld>(GetParam());
        phone_ = &world_->AddPhone(options);
        char node[32];
        std::snprintf(node, sizeof node, "/dev/bus/usb/%03d/%03d", phone_->BusNumber(), phone_->Address());
        fd_ = open(node, O_RDWR | O_CLOEXEC);
        ASSERT_GE(fd_, 0) << node << ": " << std::strerror(errno);
    }
    void TearDown() override { Close(); }
    void Close()
    {
        if (fd_ >= 0)
            close(fd_);
        fd_ = -1;
        world_.reset();
    }
    // 0, or the errno of the failed request.
    int Call(unsigned long request, void* argument)
    {
        return ioctl(fd_, request, argument) == 0 ? 0 : errno;
    }
    int Claim(unsigned int interface) { return Call(USBDEVFS_CLAIMINTERFACE, &interface); }
    // A bulk IN URB, or with `vendorRequest` a vendor control request reading 2 bytes.
    int Submit(usbdevfs_urb& urb, uint8_t vendorRequest = 0)
    {
        const unsigned char setup[8] = {0xC0, vendorRequest, 0, 0, 0, 0, 2, 0};
        std::memcpy(buffer_, setup, sizeof setup);
        return Send(urb, buffer_, vendorRequest ? sizeof setup + 2 : sizeof buffer_, vendorRequest ? 0 : kIn);
    }
    // A bulk URB of `length` bytes at `data` on `endpoint`, or on 0 a control URB.
    int Send(usbdevfs_urb& urb, const void* data, size_t length, uint8_t endpoint = kOut)
    {
        urb = {};
        urb.type = endpoint ? USBDEVFS_URB_TYPE_BULK : USBDEVFS_URB_TYPE_CONTROL;
        urb.endpoint = endpoint;
        urb.buffer = const_cast<void*>(data);
        urb.buffer_length = static_cast<int>(length);
        return Call(USBDEVFS_SUBMITURB, &urb);
    }
    // Whether the node polls writable (a URB to reap) or hung up within `ms`.
    bool Ready(int ms)
    {
        pollfd p{fd_, POLLOUT, 0};
        return poll(&p, 1, ms) == 1;
    }
    // The reaped URB, or null with the errno in `error`.
    usbdevfs_urb* Reap(int& error)
    {
        usbdevfs_urb* urb = nullptr;
        error = Call(USBDEVFS_REAPURBNDELAY, &urb);
        return urb;
    }
    // Whether `urb` came back, reaping what ended before it.
    bool Reaped(const usbdevfs_urb& urb)
    {
        int error = 0;
        while (Ready(2000))
            if (Reap(error) == &urb)
                return true;
        return false;
    }

    std::unique_ptr<PhoneWorld> world_;
    EmulatedPhone* phone_ = nullptr;
    int fd_ = -1;
    unsigned char buffer_[16384] = {};
};

// The phone comes back from the switch unconfigured, as some do.
TEST_P(UsbfsNode, ClaimsAndConfigurationAnswerAsTheKernelDoes)
{
    PhoneOptions options;
    options.accessoryUnconfigured = true;
    Plug(options);
    usbdevfs_getdriver driver{};
    usbdevfs_urb* none = nullptr;
    usbdevfs_urb urb;
    int configuration = 1;
    unsigned int interface = 0;
    usbdevfs_ioctl disconnect{0, USBDEVFS_DISCONNECT, nullptr};
    // No interfaces until configuration one is set.
    EXPECT_EQ(ENOENT, Claim(0));
    EXPECT_EQ(ENOENT, Submit(urb));
    ASSERT_EQ(0, Call(USBDEVFS_SETCONFIGURATION, &configuration));
    // Nothing claimed yet: no driver to name or detach, nothing to release or reap.
    EXPECT_EQ(ENODATA, Call(USBDEVFS_GETDRIVER, &driver));
    EXPECT_EQ(ENODATA, Call(USBDEVFS_IOCTL, &disconnect));
    EXPECT_EQ(EINVAL, Call(USBDEVFS_RELEASEINTERFACE, &interface));
    EXPECT_EQ(EAGAIN, Call(USBDEVFS_REAPURBNDELAY, &none));
    EXPECT_EQ(ENOENT, Claim(5));
    EXPECT_EQ(EINVAL, Claim(40)); // beyond usbfs's bit set of claims
    configuration = 2;
    EXPECT_EQ(EINVAL, Call(USBDEVFS_SETCONFIGURATION, &configuration));

    ASSERT_EQ(0, Claim(0));
    ASSERT_EQ(0, Call(USBDEVFS_GETDRIVER, &driver));
    EXPECT_STREQ("usbfs", driver.driver);
    configuration = 1;
    EXPECT_EQ(EBUSY, Call(USBDEVFS_SETCONFIGURATION, &configuration));
    ASSERT_EQ(0, Call(USBDEVFS_RELEASEINTERFACE, &interface));
    EXPECT_EQ(0, Call(USBDEVFS_SETCONFIGURATION, &configuration));
    // A URB on the unclaimed interface claims it on the file's behalf, and is counted.
    ASSERT_EQ(0, Submit(urb));
    EXPECT_EQ(0, Call(USBDEVFS_GETDRIVER, &driver));
    EXPECT_EQ(1, phone_->Report().unclaimedSubmissions);
}

// Each way a URB in flight can end, and the status usbfs reaps it with.
TEST_P(UsbfsNode, UrbEndingsAreReapedWithTheKernelsStatus)
{
    auto unplug = [this](usbdevfs_urb&) { phone_->Unplug(); };
    const struct {
        const char* name;
        std::function<void(PhoneOptions&)> phone;
        uint8_t vendorRequest; // 0: a bulk IN URB
        std::function<void(usbdevfs_urb&)> end; // null: it ends by itself
        int status;
    } endings[] = {
        {"discarded", nullptr, 0, [this](usbdevfs_urb& u) { EXPECT_EQ(0, Call(USBDEVFS_DISCARDURB, &u)); },
         -ECONNRESET},
        {"interface released", nullptr, 0,
         [this](usbdevfs_urb&) {
             unsigned int interface = 0;
             EXPECT_EQ(0, Call(USBDEVFS_RELEASEINTERFACE, &interface));
         },
         -ENOENT},
        {"unplugged", nullptr, 0, unplug, -ESHUTDOWN},
        {"unplugged, bus says EPROTO", [](PhoneOptions& o) { o.unplugStatus = -EPROTO; }, 0, unplug, -EPROTO},
        {"unknown vendor request", nullptr, 58, nullptr, -EPIPE},
        {"vendor request made to fail", [](PhoneOptions& o) { o.controlFaults = {{51, 1, -EPROTO}}; }, 51, nullptr,
         -EPROTO},
    };
    for (const auto& ending : endings) {
        SCOPED_TRACE(ending.name);
        PhoneOptions options;
        if (ending.phone)
            ending.phone(options);
        Plug(options);
        ASSERT_EQ(0, Claim(0));
        usbdevfs_urb urb;
        ASSERT_EQ(0, Submit(urb, ending.vendorRequest));
        if (ending.end)
            ending.end(urb);
        ASSERT_TRUE(Reaped(urb));
        EXPECT_EQ(ending.status, urb.status);
    }
}

TEST_P(UsbfsNode, DiscardOfAUrbNotInFlightIsInvalidAndAfterUnplugOnlyReapIsServed)
{
    Plug();
    ASSERT_EQ(0, Claim(0));
    usbdevfs_urb never{};
    EXPECT_EQ(EINVAL, Call(USBDEVFS_DISCARDURB, &never));
    usbdevfs_urb urb;
    ASSERT_EQ(0, Submit(urb));
    ASSERT_EQ(0, Call(USBDEVFS_DISCARDURB, &urb));
    // Completed but not yet reaped: no longer in flight either.
    EXPECT_EQ(EINVAL, Call(USBDEVFS_DISCARDURB, &urb));
    int error = 0;
    ASSERT_EQ(&urb, Reap(error));
    EXPECT_FALSE(Ready(20)) << "reaped, yet the node still polls ready";

    // Unplugged with a URB in flight: only reaping is served, until nothing is left.
    ASSERT_EQ(0, Submit(urb));
    phone_->Unplug();
    EXPECT_EQ(ENODEV, Claim(0));
    EXPECT_EQ(ENODEV, Submit(urb));
    EXPECT_EQ(&urb, Reap(error));
    EXPECT_EQ(nullptr, Reap(error));
    EXPECT_EQ(ENODEV, error);
}

// The halt comes from the phone's timer thread, as a real endpoint stalls.
TEST_P(UsbfsNode, HaltedEndpointFailsUrbsWithEpipeUntilTheHaltIsCleared)
{
    PhoneOptions options;
    options.stallEndpoint = PhoneOptions::Endpoint::In;
    options.stallAt = PhoneStage::AccessoryAttached;
    Plug(options);
    ASSERT_EQ(0, Claim(0));
    usbdevfs_urb urb;
    ASSERT_EQ(0, Submit(urb));
    ASSERT_TRUE(Reaped(urb));
    EXPECT_EQ(-EPIPE, urb.status);
    unsigned int endpoint = kIn;
    ASSERT_EQ(0, Call(USBDEVFS_CLEAR_HALT, &endpoint));
    ASSERT_EQ(0, Submit(urb));
    EXPECT_FALSE(Ready(50)) << "the endpoint is still halted";
}

// The phone's driver ends a read only on a short packet or at 16 KiB: a host
// that leaves a whole number of packets gets nothing to the application until
// it sends more. The harshest model, which the plug-in's stories run against.
// Its echo of a whole number of packets ends with a zero-length packet, and
// while it is idle a read stays in flight.
TEST_P(UsbfsNode, PhoneDriverHoldsWholePacketsUntilAShortOne)
{
    const struct {
        bool superSpeed;
        size_t write;
        bool held;
    } cases[] = {{false, 1024, true}, {false, 1000, false}, {true, 512, false}, {true, 2048, true},
                 {false, 16384, false}};
    static const unsigned char kHostHandshake[] = {0xFF, 0xFF, 0x00, 0x00, 0x0A, 0x0A, 0x48, 0x4F, 0x53, 0x54};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.write << (c.superSpeed ? " bytes, super speed" : " bytes"));
        PhoneOptions options;
        options.superSpeed = c.superSpeed;
        Plug(options);
        ASSERT_EQ(0, Claim(0));
        std::vector<unsigned char> stream(c.write, 0x5A);
        usbdevfs_urb handshake, write, more, echo;
        ASSERT_EQ(0, Send(handshake, kHostHandshake, sizeof kHostHandshake));
        ASSERT_TRUE(phone_->WaitFor(PhoneStage::HandshakeDone, std::chrono::seconds(2)));
        ASSERT_TRUE(Reaped(handshake));
        ASSERT_EQ(0, Submit(echo));
        EXPECT_FALSE(Ready(50)) << "an idle phone completed a read";
        ASSERT_EQ(0, Send(write, stream.data(), stream.size()));
        auto read = [](const PhoneReport& r) { return r.bytesFromHost > 0; };
        EXPECT_EQ(c.held, !phone_->WaitUntil(read, std::chrono::milliseconds(c.held ? 50 : 2000)));
        if (c.held) {
            ASSERT_EQ(0, Send(more, stream.data(), 10));
        }
        ASSERT_TRUE(Reaped(echo));
        EXPECT_EQ(c.write + (c.held ? 10 : 0), size_t(echo.actual_length));
        if (c.write == 16384) {
            ASSERT_EQ(0, Submit(echo));
            ASSERT_TRUE(Reaped(echo));
            EXPECT_EQ(0, echo.actual_length);
        }
        EXPECT_EQ(c.write == 16384 ? 1u : 0u, phone_->Report().zeroLengthToHost);
    }
}

TEST_P(UsbfsNode, HostHandshakeThatDoesNotMatchIsRefusedAndKept)
{
    Plug();
    ASSERT_EQ(0, Claim(0));
    usbdevfs_urb urb;
    ASSERT_EQ(0, Send(urb, "HELLO WORLD", 11));
    ASSERT_TRUE(phone_->WaitFor(PhoneStage::HandshakeFailed, std::chrono::seconds(2)));
    EXPECT_FALSE(phone_->Report().Reached(PhoneStage::HandshakeDone));
    EXPECT_EQ(std::vector<uint8_t>({'H', 'E', 'L', 'L', 'O', ' ', 'W', 'O', 'R', 'L'}), phone_->Report().hostHandshake);
}

INSTANTIATE_TEST_SUITE_P(, UsbfsNode,
                         ::testing::Values(PhoneWorld::IoctlPath::Socket, PhoneWorld::IoctlPath::Interposed),
                         [](const auto& info) {
                             return info.param == PhoneWorld::IoctlPath::Socket ? "Socket" : "Interposed";
                         });

} // namespace
} // namespace emuphone
