#include "UsbfsDevice.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <linux/usb/ch9.h>

namespace emuphone {
namespace {

// What a kernel with an xHCI controller reports, less memory mapping (the node
// is a pty) and privilege dropping. With scatter-gather libusb submits every
// bulk transfer as one URB.
constexpr uint32_t kCapabilities = USBDEVFS_CAP_ZERO_PACKET | USBDEVFS_CAP_BULK_CONTINUATION |
                                   USBDEVFS_CAP_NO_PACKET_SIZE_LIM | USBDEVFS_CAP_BULK_SCATTER_GATHER |
                                   USBDEVFS_CAP_REAP_AFTER_DISCONNECT;
// The URB flags proc_do_submiturb accepts.
constexpr unsigned int kUrbFlags = USBDEVFS_URB_SHORT_NOT_OK | USBDEVFS_URB_ISO_ASAP |
                                   USBDEVFS_URB_BULK_CONTINUATION | USBDEVFS_URB_NO_FSBR |
                                   USBDEVFS_URB_ZERO_PACKET | USBDEVFS_URB_NO_INTERRUPT;
// usbfs keeps a file's claims in one unsigned long bit set; interfaces beyond it are EINVAL.
constexpr unsigned int kClaimBits = 32;
constexpr size_t kSetupSize = sizeof(usb_ctrlrequest);
// The driver name usbfs gives its own claims in GETDRIVER.
constexpr char kUsbfsDriver[] = "usbfs";

uint32_t Bit(int interface) { return 1u << interface; }

template <typename T>
T* ArgumentAs(UsbfsMemory& memory)
{
    return static_cast<T*>(memory.Argument(sizeof(T)));
}

} // namespace

UsbfsDevice::UsbfsDevice(std::mutex& busLock, Scheduler& scheduler, DeviceLayout layout, DeviceFunction& function,
                         const LinkModel& link, int address, int configuration)
    : busLock_(busLock),
      scheduler_(scheduler),
      layout_(std::move(layout)),
      function_(function),
      link_(link),
      address_(address),
      configuration_(configuration)
{
}

UsbfsDevice::Handler UsbfsDevice::HandlerFor(unsigned long request)
{
    switch (request) {
    case USBDEVFS_GET_CAPABILITIES: return &UsbfsDevice::GetCapabilities;
    case USBDEVFS_SUBMITURB: return &UsbfsDevice::SubmitUrb;
    case USBDEVFS_REAPURB:
    case USBDEVFS_REAPURBNDELAY: return &UsbfsDevice::ReapUrb;
    case USBDEVFS_DISCARDURB: return &UsbfsDevice::DiscardUrb;
    case USBDEVFS_SETCONFIGURATION: return &UsbfsDevice::SetConfiguration;
    case USBDEVFS_CLAIMINTERFACE: return &UsbfsDevice::ClaimInterface;
    case USBDEVFS_RELEASEINTERFACE: return &UsbfsDevice::ReleaseInterface;
    case USBDEVFS_DISCONNECT_CLAIM: return &UsbfsDevice::DisconnectClaim;
    case USBDEVFS_SETINTERFACE: return &UsbfsDevice::SetInterface;
    case USBDEVFS_CLEAR_HALT: return &UsbfsDevice::ClearHalt;
    case USBDEVFS_GETDRIVER: return &UsbfsDevice::GetDriver;
    case USBDEVFS_IOCTL: return &UsbfsDevice::DriverIoctl;
    case USBDEVFS_CONNECTINFO: return &UsbfsDevice::ConnectInfo;
    case USBDEVFS_GET_SPEED: return &UsbfsDevice::GetSpeed;
    case USBDEVFS_RESET: return &UsbfsDevice::Reset;
    default: return nullptr;
    }
}

IoctlResult UsbfsDevice::Ioctl(uint64_t file, unsigned long request, UsbfsMemory& memory)
{
    std::lock_guard<std::mutex> hold(busLock_);
    Handler handler = HandlerFor(request);
    if (!handler)
        return IoctlResult::Fail(ENOTTY);
    // Reaping is the one request usbfs still serves after a disconnect.
    if (!connected_ && handler != &UsbfsDevice::ReapUrb)
        return IoctlResult::Fail(ENODEV);
    return (this->*handler)(file, files_[file], memory);
}

void UsbfsDevice::CloseFile(uint64_t file)
{
    std::lock_guard<std::mutex> hold(busLock_);
    auto it = files_.find(file);
    if (it == files_.end())
        return;
    for (auto urb = inFlight_.begin(); urb != inFlight_.end();) {
        if ((*urb)->file == file) {
            (*urb)->state = Urb::State::Gone;
            urb = inFlight_.erase(urb);
        } else {
            ++urb;
        }
    }
    for (const auto& urb : it->second.completed)
        urb->state = Urb::State::Gone;
    reapable_ -= it->second.completed.size();
    for (unsigned int interface = 0; interface < kClaimBits; ++interface)
        if (it->second.claimed & Bit(static_cast<int>(interface)))
            function_.OnClaim(*this, static_cast<int>(interface), false);
    files_.erase(it);
    pty_.SetReady(reapable_ > 0);
}

IoctlResult UsbfsDevice::GetCapabilities(uint64_t, OpenFile&, UsbfsMemory& memory)
{
    auto* caps = ArgumentAs<uint32_t>(memory);
    if (!caps)
        return IoctlResult::Fail(EFAULT);
    *caps = kCapabilities;
    return IoctlResult::Ok();
}

IoctlResult UsbfsDevice::SubmitUrb(uint64_t key, OpenFile& file, UsbfsMemory& memory)
{
    auto urb = std::make_shared<Urb>();
    urb->file = key;
    if (!memory.TakeUrb(*urb))
        return IoctlResult::Fail(EFAULT);
    if (int error = CheckUrb(*urb))
        return IoctlResult::Fail(error);
    bool control = urb->type == USBDEVFS_URB_TYPE_CONTROL;
    if (control) {
        // usbfs takes a control URB's direction from its setup packet.
        urb->endpoint = (urb->buffer[0] & USB_DIR_IN) ? USB_DIR_IN : USB_DIR_OUT;
    } else {
        if (int error = UseInterface(key, file, layout_.FindEndpoint(urb->endpoint)->interface))
            return IoctlResult::Fail(error);
    }
    inFlight_.push_back(urb);
    if (control)
        function_.OnControl(*this, urb);
    else if (halted_.count(urb->endpoint))
        Finish(urb, -EPIPE);
    else
        function_.OnData(*this, urb);
    return IoctlResult::Ok();
}

// The checks proc_do_submiturb makes before it queues anything.
int UsbfsDevice::CheckUrb(const Urb& urb) const
{
    if (urb.length < 0 || (urb.flags & ~kUrbFlags))
        return EINVAL;
    if (urb.type == USBDEVFS_URB_TYPE_CONTROL)
        return CheckControlUrb(urb);
    if (urb.type != USBDEVFS_URB_TYPE_BULK && urb.type != USBDEVFS_URB_TYPE_INTERRUPT)
        return EINVAL;
    const DeviceLayout::Endpoint* endpoint = configuration_ ? layout_.FindEndpoint(urb.endpoint) : nullptr;
    if (!endpoint)
        return ENOENT;
    int kind = endpoint->attributes & USB_ENDPOINT_XFERTYPE_MASK;
    return kind == USB_ENDPOINT_XFER_BULK || kind == USB_ENDPOINT_XFER_INT ? 0 : EINVAL;
}

int UsbfsDevice::CheckControlUrb(const Urb& urb) const
{
    if ((urb.endpoint & USB_ENDPOINT_NUMBER_MASK) != 0 || urb.length < static_cast<int>(kSetupSize))
        return EINVAL;
    usb_ctrlrequest setup;
    std::memcpy(&setup, urb.buffer, kSetupSize);
    return setup.wLength + kSetupSize > static_cast<size_t>(urb.length) ? EINVAL : 0;
}

IoctlResult UsbfsDevice::ReapUrb(uint64_t, OpenFile& file, UsbfsMemory& memory)
{
    if (file.completed.empty())
        return IoctlResult::Fail(connected_ ? EAGAIN : ENODEV);
    std::shared_ptr<Urb> urb = file.completed.front();
    file.completed.pop_front();
    --reapable_;
    pty_.SetReady(reapable_ > 0);
    urb->state = Urb::State::Gone;
    urb->view->status = urb->status;
    urb->view->actual_length = urb->actual;
    urb->view->error_count = 0;
    return memory.ReturnUrb(*urb) ? IoctlResult::Ok() : IoctlResult::Fail(EFAULT);
}

IoctlResult UsbfsDevice::DiscardUrb(uint64_t key, OpenFile&, UsbfsMemory& memory)
{
    uintptr_t address = memory.ArgumentValue();
    auto it = std::find_if(inFlight_.begin(), inFlight_.end(), [&](const std::shared_ptr<Urb>& urb) {
        return urb->file == key && urb->clientAddress == address;
    });
    if (it == inFlight_.end())
        return IoctlResult::Fail(EINVAL);
    // One already done on the wire completes with its own status: usbfs
    // ignores the unlink's failure and returns 0.
    if ((*it)->state == Urb::State::InFlight) {
        std::shared_ptr<Urb> urb = *it;
        urb->status = -ECONNRESET;
        Complete(urb);
    }
    return IoctlResult::Ok();
}

IoctlResult UsbfsDevice::SetConfiguration(uint64_t, OpenFile&, UsbfsMemory& memory)
{
    auto* value = ArgumentAs<int>(memory);
    if (!value)
        return IoctlResult::Fail(EFAULT);
    for (const auto& [key, file] : files_)
        if (file.claimed)
            return IoctlResult::Fail(EBUSY);
    int wanted = *value <= 0 ? 0 : *value;
    if (wanted != 0 && wanted != DeviceLayout::kConfigurationValue)
        return IoctlResult::Fail(EINVAL);
    halted_.clear();
    configuration_ = wanted;
    function_.OnConfiguration(*this, configuration_);
    return IoctlResult::Ok();
}

IoctlResult UsbfsDevice::ClaimInterface(uint64_t key, OpenFile& file, UsbfsMemory& memory)
{
    auto* interface = ArgumentAs<unsigned int>(memory);
    if (!interface)
        return IoctlResult::Fail(EFAULT);
    if (*interface >= kClaimBits)
        return IoctlResult::Fail(EINVAL);
    int error = Claim(key, file, static_cast<int>(*interface));
    return error ? IoctlResult::Fail(error) : IoctlResult::Ok();
}

IoctlResult UsbfsDevice::ReleaseInterface(uint64_t key, OpenFile& file, UsbfsMemory& memory)
{
    auto* interface = ArgumentAs<unsigned int>(memory);
    if (!interface)
        return IoctlResult::Fail(EFAULT);
    if (*interface >= kClaimBits || !(file.claimed & Bit(static_cast<int>(*interface))))
        return IoctlResult::Fail(EINVAL);
    Release(key, file, static_cast<int>(*interface));
    return IoctlResult::Ok();
}

IoctlResult UsbfsDevice::DisconnectClaim(uint64_t key, OpenFile& file, UsbfsMemory& memory)
{
    auto* request = ArgumentAs<usbdevfs_disconnect_claim>(memory);
    if (!request)
        return IoctlResult::Fail(EFAULT);
    // No kernel driver is bound here, so there is nothing to disconnect.
    if (configuration_ == 0 || !layout_.HasInterface(static_cast<int>(request->interface)))
        return IoctlResult::Fail(EINVAL);
    int error = Claim(key, file, static_cast<int>(request->interface));
    return error ? IoctlResult::Fail(error) : IoctlResult::Ok();
}

IoctlResult UsbfsDevice::SetInterface(uint64_t key, OpenFile& file, UsbfsMemory& memory)
{
    auto* request = ArgumentAs<usbdevfs_setinterface>(memory);
    if (!request)
        return IoctlResult::Fail(EFAULT);
    int interface = static_cast<int>(request->interface);
    if (int error = UseInterface(key, file, interface))
        return IoctlResult::Fail(error);
    if (request->altsetting != 0)
        return IoctlResult::Fail(EINVAL);
    ClearHalts(interface);
    return IoctlResult::Ok();
}

IoctlResult UsbfsDevice::ClearHalt(uint64_t key, OpenFile& file, UsbfsMemory& memory)
{
    auto* endpoint = ArgumentAs<unsigned int>(memory);
    if (!endpoint)
        return IoctlResult::Fail(EFAULT);
    uint8_t address = static_cast<uint8_t>(*endpoint);
    const DeviceLayout::Endpoint* found = configuration_ ? layout_.FindEndpoint(address) : nullptr;
    if (!found)
        return IoctlResult::Fail(ENOENT);
    if (int error = UseInterface(key, file, found->interface))
        return IoctlResult::Fail(error);
    if (halted_.erase(address))
        function_.OnHaltCleared(*this, address);
    return IoctlResult::Ok();
}

IoctlResult UsbfsDevice::GetDriver(uint64_t, OpenFile&, UsbfsMemory& memory)
{
    auto* request = ArgumentAs<usbdevfs_getdriver>(memory);
    if (!request)
        return IoctlResult::Fail(EFAULT);
    if (!ClaimedByAny(static_cast<int>(request->interface)))
        return IoctlResult::Fail(ENODATA);
    std::strncpy(request->driver, kUsbfsDriver, sizeof(request->driver));
    return IoctlResult::Ok();
}

// The driver-control ioctl: only disconnect and connect are meaningful here,
// and the only driver there is to disconnect is usbfs itself.
IoctlResult UsbfsDevice::DriverIoctl(uint64_t, OpenFile&, UsbfsMemory& memory)
{
    auto* request = ArgumentAs<usbdevfs_ioctl>(memory);
    if (!request)
        return IoctlResult::Fail(EFAULT);
    if (configuration_ == 0 || !layout_.HasInterface(request->ifno))
        return IoctlResult::Fail(EINVAL);
    if (request->ioctl_code == USBDEVFS_CONNECT)
        return IoctlResult::Ok();
    if (request->ioctl_code != USBDEVFS_DISCONNECT)
        return IoctlResult::Fail(ENOTTY);
    if (!ClaimedByAny(request->ifno))
        return IoctlResult::Fail(ENODATA);
    for (auto& [key, file] : files_)
        if (file.claimed & Bit(request->ifno))
            Release(key, file, request->ifno);
    return IoctlResult::Ok();
}

IoctlResult UsbfsDevice::ConnectInfo(uint64_t, OpenFile&, UsbfsMemory& memory)
{
    auto* info = ArgumentAs<usbdevfs_connectinfo>(memory);
    if (!info)
        return IoctlResult::Fail(EFAULT);
    info->devnum = static_cast<unsigned int>(address_);
    info->slow = 0;
    return IoctlResult::Ok();
}

IoctlResult UsbfsDevice::GetSpeed(uint64_t, OpenFile&, UsbfsMemory&)
{
    return IoctlResult::Ok(layout_.UsbfsSpeed());
}

IoctlResult UsbfsDevice::Reset(uint64_t, OpenFile&, UsbfsMemory&)
{
    halted_.clear();
    return IoctlResult::Ok();
}

// usbfs's checkintf: a file that uses an interface it has not claimed gets it
// claimed on its behalf, with a warning in the kernel log.
int UsbfsDevice::UseInterface(uint64_t key, OpenFile& file, int interface)
{
    if (interface >= 0 && interface < static_cast<int>(kClaimBits) && (file.claimed & Bit(interface)))
        return 0;
    int error = Claim(key, file, interface);
    if (!error)
        function_.OnUnclaimedUse(*this, interface);
    return error;
}

int UsbfsDevice::Claim(uint64_t key, OpenFile& file, int interface)
{
    if (configuration_ == 0 || !layout_.HasInterface(interface))
        return ENOENT;
    if (ClaimedByOther(key, interface))
        return EBUSY;
    if (!(file.claimed & Bit(interface))) {
        file.claimed |= Bit(interface);
        function_.OnClaim(*this, interface, true);
    }
    return 0;
}

void UsbfsDevice::Release(uint64_t key, OpenFile& file, int interface)
{
    file.claimed &= ~Bit(interface);
    KillUrbs(key, interface, -ENOENT);
    function_.OnClaim(*this, interface, false);
}

bool UsbfsDevice::ClaimedByOther(uint64_t key, int interface) const
{
    for (const auto& [other, file] : files_)
        if (other != key && (file.claimed & Bit(interface)))
            return true;
    return false;
}

bool UsbfsDevice::ClaimedByAny(int interface) const
{
    if (interface < 0 || interface >= static_cast<int>(kClaimBits))
        return false;
    return std::any_of(files_.begin(), files_.end(),
                       [&](const auto& entry) { return entry.second.claimed & Bit(interface); });
}

// Releasing an interface kills the file's URBs on it; they are reaped with -ENOENT.
void UsbfsDevice::KillUrbs(uint64_t key, int interface, int status)
{
    std::vector<std::shared_ptr<Urb>> doomed;
    for (const auto& urb : inFlight_) {
        const DeviceLayout::Endpoint* endpoint = layout_.FindEndpoint(urb->endpoint);
        if (urb->file == key && endpoint && endpoint->interface == interface && urb->type != USBDEVFS_URB_TYPE_CONTROL)
            doomed.push_back(urb);
    }
    for (const auto& urb : doomed) {
        urb->status = status;
        Complete(urb);
    }
}

void UsbfsDevice::ClearHalts(int interface)
{
    for (auto it = halted_.begin(); it != halted_.end();) {
        const DeviceLayout::Endpoint* endpoint = layout_.FindEndpoint(*it);
        it = endpoint && endpoint->interface == interface ? halted_.erase(it) : std::next(it);
    }
}

void UsbfsDevice::Finish(const std::shared_ptr<Urb>& urb, int status)
{
    if (urb->state != Urb::State::InFlight)
        return;
    urb->status = status;
    urb->state = Urb::State::Finishing;
    if (link_.Instant()) {
        Complete(urb);
        return;
    }
    std::weak_ptr<UsbfsDevice> self = shared_from_this();
    size_t bytes = static_cast<size_t>(urb->actual);
    scheduler_.At(link_.Reserve(bytes), [self, urb] {
        std::shared_ptr<UsbfsDevice> device = self.lock();
        if (!device)
            return;
        std::lock_guard<std::mutex> hold(device->busLock_);
        if (urb->state == Urb::State::Finishing)
            device->Complete(urb);
    });
}

void UsbfsDevice::Halt(uint8_t endpoint)
{
    halted_.insert(endpoint);
    std::vector<std::shared_ptr<Urb>> stalled;
    for (const auto& urb : inFlight_)
        if (urb->endpoint == endpoint && urb->state == Urb::State::InFlight)
            stalled.push_back(urb);
    for (const auto& urb : stalled)
        Finish(urb, -EPIPE);
}

void UsbfsDevice::Disconnect(int urbStatus)
{
    if (!connected_)
        return;
    connected_ = false;
    std::vector<std::shared_ptr<Urb>> pending(inFlight_.begin(), inFlight_.end());
    for (const auto& urb : pending) {
        // One already done on the wire keeps its own status.
        if (urb->state == Urb::State::InFlight)
            urb->status = urbStatus;
        Complete(urb);
    }
    halted_.clear();
    pty_.HangUp();
}

void UsbfsDevice::Complete(const std::shared_ptr<Urb>& urb)
{
    inFlight_.remove(urb);
    auto file = files_.find(urb->file);
    if (file == files_.end()) {
        urb->state = Urb::State::Gone;
        return;
    }
    urb->state = Urb::State::Completed;
    file->second.completed.push_back(urb);
    ++reapable_;
    pty_.SetReady(true);
    function_.OnCompleted(*this, *urb);
}

} // namespace emuphone
