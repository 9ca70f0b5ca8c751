#include "usb/LibUSBBearerConnection.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <new>

#include "usb/CompositorLock.h"
#include "usb/FDCompositor.h"

namespace {

// Size of a control transfer's setup packet, which precedes its data.
constexpr uint32_t kSetupSize = LIBUSB_CONTROL_SETUP_SIZE;
constexpr uint8_t kDeviceToHost = LIBUSB_ENDPOINT_IN;
// How long one pass of Close's drain waits in libusb for cancelled transfers
// to come back: short, so a drain never sleeps long past the last completion.
constexpr long kDrainWaitUs = 10000;

} // namespace

LibUSBBearerConnection::LibUSBBearerConnection(uint32_t debugLevel, LibUSBBearerObserver* observer)
    : debugLevel(debugLevel), observer(observer), compositor(nullptr), context(nullptr), device(nullptr),
      handle(nullptr), readEndpoint(0), writeEndpoint(0), writePacketSize(0), zeroPacketFlagRefused(false),
      zeroPacketDue(false), closing(false), completedInPass(false), newsWaiting(false), controlInFlight(false),
      writeInFlight(false) {}

LibUSBBearerConnection::~LibUSBBearerConnection() {
    Close();
    if (compositor != nullptr) {
        compositor->ShutdownHook();
    }
    for (TransferSlot& slot : readSlots) {
        slot.FreeTransfer();
    }
    readData.Clear();
    idleReads.Clear();
    pendingReads.Clear();
    readSlots.clear();
    writeSlot.FreeTransfer();
    controlSlot.FreeTransfer();
    if (context != nullptr) {
        libusb_exit(context);
        context = nullptr;
    }
    // Only now: libusb_exit still reports descriptor removals to the compositor.
    delete compositor;
    compositor = nullptr;
}

int LibUSBBearerConnection::Initialise() {
    int result = libusb_init(&context);
    if (result != 0) {
        Log("Error, could not initialise libusb");
        context = nullptr;
        return result;
    }
    // libusb_set_option is newer than some target libusb builds.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    libusb_set_debug(context, static_cast<int>(debugLevel));
#pragma GCC diagnostic pop

    int error = 0;
    compositor = CreateFDCompositor(this, &error);
    if (compositor == nullptr) {
        Log("FD compositor creation failed: %d (%s)", error, std::strerror(errno));
        return LIBUSB_ERROR_OTHER;
    }
    readSlots.resize(kReadSlotCount);
    if (!readData.Reserve(kReadSlotCount) || !idleReads.Reserve(kReadSlotCount) ||
        !pendingReads.Reserve(kReadSlotCount)) {
        Log("Could not allocate read queues");
        return LIBUSB_ERROR_NO_MEM;
    }
    for (TransferSlot& slot : readSlots) {
        if (!slot.AllocTransfer(0)) {
            Log("Could not allocate transfer for read transfers");
            return LIBUSB_ERROR_NO_MEM;
        }
        if (!slot.ResizeBuffer(kMaxReadSize)) {
            Log("Error: could not allocate read buffer");
            return LIBUSB_ERROR_NO_MEM;
        }
        idleReads.PushBack(&slot);
    }
    if (!writeSlot.AllocTransfer(0)) {
        Log("Could not allocate transfer for write transfers");
        return LIBUSB_ERROR_NO_MEM;
    }
    if (!controlSlot.AllocTransfer(0)) {
        Log("Could not allocate transfer for control transfers");
        return LIBUSB_ERROR_NO_MEM;
    }
    if (compositor->AttachToContext() != 0) {
        Log("Could not list libusb's descriptors");
        return LIBUSB_ERROR_NO_MEM;
    }
    return 0;
}

int LibUSBBearerConnection::OpenDevice(int busNumber, int deviceAddress) {
    libusb_device** list = nullptr;
    ssize_t count = libusb_get_device_list(context, &list);
    if (count >= 0) {
        for (ssize_t i = 0; i < count; ++i) {
            if (libusb_get_bus_number(list[i]) == busNumber &&
                libusb_get_device_address(list[i]) == deviceAddress) {
                OpenOne(list[i]);
                break;
            }
        }
        libusb_free_device_list(list, 1);
    }
    if (device == nullptr) {
        Log("Error: Could not open device on bus %d at address %d", busNumber, deviceAddress);
        return LIBUSB_ERROR_NOT_FOUND;
    }
    return 0;
}

int LibUSBBearerConnection::OpenDevice(libusb_device* candidate) { return OpenOne(candidate); }

