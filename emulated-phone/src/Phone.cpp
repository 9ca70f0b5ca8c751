#include "Phone.h"

#include "World.h"

#include "emulated-phone/StreamPattern.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <linux/usb/ch9.h>

namespace emuphone {
namespace {

// Every phone sits on the one emulated bus.
constexpr int kBusNumber = 1;

uint32_t StageBit(PhoneStage stage) { return 1u << static_cast<int>(stage); }

} // namespace

Phone::Phone(World& world, const PhoneOptions& options, int port)
    : world_(world), options_(options), port_(port), control_(options_)
{
    report_.busNumber = kBusNumber;
    report_.serial = options_.serial;
    report_.hashFromHost = StreamPattern::kHashSeed;
}

void Phone::PlugIn() { Enumerate(options_.startInAccessoryMode ? Mode::Accessory : Mode::Normal); }

// The device exists and routes before its node and sysfs entry appear, so a
// host that reacts to the "add" event at once finds it complete; the stage is
// reached once a host can see it.
void Phone::Enumerate(Mode mode)
{
    std::lock_guard<std::mutex> plug(cable_);
    bool accessory = mode == Mode::Accessory;
    DeviceLayout layout = accessory ? DeviceLayout::Accessory(options_) : DeviceLayout::Normal(options_);
    int configuration = accessory && options_.accessoryUnconfigured ? 0 : DeviceLayout::kConfigurationValue;
    int address;
    {
        std::lock_guard<std::mutex> hold(world_.BusLock());
        address = world_.NextAddress();
    }
    auto device = std::make_shared<UsbfsDevice>(world_.BusLock(), world_.Timers(), std::move(layout), *this,
                                                options_.link, address, configuration);
    UsbDeviceEntry entry = Entry(*device, address);
    world_.Transport().Attach(entry.Node(), device);
    if (!Adopt(device, entry, accessory)) {
        // Unplugged while coming back: the cable is out, nothing appears.
        world_.Transport().Detach(device);
        return;
    }
    world_.Bed().AddUsbDevice(entry);
    std::lock_guard<std::mutex> hold(world_.BusLock());
    if (device_ == device)
        Reach(accessory ? PhoneStage::AccessoryAttached : PhoneStage::Attached);
}

bool Phone::Adopt(const std::shared_ptr<UsbfsDevice>& device, const UsbDeviceEntry& entry, bool accessory)
{
    std::lock_guard<std::mutex> hold(world_.BusLock());
    if (unplugged_)
        return false;
    device_ = device;
    entry_ = entry;
    ++generation_;
    if (accessory)
        session_ = std::make_unique<AccessorySession>(*device, options_, *this);
    (accessory ? report_.accessoryAddress : report_.normalAddress) = entry.address;
    return true;
}

UsbDeviceEntry Phone::Entry(const UsbfsDevice& device, int address) const
{
    const DeviceLayout& layout = device.Layout();
    UsbDeviceEntry entry;
    entry.bus = kBusNumber;
    entry.address = address;
    entry.port = port_;
    entry.configuration = device.Configuration();
    entry.descriptors = layout.SysfsDescriptors();
    entry.speedMbps = layout.SpeedMbps();
    entry.vendor = layout.Vendor();
    entry.product = layout.Product();
    entry.manufacturer = layout.Manufacturer();
    entry.productName = layout.ProductName();
    entry.serial = layout.Serial().value_or("");
    entry.nodeTarget = device.Readiness().SlavePath();
    return entry;
}

void Phone::Unplug()
{
    {
        std::lock_guard<std::mutex> hold(world_.BusLock());
        if (unplugged_)
            return;
        unplugged_ = true;
    }
    Drop(options_.unplugStatus, PhoneStage::Unplugged);
}

// As the kernel does it: transfers end and the node hangs up, then the
// "remove" event, then the sysfs entry goes.
void Phone::Drop(int urbStatus, PhoneStage stage)
{
    std::lock_guard<std::mutex> plug(cable_);
    std::shared_ptr<UsbfsDevice> gone;
    UsbDeviceEntry entry;
    {
        std::lock_guard<std::mutex> hold(world_.BusLock());
        gone = std::move(device_);
        device_.reset();
        session_.reset();
        ++generation_;
        entry = entry_;
        if (gone)
            gone->Disconnect(urbStatus);
        Reach(stage);
    }
    if (!gone)
        return;
    world_.Transport().Detach(gone);
    world_.Bed().RemoveUsbDevice(entry);
}

void Phone::SwitchToAccessory(uint64_t generation)
{
    {
        std::lock_guard<std::mutex> hold(world_.BusLock());
        if (unplugged_ || generation != generation_)
            return;
    }
    Drop(-ESHUTDOWN, PhoneStage::Detached);
    if (options_.returnDelay.count() < 0)
        return;
    uint64_t away;
    {
        std::lock_guard<std::mutex> hold(world_.BusLock());
        away = generation_;
    }
    world_.Timers().After(options_.returnDelay, [this, away] {
        {
            std::lock_guard<std::mutex> hold(world_.BusLock());
            if (unplugged_ || away != generation_)
                return;
        }
        Enumerate(Mode::Accessory);
    });
}

void Phone::Shutdown()
{
    std::lock_guard<std::mutex> hold(world_.BusLock());
    unplugged_ = true;
    session_.reset();
    if (device_)
        device_->Disconnect(-ESHUTDOWN);
    device_.reset();
}

void Phone::OnControl(UsbfsDevice& device, const std::shared_ptr<Urb>& urb)
{
    usb_ctrlrequest setup;
    std::memcpy(&setup, urb->buffer, sizeof setup);
    uint8_t* data = urb->buffer + sizeof setup;
    PhoneControl::Answer answer = control_.Handle(setup, data, device.Layout(), device.Configuration());
    if (answer.hold) {
        ++report_.heldRequests;
        return;
    }
    if (setup.bRequestType & USB_DIR_IN) {
        std::copy(answer.reply.begin(), answer.reply.end(), data);
        urb->actual = static_cast<int>(answer.reply.size());
    } else {
        urb->actual = answer.status == 0 ? setup.wLength : 0;
    }
    device.Finish(urb, answer.status);
    OnControlEvent(answer.event, device);
}

void Phone::OnControlEvent(PhoneControl::Event event, const UsbfsDevice& device)
{
    switch (event) {
    case PhoneControl::Event::None: return;
    case PhoneControl::Event::VersionQueried: Reach(PhoneStage::VersionQueried); return;
    case PhoneControl::Event::IdentityComplete: Reach(PhoneStage::IdentityReceived); return;
    case PhoneControl::Event::StartRequested: break;
    }
    Reach(PhoneStage::StartRequested);
    // A phone already in accessory mode acknowledges the request and stays.
    if (device.Layout().IsAccessory() || switching_)
        return;
    switching_ = true;
    uint64_t generation = generation_;
    world_.Timers().After(options_.dropDelay, [this, generation] { SwitchToAccessory(generation); });
}

void Phone::OnData(UsbfsDevice& device, const std::shared_ptr<Urb>& urb)
{
    if (!Current(device) || !session_)
        return;
    // Traffic for other interfaces (media transfer, debug bridge) waits forever.
    if (urb->endpoint == device.Layout().AccessoryIn())
        session_->In().Submit(urb);
    else if (urb->endpoint == device.Layout().AccessoryOut())
        session_->Out().Submit(urb);
}

void Phone::OnClaim(UsbfsDevice& device, int interface, bool claimed)
{
    if (!claimed || !Current(device) || interface != device.Layout().AccessoryInterface())
        return;
    if (!report_.Reached(PhoneStage::InterfaceClaimed))
        Reach(PhoneStage::InterfaceClaimed);
    if (options_.handshakeDelay.count() <= 0) {
        StartApplication();
        return;
    }
    uint64_t generation = generation_;
    world_.Timers().After(options_.handshakeDelay, [this, generation] {
        std::lock_guard<std::mutex> hold(world_.BusLock());
        if (generation == generation_)
            StartApplication();
    });
}

void Phone::StartApplication()
{
    if (session_)
        session_->App().Start();
}

void Phone::OnConfiguration(UsbfsDevice& device, int value)
{
    if (Current(device))
        world_.Bed().SetAttribute(entry_.SysPath(), "bConfigurationValue", value ? std::to_string(value) : "");
}

void Phone::OnHaltCleared(UsbfsDevice& device, uint8_t)
{
    if (!Current(device) || !session_)
        return;
    session_->In().Pump();
    session_->Out().Pump();
}

void Phone::OnUnclaimedUse(UsbfsDevice&, int interface)
{
    ++report_.unclaimedSubmissions;
    report_.notes.push_back("usbfs: did not claim interface " + std::to_string(interface) + " before use");
    Changed();
}

void Phone::OnCompleted(UsbfsDevice& device, const Urb& urb)
{
    if (urb.status == -ECONNRESET)
        ++report_.discardedTransfers;
    if (urb.status == -EPIPE)
        ++report_.stalledTransfers;
    const DeviceLayout& layout = device.Layout();
    if (urb.status == 0 && layout.IsAccessory() && urb.endpoint == layout.AccessoryIn()) {
        ++report_.transfersToHost;
        if (urb.actual == 0)
            ++report_.zeroLengthToHost;
    }
    if (urb.status == 0 && layout.IsAccessory() && urb.endpoint == layout.AccessoryOut())
        ++report_.transfersFromHost;
    Changed();
}

void Phone::OnHandshakeTaken() { Reach(PhoneStage::HandshakeSent); }

void Phone::OnHostHandshake(const std::vector<uint8_t>& bytes, bool matched)
{
    report_.hostHandshake = bytes;
    Reach(matched ? PhoneStage::HandshakeDone : PhoneStage::HandshakeFailed);
}

void Phone::OnBytesFromHost(const uint8_t* data, size_t length)
{
    report_.bytesFromHost += length;
    report_.hashFromHost = StreamPattern::Hash(report_.hashFromHost, data, length);
    Changed();
    CheckTriggers();
}

void Phone::OnBytesToHost(size_t length)
{
    report_.bytesToHost += length;
    Changed();
}

// Stages are listed in the order a life goes through them: a host that is
// quicker than the phone's bookkeeping does not move the stage back.
void Phone::Reach(PhoneStage stage)
{
    report_.stage = std::max(report_.stage, stage);
    report_.reached |= StageBit(stage);
    Changed();
    CheckTriggers();
}

void Phone::Changed() { changed_.notify_all(); }

// Both act from the timer thread, outside whatever request got the phone
// here, as a cable pulled or an endpoint stalling would.
void Phone::CheckTriggers()
{
    bool enoughBytes = report_.bytesFromHost >= options_.unplugAfterBytes;
    if (!unplugTriggered_ && options_.unplugAt && report_.Reached(*options_.unplugAt) && enoughBytes) {
        unplugTriggered_ = true;
        world_.Timers().After(std::chrono::nanoseconds(0), [this] { Unplug(); });
    }
    bool stallDue = options_.stallEndpoint != PhoneOptions::Endpoint::None && report_.Reached(options_.stallAt) &&
                    report_.bytesFromHost >= options_.stallAfterBytes;
    if (!stallTriggered_ && stallDue && session_) {
        stallTriggered_ = true;
        uint64_t generation = generation_;
        world_.Timers().After(std::chrono::nanoseconds(0), [this, generation] { StallAccessoryEndpoint(generation); });
    }
}

void Phone::StallAccessoryEndpoint(uint64_t generation)
{
    std::lock_guard<std::mutex> hold(world_.BusLock());
    if (generation != generation_ || !device_)
        return;
    const DeviceLayout& layout = device_->Layout();
    device_->Halt(options_.stallEndpoint == PhoneOptions::Endpoint::In ? layout.AccessoryIn() : layout.AccessoryOut());
}

PhoneReport Phone::Snapshot() const
{
    PhoneReport report = report_;
    report.versionQueries = control_.VersionQueries();
    report.identityRequests = control_.IdentityRequests();
    report.startRequests = control_.StartRequests();
    report.identity = control_.Identity();
    return report;
}

PhoneReport Phone::Report() const
{
    std::lock_guard<std::mutex> hold(world_.BusLock());
    return Snapshot();
}

bool Phone::WaitUntil(const std::function<bool(const PhoneReport&)>& done, std::chrono::milliseconds timeout) const
{
    std::unique_lock<std::mutex> hold(world_.BusLock());
    return changed_.wait_for(hold, timeout, [&] { return done(Snapshot()); });
}

int Phone::BusNumber() const { return kBusNumber; }

int Phone::Address() const
{
    std::lock_guard<std::mutex> hold(world_.BusLock());
    return device_ ? entry_.address : 0;
}

void Phone::WriteToHost(std::vector<uint8_t> bytes)
{
    std::lock_guard<std::mutex> hold(world_.BusLock());
    if (session_)
        session_->App().Inject(std::move(bytes));
}

} // namespace emuphone
