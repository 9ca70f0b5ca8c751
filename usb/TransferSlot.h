#pragma once

#include <cstdint>

struct libusb_transfer;

// One libusb transfer with the buffer it uses. Buffers are allocated so that
// failure reports null instead of throwing.
class TransferSlot {
public:
    TransferSlot();
    ~TransferSlot();
    TransferSlot(TransferSlot&& other) noexcept;
    TransferSlot(const TransferSlot&) = delete;
    TransferSlot& operator=(const TransferSlot&) = delete;
    TransferSlot& operator=(TransferSlot&&) = delete;

    void FreeTransfer();
    bool AllocTransfer(int isoPackets);
    // Makes the buffer exactly length bytes; contents are not kept. On failure
    // the old buffer stays and false is returned.
    bool ResizeBuffer(uint32_t length);
    void MarkCompleted() { completed = true; }
    bool TakeCompleted() {
        bool was = completed;
        completed = false;
        return was;
    }

    uint8_t* buffer;
    uint32_t size;
    libusb_transfer* transfer;
    bool completed;
};