int LibUSBBearerConnection::OpenOne(libusb_device* candidate) {
    libusb_device_handle* opened = nullptr;
    int result = libusb_open(candidate, &opened);
    if (result != 0) {
        Log("Error: Couldn't open device with libusb error %d", result);
        return result;
    }
    handle = opened;
    // The device must outlive the list it came from.
    device = libusb_ref_device(candidate);
    return 0;
}

int LibUSBBearerConnection::ClaimInterface(int interfaceNumber, int altSetting, bool setAltSetting) {
    int active = libusb_kernel_driver_active(handle, interfaceNumber);
    if (active == LIBUSB_ERROR_NOT_SUPPORTED) {
        Log("Warning: Kernel driver status query not supported");
    } else if (active < 0) {
        Log("Error: Unable to determine if kernel driver is active: libusb error %d", active);
        return active;
    } else if (active == 1) {
        int detached = libusb_detach_kernel_driver(handle, interfaceNumber);
        if (detached < 0) {
            Log("Error: Unable to detatch active kernel driver: libusb error %d", detached);
            return detached;
        }
    }
    int claimed = libusb_claim_interface(handle, interfaceNumber);
    if (claimed != 0) {
        Log("Error: Unable to claim interface %i: libusb error %d", interfaceNumber, claimed);
        return claimed;
    }
    claimedInterfaces.push_back(interfaceNumber);
    if (setAltSetting) {
        int set = libusb_set_interface_alt_setting(handle, interfaceNumber, altSetting);
        if (set != 0) {
            // The interface stays usable in its current setting.
            Log("Warning: Unable to set altsetting %i on claimed interface %i: libusb error %d", altSetting,
                interfaceNumber, set);
        }
    }
    return 0;
}

int LibUSBBearerConnection::ReleaseInterface(int interfaceNumber) {
    auto found = std::find(claimedInterfaces.begin(), claimedInterfaces.end(), interfaceNumber);
    if (found == claimedInterfaces.end()) {
        return LIBUSB_ERROR_NOT_FOUND;
    }
    int result = libusb_release_interface(handle, interfaceNumber);
    claimedInterfaces.erase(found);
    return result;
}

void LibUSBBearerConnection::CancelTransfer(libusb_transfer* transfer, const char* message) {
    int result = libusb_cancel_transfer(transfer);
    if (result != 0 && result != LIBUSB_ERROR_NOT_FOUND) {
        Log("%s", message);
    }
}

void LibUSBBearerConnection::Close() {
    if (device == nullptr) {
        return;
    }
    CompositorLock lock(compositor);
    closing = true;
    for (TransferSlot* slot : pendingReads) {
        CancelTransfer(slot->transfer, "Error cancelling read transfer");
    }
    if (writeInFlight) {
        CancelTransfer(writeSlot.transfer, "Error cancelling write transfer");
    }
    if (controlInFlight) {
        CancelTransfer(controlSlot.transfer, "Error cancelling control transfer");
    }
    // No transfer may be freed or reused while libusb still owns it.
    while (!pendingReads.Empty() || writeInFlight || controlInFlight) {
        lock.Release();
        WaitForEvents(kDrainWaitUs);
        lock.Acquire();
    }
    closing = false;
    lock.Release();
    DiscardReadData();
    for (int32_t claimed : claimedInterfaces) {
        libusb_release_interface(handle, claimed);
    }
    claimedInterfaces.clear();
    libusb_close(handle);
    handle = nullptr;
    libusb_unref_device(device);
    device = nullptr;
}

void LibUSBBearerConnection::WaitForEvents(long microseconds) {
    int result;
    do {
        timeval wait = {0, microseconds};
        result = libusb_handle_events_timeout(context, &wait);
    } while (result == LIBUSB_ERROR_INTERRUPTED);
    if (result < 0) {
        Log("Process events failed: %d", result);
        ReportError(11);
    }
}

void LibUSBBearerConnection::HandleEvents(bool announced) {
    if (compositor == nullptr) {
        return;
    }
    completedInPass = false;
    compositor->ProcessEvents();
    compositor->Rearm();
    // What a timer's pass took in stays news until a pass of the toolkit's own.
    newsWaiting = announced && (newsWaiting || completedInPass);
    if (newsWaiting) {
        compositor->Notify();
    }
}

int LibUSBBearerConnection::GetEventHandle(intptr_t* extraOut) {
    if (extraOut != nullptr) {
        *extraOut = 0;
    }
    return compositor != nullptr ? compositor->GetEventHandle() : -1;
}

void LibUSBBearerConnection::Log(const char* format, ...) {
    va_list args;
    va_start(args, format);
    observer->OnLog(format, args);
    va_end(args);
}

