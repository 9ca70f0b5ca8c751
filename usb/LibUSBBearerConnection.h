#pragma once

#include <libusb.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "usb/LibUSBBearerObserver.h"
#include "usb/ReadChunk.h"
#include "usb/SlotQueue.h"
#include "usb/TransferSlot.h"

class FDCompositor;

// The USB side of one connection: the libusb context and its compositor,
// one open device, its claimed interfaces, and one control, one bulk OUT and
// kReadSlotCount bulk IN transfers, reported to an observer.
//
// Everything runs on the toolkit's thread: every operation below is called
// there, and libusb's events are handled there, inside HandleEvents and
// Close. Results are libusb error codes (0 on success) unless said otherwise.
class LibUSBBearerConnection {
public:
    // Keeps observer for its whole life; nothing is created before Initialise.
    LibUSBBearerConnection(uint32_t debugLevel, LibUSBBearerObserver* observer);
    // Close, then frees every transfer, the context and the compositor.
    ~LibUSBBearerConnection();

    LibUSBBearerConnection(const LibUSBBearerConnection&) = delete;
    LibUSBBearerConnection& operator=(const LibUSBBearerConnection&) = delete;

    // Creates the context, the compositor, the transfers and their buffers.
    // Called once. After a failure the only safe use is destruction.
    int Initialise();

    // Opens the first device at busNumber/deviceAddress. LIBUSB_ERROR_NOT_FOUND
    // when none is there or it does not open. Precondition: none is open.
    int OpenDevice(int busNumber, int deviceAddress);
    // Opens a device picked by the owner, taking a reference on it; the
    // owner's own reference may go at once. Precondition: none is open.
    int OpenDevice(libusb_device* candidate);
    // Detaches a kernel driver if one is bound, claims, and then sets the
    // alternate setting if asked (a refusal there is only a warning). The
    // interface is released by ReleaseInterface or Close.
    int ClaimInterface(int interfaceNumber, int altSetting, bool setAltSetting);
    // LIBUSB_ERROR_NOT_FOUND when interfaceNumber is not claimed.
    int ReleaseInterface(int interfaceNumber);
    // Cancels every transfer in flight and waits until libusb has given each
    // back (its completion reaches the observer with whatever status it
    // ended with), then drops undelivered data, releases the interfaces and
    // closes the device. Nothing is submitted while it drains. Afterwards no
    // device is open and every slot is idle; a transport may open another.
    // Does nothing when none is open.
    void Close();

    // Null before Initialise, respectively while no device is open.
    libusb_context* GetContext() const { return context; }
    libusb_device* GetDevice() const { return device; }
    libusb_device_handle* GetDeviceHandle() const { return handle; }

    // Whether the owner asks the toolkit for its timers (search ticks, libusb
    // time-outs). False when the compositor keeps time-outs itself, which no
    // compositor here does; it is then nudged to look at the new work instead.
    bool ToolkitKeepsTimers();

    // Lets libusb deliver what is pending without blocking (the observer's
    // completion calls come from inside), then rearms the event handle. A
    // toolkit learns of news only from the handle, so a pass it made for
    // another reason (its timer) is `announced`: once such a pass has
    // completed a transfer, the handle is left readable after every
    // announced pass until one that is not (the toolkit's own GetActivity).
    void HandleEvents(bool announced = false);
    // Runs libusb's event handling, waiting up to `microseconds` for work
    // (0: not at all); completions reach their callbacks inside. A signal
    // that cuts libusb's poll short (LIBUSB_ERROR_INTERRUPTED) is not a
    // failure, since a toolkit may handle signals on any thread: the
    // handling is tried again. Any other failure is logged ("Process events
    // failed: %d") and reported as 11.
    void WaitForEvents(long microseconds);
    // The descriptor the toolkit waits on (-1 when Initialise failed before
    // the compositor existed); *extraOut (if given) becomes 0.
    int GetEventHandle(intptr_t* extraOut);
    // Hands the message to the observer.
    void Log(const char* format, ...) __attribute__((format(printf, 2, 3)));
    // Hands code to the observer's OnTransportError and returns its answer.
    int ReportError(int code);

