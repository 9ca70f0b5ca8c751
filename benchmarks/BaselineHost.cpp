#include "BaselineHost.h"

#include <algorithm>
#include <chrono>

namespace {

// The accessory interface's class, subclass and protocol.
constexpr uint8_t kAccessoryClass = 0xFF;
constexpr uint8_t kAccessorySubclass = 0xFF;
constexpr uint8_t kAccessoryProtocol = 0x00;
const std::vector<uint8_t> kPhoneHandshake = {0xFF, 0xFF, 0x00, 0x00, 0x0A, 0x0A, 0x44, 0x45, 0x56};
const std::vector<uint8_t> kHostHandshake = {0xFF, 0xFF, 0x00, 0x00, 0x0A, 0x0A, 0x48, 0x4F, 0x53, 0x54};
// How long cancelled transfers get to come back.
constexpr int kCancelBudgetMs = 5000;
// A return this much before the time-out was a wake-up, not the time-out.
constexpr std::chrono::microseconds kWakeSlack{500};

} // namespace

BaselineHost::BaselineHost()
{
    int error = libusb_init(&context_);
    if (error != 0)
        Fail("libusb_init", error);
    for (int i = 0; i < kReads; ++i)
        readBuffers_[static_cast<size_t>(i)].resize(kReadSize);
}

BaselineHost::~BaselineHost()
{
    Disconnect();
    if (context_)
        libusb_exit(context_);
}

const void* BaselineHost::CodeAddress()
{
    return reinterpret_cast<const void*>(&BaselineHost::OnRead);
}

bool BaselineHost::Fail(const std::string& what, int error)
{
    if (fault_.empty())
        fault_ = what + ": " + libusb_error_name(error);
    return false;
}

bool BaselineHost::Open(int bus, int address)
{
    libusb_device** list = nullptr;
    ssize_t count = libusb_get_device_list(context_, &list);
    int error = LIBUSB_ERROR_NOT_FOUND;
    for (ssize_t i = 0; i < count; ++i)
        if (libusb_get_bus_number(list[i]) == bus && libusb_get_device_address(list[i]) == address)
            error = libusb_open(list[i], &handle_);
    if (count >= 0)
        libusb_free_device_list(list, 1);
    return error == 0 || Fail("opening the phone", error);
}

bool BaselineHost::Claim()
{
    int configuration = 0;
    if (int error = libusb_get_configuration(handle_, &configuration))
        return Fail("libusb_get_configuration", error);
    if (configuration != 1)
        if (int error = libusb_set_configuration(handle_, 1))
            return Fail("libusb_set_configuration", error);
    libusb_config_descriptor* config = nullptr;
    if (int error = libusb_get_active_config_descriptor(libusb_get_device(handle_), &config))
        return Fail("libusb_get_active_config_descriptor", error);
    int found = -1;
    for (int i = 0; i < config->bNumInterfaces && found < 0; ++i) {
        const libusb_interface_descriptor& alt = config->interface[i].altsetting[0];
        if (alt.bInterfaceClass == kAccessoryClass && alt.bInterfaceSubClass == kAccessorySubclass &&
            alt.bInterfaceProtocol == kAccessoryProtocol && alt.bNumEndpoints >= 2) {
            found = alt.bInterfaceNumber;
            for (int e = 0; e < 2; ++e) {
                uint8_t endpoint = alt.endpoint[e].bEndpointAddress;
                (endpoint & LIBUSB_ENDPOINT_IN ? in_ : out_) = endpoint;
            }
        }
    }
    libusb_free_config_descriptor(config);
    if (found < 0)
        return Fail("finding the accessory interface", LIBUSB_ERROR_NOT_FOUND);
    if (int error = libusb_claim_interface(handle_, found))
        return Fail("libusb_claim_interface", error);
    interface_ = found;
    return true;
}

bool BaselineHost::Handshake(int timeoutMs)
{
    std::vector<uint8_t> bytes(kReadSize);
    int transferred = 0;
    if (int error = libusb_bulk_transfer(handle_, in_, bytes.data(), kReadSize, &transferred,
                                         static_cast<unsigned>(timeoutMs)))
        return Fail("reading the phone's handshake", error);
    bytes.resize(static_cast<size_t>(transferred));
    if (bytes != kPhoneHandshake)
        return Fail("the phone's handshake", LIBUSB_ERROR_OTHER);
    std::vector<uint8_t> answer = kHostHandshake;
    if (int error = libusb_bulk_transfer(handle_, out_, answer.data(), static_cast<int>(answer.size()), &transferred,
                                         static_cast<unsigned>(timeoutMs)))
        return Fail("writing the host's handshake", error);
    return true;
}