int LibUSBBearerConnection::ReportError(int code) { return observer->OnTransportError(code); }

int LibUSBBearerConnection::SubmitTransfer(libusb_transfer* transfer) {
    // libusb dereferences the handle: with no device open, refuse here instead.
    // A closing transport starts nothing that its drain would have to wait for.
    int result = handle != nullptr && !closing ? libusb_submit_transfer(transfer) : LIBUSB_ERROR_NO_DEVICE;
    // A transfer without a time-out leaves libusb's next time-out as it was,
    // and the toolkit's timer with it: the data path asks libusb nothing.
    if (transfer->timeout != 0 || (compositor != nullptr && compositor->ManagesTimeouts())) {
        UpdateTimeout();
    }
    return result;
}

bool LibUSBBearerConnection::ToolkitKeepsTimers() {
    if (compositor != nullptr && compositor->ManagesTimeouts()) {
        compositor->ActivityHook();
        return false;
    }
    return true;
}

void LibUSBBearerConnection::UpdateTimeout() {
    if (compositor == nullptr) {
        return; // start-up failed; nothing can be pending
    }
    if (!ToolkitKeepsTimers()) {
        return;
    }
    // Zeroed, because libusb leaves it unset when it fails: a failure then asks
    // for the shortest timer, so events are looked at again soon.
    timeval tv = {0, 0};
    if (libusb_get_next_timeout(context, &tv) == 0) {
        return;
    }
    long long ms = static_cast<long long>(tv.tv_sec) * 1000 + (tv.tv_usec + 999) / 1000;
    if (ms <= 0) {
        ms = 1;
    }
    observer->OnTimeoutRequested(static_cast<int>(std::min<long long>(ms, INT_MAX)));
}

int LibUSBBearerConnection::SetEndpoints(uint8_t inEndpoint, uint8_t outEndpoint) {
    readEndpoint = inEndpoint;
    writeEndpoint = outEndpoint;
    libusb_clear_halt(handle, inEndpoint);
    libusb_clear_halt(handle, outEndpoint);
    int packet = libusb_get_max_packet_size(device, inEndpoint);
    int outPacket = libusb_get_max_packet_size(device, outEndpoint);
    for (auto [endpoint, size] : {std::pair<uint8_t, int>{inEndpoint, packet}, {outEndpoint, outPacket}}) {
        if (size <= 0) {
            int code = size == 0 ? LIBUSB_ERROR_OTHER : size;
            Log("Error: couldn't determine maximum packet size for device endpoint 0x%.2x: libusb error %i",
                endpoint, code);
            return code;
        }
    }
    writePacketSize = static_cast<uint32_t>(outPacket);
    // Whole packets only, so a read never ends in the middle of one.
    uint32_t size = kMaxReadSize / static_cast<uint32_t>(packet) * static_cast<uint32_t>(packet);
    if (size == 0) {
        size = static_cast<uint32_t>(packet); // a packet larger than a whole read: read one packet
    }
    for (TransferSlot& slot : readSlots) {
        if (!slot.ResizeBuffer(size)) {
            Log("Could not allocate buffer for read");
            return LIBUSB_ERROR_NO_MEM;
        }
    }
    return 0;
}

int LibUSBBearerConnection::SubmitControlTransfer(uint8_t requestType, uint8_t request, uint16_t value,
                                                  uint16_t index, uint16_t length, const uint8_t* data,
                                                  uint32_t timeoutMs) {
    CompositorLock lock(compositor);
    if (controlInFlight) {
        return LIBUSB_ERROR_BUSY;
    }
    if (controlSlot.transfer == nullptr) {
        return LIBUSB_ERROR_NO_MEM; // start-up could not allocate it
    }
    if (length + kSetupSize > controlSlot.size && !controlSlot.ResizeBuffer(length + kSetupSize)) {
        Log("Could not allocate buffer for control transfer");
        return LIBUSB_ERROR_NO_MEM;
    }
    libusb_fill_control_setup(controlSlot.buffer, requestType, request, value, index, length);
    if ((requestType & kDeviceToHost) == 0 && length != 0) {
        std::memcpy(controlSlot.buffer + kSetupSize, data, length);
    }
    libusb_fill_control_transfer(controlSlot.transfer, handle, controlSlot.buffer, ControlTransferCallback, this,
                                 timeoutMs);
    controlInFlight = true;
    lock.Release();
    int result = SubmitTransfer(controlSlot.transfer);
    lock.Acquire();
    if (result != 0) {
        Log("Failed to submit libusb transfer for control transfer: libusb error %i", result);
        controlInFlight = false;
    }
    return result;
}