    // Fixes the bulk endpoints (clearing a halt on each), sizes the read
    // buffers and learns the OUT packet size that decides when a write needs
    // a zero-length packet. Precondition: a device is open and no read is in
    // flight.
    int SetEndpoints(uint8_t inEndpoint, uint8_t outEndpoint);
    // Copies data (host-to-device requests) and submits. LIBUSB_ERROR_BUSY
    // while a control transfer is in flight; OnControlComplete comes once for
    // each one submitted.
    int SubmitControlTransfer(uint8_t requestType, uint8_t request, uint16_t value, uint16_t index,
                              uint16_t length, const uint8_t* data, uint32_t timeoutMs);
    // Copies data and submits; LIBUSB_ERROR_BUSY while a write is in flight.
    // A partial write is continued by itself. A write whose length is a whole
    // number of OUT packets ends with a zero-length packet, so that a phone's
    // read (which ends only on a short packet) completes. OnWriteComplete
    // comes once per write, after all of that.
    int SubmitWrite(const uint8_t* data, uint32_t length, uint32_t timeoutMs);
    // Submits reads on up to count idle slots (all of them when count < 0)
    // and stops at the first refusal, which it returns. Each read submitted
    // brings one OnReadComplete, in submission order.
    int SubmitReads(uint32_t timeoutMs, int count);
    // Copies up to maxLength queued bytes, oldest first, and returns how many;
    // a slot whose bytes are all taken becomes idle for SubmitReads.
    uint32_t ReadData(uint8_t* destination, uint32_t maxLength);
    // What remains of the oldest chunk, 0 when none: a ReadData of this many
    // bytes takes exactly the rest of that chunk.
    uint32_t PeekReadLength() const;
    // Drops every queued byte; their slots become idle.
    void DiscardReadData();
    bool IsWriteInProgress();

    // The phone's largest single write: a read this big takes one whole. It is
    // a whole number of packets at 64, 512 and 1024 bytes; for a packet size
    // that does not divide it, a read asks for the largest multiple of the
    // packet size below it (one packet when the packet is larger).
    static constexpr uint32_t kMaxReadSize = 16384;
    // Bulk IN transfers kept in flight in the data phase: enough that the
    // link never waits for the toolkit to take one chunk before the next lands.
    static constexpr size_t kReadSlotCount = 4;

private:
    static void LIBUSB_CALL ControlTransferCallback(libusb_transfer* transfer);
    static void LIBUSB_CALL WriteTransferCallback(libusb_transfer* transfer);
    static void LIBUSB_CALL ReadTransferCallback(libusb_transfer* transfer);
    void OnControlTransfer(libusb_transfer* transfer);
    void OnWriteTransfer(libusb_transfer* transfer);
    void OnReadTransfer(libusb_transfer* transfer);

    int OpenOne(libusb_device* candidate);
    int SubmitTransfer(libusb_transfer* transfer);
    // Submits the write transfer as filled, falling back to a separate
    // zero-length packet where libusb refuses to add one itself.
    int SubmitWriteTransfer();
    void UpdateTimeout();
    void CancelTransfer(libusb_transfer* transfer, const char* message);

    uint32_t debugLevel;
    LibUSBBearerObserver* observer;
    FDCompositor* compositor;
    libusb_context* context;
    libusb_device* device;
    libusb_device_handle* handle;
    std::vector<int32_t> claimedInterfaces;
    uint8_t readEndpoint;
    uint8_t writeEndpoint;
    uint32_t writePacketSize;
    // libusb refused LIBUSB_TRANSFER_ADD_ZERO_PACKET once: send our own from then on.
    bool zeroPacketFlagRefused;
    // The write in flight is to be followed by a separate zero-length packet.
    bool zeroPacketDue;
    // Close has begun: completions submit nothing new.
    bool closing;
    // A transfer completed in the current HandleEvents pass.
    bool completedInPass;
    // An announced pass took in news the toolkit has not come for yet.
    bool newsWaiting;
    TransferSlot controlSlot;
    bool controlInFlight;
    TransferSlot writeSlot;
    bool writeInFlight;
    std::vector<TransferSlot> readSlots;
    SlotQueue<ReadChunk> readData;
    SlotQueue<TransferSlot*> idleReads;
    SlotQueue<TransferSlot*> pendingReads;
};
