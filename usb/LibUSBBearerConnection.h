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

// The USB side of one connection: the libusb context with its event thread,
// one open device, its claimed interfaces, and asynchronous control, bulk OUT
// and bulk IN transfers reported to an observer. All of it runs on the
// toolkit's thread; results are libusb error codes.
class LibUSBBearerConnection {
public:
    LibUSBBearerConnection(uint32_t debugLevel, LibUSBBearerObserver* observer);
    ~LibUSBBearerConnection();

    LibUSBBearerConnection(const LibUSBBearerConnection&) = delete;
    LibUSBBearerConnection& operator=(const LibUSBBearerConnection&) = delete;

    // Creates the context, the event thread and the transfers. After a failure
    // the only safe use is destruction.
    int Initialise();

    // Opens the first device at busNumber/deviceAddress; -5 when none opens.
    int OpenDevice(int busNumber, int deviceAddress);
    // Opens a device picked by the owner, taking a reference on it.
    int OpenDevice(libusb_device* candidate);
    int ClaimInterface(int interfaceNumber, int altSetting, bool setAltSetting);
    // -5 when interfaceNumber is not claimed.
    int ReleaseInterface(int interfaceNumber);
    // Cancels and drains every transfer, drops undelivered data, releases the
    // interfaces and closes the device. Does nothing when none is open.
    void Close();

    libusb_context* GetContext() const { return context; }
    libusb_device* GetDevice() const { return device; }
    libusb_device_handle* GetDeviceHandle() const { return handle; }
    FDCompositor* GetCompositor() const { return compositor; }

    // Lets libusb deliver what is pending (completions run inside), then rearms.
    void HandleEvents();
    // The descriptor the toolkit waits on; *extraOut (if given) becomes 0.
    int GetEventHandle(intptr_t* extraOut);
    void Log(const char* format, ...) __attribute__((format(printf, 2, 3)));
    int ReportError(int code);

    // Fixes the bulk endpoints, sizes the read buffers to whole packets and
    // learns the OUT packet size that decides when a write needs a zero-length
    // packet. Must not be called while a read is pending.
    int SetEndpoints(uint8_t inEndpoint, uint8_t outEndpoint);
    int SubmitControlTransfer(uint8_t requestType, uint8_t request, uint16_t value, uint16_t index,
                              uint16_t length, const uint8_t* data, uint32_t timeoutMs);
    // Copies data; -6 while a write is in flight. A write whose length is a
    // whole number of OUT packets ends with a zero-length packet, so that a
    // phone's read (which ends only on a short packet) completes; the write
    // stays in flight, and OnWriteComplete comes once, after that packet.
    int SubmitWrite(const uint8_t* data, uint32_t length, uint32_t timeoutMs);
    // Submits reads on up to count idle slots (all of them when count < 0).
    int SubmitReads(uint32_t timeoutMs, int count);
    uint32_t ReadData(uint8_t* destination, uint32_t maxLength);
    // What remains of the oldest chunk, 0 when none: a ReadData of this many
    // bytes takes exactly the rest of that chunk.
    uint32_t PeekReadLength() const;
    void DiscardReadData();
    bool IsWriteInProgress();

    // The phone's largest single write: a read this big takes one whole, and
    // it is a whole number of packets at 64, 512 and 1024 bytes.
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
    // One pass of Close's drain: lets libusb wait briefly for completions.
    void WaitForCompletions();
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
    TransferSlot controlSlot;
    bool controlInFlight;
    TransferSlot writeSlot;
    bool writeInFlight;
    std::vector<TransferSlot> readSlots;
    SlotQueue<ReadChunk> readData;
    SlotQueue<TransferSlot*> idleReads;
    SlotQueue<TransferSlot*> pendingReads;
};