void LIBUSB_CALL LibUSBBearerConnection::ControlTransferCallback(libusb_transfer* transfer) {
    static_cast<LibUSBBearerConnection*>(transfer->user_data)->OnControlTransfer(transfer);
}

void LibUSBBearerConnection::OnControlTransfer(libusb_transfer* transfer) {
    CompositorLock lock(compositor);
    compositor->ActivityHook();
    completedInPass = true;
    // Cleared first, so the observer can submit the next request from its handler.
    controlInFlight = false;
    int status = transfer->status;
    uint32_t received = static_cast<uint32_t>(std::max(transfer->actual_length, 0));
    received = std::min(received, controlSlot.size - kSetupSize);
    // A private copy: the observer may reuse the control buffer before it is done.
    std::unique_ptr<uint8_t[]> copy(new (std::nothrow) uint8_t[received + kSetupSize]);
    if (copy == nullptr) {
        Log("Unable to allocate memory for user-side control buffer");
        lock.Release();
        observer->OnControlComplete(LIBUSB_TRANSFER_ERROR, nullptr, nullptr, 0);
        return;
    }
    std::memcpy(copy.get(), controlSlot.buffer, received + kSetupSize);
    lock.Release();
    if (received != 0 && (copy[0] & kDeviceToHost) != 0) {
        observer->OnControlComplete(status, copy.get(), copy.get() + kSetupSize, static_cast<int>(received));
    } else {
        observer->OnControlComplete(status, copy.get(), nullptr, 0);
    }
}

int LibUSBBearerConnection::SubmitWrite(const uint8_t* data, uint32_t length, uint32_t timeoutMs) {
    CompositorLock lock(compositor);
    if (writeInFlight) {
        return LIBUSB_ERROR_BUSY;
    }
    if (writeSlot.transfer == nullptr) {
        return LIBUSB_ERROR_NO_MEM; // start-up could not allocate it
    }
    if (writeSlot.size < length && !writeSlot.ResizeBuffer(length)) {
        Log("Could not allocate buffer for write");
        return LIBUSB_ERROR_NO_MEM;
    }
    if (length != 0) {
        std::memcpy(writeSlot.buffer, data, length);
    }
    // A fresh fill also undoes what a previous partial-write retry advanced.
    libusb_fill_bulk_transfer(writeSlot.transfer, handle, writeEndpoint, writeSlot.buffer, static_cast<int>(length),
                              WriteTransferCallback, this, timeoutMs);
    bool endsOnFullPacket = length != 0 && writePacketSize != 0 && length % writePacketSize == 0;
    writeSlot.transfer->flags = endsOnFullPacket && !zeroPacketFlagRefused ? LIBUSB_TRANSFER_ADD_ZERO_PACKET : 0;
    zeroPacketDue = endsOnFullPacket && zeroPacketFlagRefused;
    writeInFlight = true;
    lock.Release();
    int result = SubmitWriteTransfer();
    lock.Acquire();
    if (result != 0) {
        Log("Failed to submit libusb transfer for write: libusb error %i", result);
        writeInFlight = false;
        zeroPacketDue = false;
    }
    return result;
}

int LibUSBBearerConnection::SubmitWriteTransfer() {
    libusb_transfer* transfer = writeSlot.transfer;
    int result = SubmitTransfer(transfer);
    if (result == LIBUSB_ERROR_NOT_SUPPORTED && (transfer->flags & LIBUSB_TRANSFER_ADD_ZERO_PACKET) != 0) {
        zeroPacketFlagRefused = true;
        zeroPacketDue = true;
        transfer->flags = 0;
        result = SubmitTransfer(transfer);
    }
    return result;
}

void LIBUSB_CALL LibUSBBearerConnection::WriteTransferCallback(libusb_transfer* transfer) {
    static_cast<LibUSBBearerConnection*>(transfer->user_data)->OnWriteTransfer(transfer);
}