bool BaselineHost::Connect(int bus, int address, int timeoutMs)
{
    if (!context_ || !Open(bus, address) || !Claim() || !Handshake(timeoutMs))
        return false;
    for (int i = 0; i < kReads; ++i) {
        libusb_transfer* t = libusb_alloc_transfer(0);
        libusb_fill_bulk_transfer(t, handle_, in_, readBuffers_[static_cast<size_t>(i)].data(), kReadSize,
                                  &BaselineHost::OnRead, this, 0);
        reads_[static_cast<size_t>(i)] = t;
        if (int error = libusb_submit_transfer(t))
            return Fail("submitting a read", error);
        ++inFlight_;
    }
    write_ = libusb_alloc_transfer(0);
    libusb_fill_bulk_transfer(write_, handle_, out_, nullptr, 0, &BaselineHost::OnWritten, this, 0);
    // A write of whole packets ends with a zero-length one, or the phone's read would not end.
    write_->flags = LIBUSB_TRANSFER_ADD_ZERO_PACKET;
    return true;
}

bool BaselineHost::Pump(int maxMs)
{
    timeval slice{maxMs / 1000, (maxMs % 1000) * 1000};
    auto start = std::chrono::steady_clock::now();
    int error = libusb_handle_events_timeout_completed(context_, &slice, nullptr);
    // libusb says nothing of why it returned: back before the time-out means woken.
    if (std::chrono::steady_clock::now() - start < std::chrono::milliseconds(maxMs) - kWakeSlack)
        ++wakeups_;
    if (error != 0 && error != LIBUSB_ERROR_INTERRUPTED)
        Fail("libusb_handle_events", error);
    return fault_.empty();
}

bool BaselineHost::TryWrite(const uint8_t* data, size_t length)
{
    if (writeBusy_ || !fault_.empty())
        return false;
    write_->buffer = const_cast<uint8_t*>(data);
    write_->length = static_cast<int>(length);
    if (int error = libusb_submit_transfer(write_))
        return Fail("submitting a write", error);
    writeBusy_ = true;
    ++inFlight_;
    return true;
}

void LIBUSB_CALL BaselineHost::OnRead(libusb_transfer* t)
{
    auto* host = static_cast<BaselineHost*>(t->user_data);
    --host->inFlight_;
    if (t->status == LIBUSB_TRANSFER_CANCELLED || host->closing_)
        return;
    if (t->status != LIBUSB_TRANSFER_COMPLETED) {
        host->Fail("a read ended", LIBUSB_ERROR_IO);
        return;
    }
    host->Deliver(t->buffer, static_cast<size_t>(t->actual_length));
    if (int error = libusb_submit_transfer(t))
        host->Fail("resubmitting a read", error);
    else
        ++host->inFlight_;
}

void LIBUSB_CALL BaselineHost::OnWritten(libusb_transfer* t)
{
    auto* host = static_cast<BaselineHost*>(t->user_data);
    --host->inFlight_;
    host->writeBusy_ = false;
    if (t->status == LIBUSB_TRANSFER_CANCELLED)
        return;
    if (t->status != LIBUSB_TRANSFER_COMPLETED || t->actual_length != t->length)
        host->Fail("a write ended short or failed", LIBUSB_ERROR_IO);
}

void BaselineHost::Disconnect()
{
    if (!handle_)
        return;
    // A phone that keeps writing would otherwise keep the reads going for ever.
    closing_ = true;
    for (libusb_transfer* t : reads_)
        if (t)
            libusb_cancel_transfer(t);
    if (write_ && writeBusy_)
        libusb_cancel_transfer(write_);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kCancelBudgetMs);
    while (inFlight_ > 0 && std::chrono::steady_clock::now() < deadline) {
        timeval slice{0, 100000};
        libusb_handle_events_timeout_completed(context_, &slice, nullptr);
    }
    // Transfers the device never gave back are leaked, not freed while libusb holds them.
    if (inFlight_ == 0) {
        for (libusb_transfer*& t : reads_) {
            libusb_free_transfer(t);
            t = nullptr;
        }
        libusb_free_transfer(write_);
    } else {
        Fail("transfers did not come back after cancelling", LIBUSB_ERROR_TIMEOUT);
        reads_.fill(nullptr);
    }
    write_ = nullptr;
    writeBusy_ = false;
    inFlight_ = 0;
    if (interface_ >= 0)
        libusb_release_interface(handle_, interface_);
    libusb_close(handle_);
    handle_ = nullptr;
    interface_ = -1;
    closing_ = false;
}