void LibUSBBearerConnection::OnWriteTransfer(libusb_transfer* transfer) {
    CompositorLock lock(compositor);
    compositor->ActivityHook();
    completedInPass = true;
    int status = transfer->status;
    int result = 0;
    bool sentPart = transfer->actual_length >= 0 && transfer->actual_length < transfer->length;
    if (status == LIBUSB_TRANSFER_TIMED_OUT && sentPart) {
        Log("Write timeout: %d of %d written", transfer->actual_length, transfer->length);
    }
    // A closing transport resubmits nothing: nothing would cancel it, and the
    // drain would wait for it for ever. The write ends with the status it had.
    if (closing) {
        // as it stands
    } else if (sentPart && (status == LIBUSB_TRANSFER_COMPLETED ||
                            (status == LIBUSB_TRANSFER_TIMED_OUT && transfer->actual_length > 0))) {
        Log("Retrying partial write");
        transfer->buffer += transfer->actual_length;
        transfer->length -= transfer->actual_length;
        lock.Release();
        result = SubmitWriteTransfer();
        lock.Acquire();
        if (result == 0) {
            return; // the observer hears of the write once the remainder is sent
        }
        Log("Failed to resubmit transfer: libusb error %i", result);
        status = LIBUSB_TRANSFER_ERROR;
    } else if (status == LIBUSB_TRANSFER_COMPLETED && zeroPacketDue) {
        zeroPacketDue = false;
        transfer->buffer += transfer->actual_length;
        transfer->length = 0;
        lock.Release();
        result = SubmitTransfer(transfer);
        lock.Acquire();
        if (result == 0) {
            return; // the write is done once its zero-length packet has gone
        }
        Log("Failed to submit zero-length packet: libusb error %i", result);
        status = LIBUSB_TRANSFER_ERROR;
    }
    zeroPacketDue = false;
    writeInFlight = false;
    lock.Release();
    observer->OnWriteComplete(status);
}

int LibUSBBearerConnection::SubmitReads(uint32_t timeoutMs, int count) {
    CompositorLock lock(compositor);
    int result = 0;
    while (!idleReads.Empty() && result == 0 && count != 0) {
        TransferSlot* slot = idleReads.Front();
        idleReads.PopFront();
        slot->completed = false;
        libusb_fill_bulk_transfer(slot->transfer, handle, readEndpoint, slot->buffer, static_cast<int>(slot->size),
                                  ReadTransferCallback, this, timeoutMs);
        pendingReads.PushBack(slot);
        lock.Release();
        result = SubmitTransfer(slot->transfer);
        lock.Acquire();
        if (result == 0) {
            if (count > 0) {
                --count;
            }
        } else {
            Log("Failed to submit libusb transfer for read: libusb error %i", result);
            pendingReads.PopBack(); // the one just pushed
            idleReads.PushBack(slot);
        }
    }
    return result;
}

void LIBUSB_CALL LibUSBBearerConnection::ReadTransferCallback(libusb_transfer* transfer) {
    static_cast<LibUSBBearerConnection*>(transfer->user_data)->OnReadTransfer(transfer);
}

void LibUSBBearerConnection::OnReadTransfer(libusb_transfer* transfer) {
    CompositorLock lock(compositor);
    compositor->ActivityHook();
    completedInPass = true;
    for (TransferSlot* slot : pendingReads) {
        if (slot->transfer == transfer) {
            slot->MarkCompleted();
            break;
        }
    }
    // Retire strictly in submission order, so data queues in the order it was asked for.
    while (!pendingReads.Empty() && pendingReads.Front()->TakeCompleted()) {
        TransferSlot* slot = pendingReads.Front();
        pendingReads.PopFront();
        int status = slot->transfer->status;
        uint32_t received = static_cast<uint32_t>(std::max(slot->transfer->actual_length, 0));
        received = std::min(received, slot->size);
        if (received > 0) {
            readData.PushBack(ReadChunk{slot, received, 0}); // kept whatever the status
        } else {
            idleReads.PushBack(slot);
        }
        lock.Release();
        observer->OnReadComplete(status);
        lock.Acquire();
    }
}

uint32_t LibUSBBearerConnection::ReadData(uint8_t* destination, uint32_t maxLength) {
    CompositorLock lock(compositor);
    uint32_t copied = 0;
    while (!readData.Empty() && copied < maxLength) {
        ReadChunk& chunk = readData.Front();
        uint32_t n = std::min(maxLength - copied, chunk.length - chunk.consumed);
        std::memcpy(destination + copied, chunk.slot->buffer + chunk.consumed, n);
        copied += n;
        chunk.consumed += n;
        if (chunk.consumed == chunk.length) {
            idleReads.PushBack(chunk.slot);
            readData.PopFront();
        }
    }
    return copied;
}

uint32_t LibUSBBearerConnection::PeekReadLength() const {
    return readData.Empty() ? 0 : readData.Front().length - readData.Front().consumed;
}

void LibUSBBearerConnection::DiscardReadData() {
    CompositorLock lock(compositor);
    for (ReadChunk& chunk : readData) {
        chunk.consumed = chunk.length;
        idleReads.PushBack(chunk.slot);
    }
    readData.Clear();
}

bool LibUSBBearerConnection::IsWriteInProgress() {
    CompositorLock lock(compositor);
    return writeInFlight;
}
