#include "usb/TransferSlot.h"

#include <libusb.h>

#include <new>

TransferSlot::TransferSlot() : buffer(nullptr), size(0), transfer(nullptr), completed(false) {}

TransferSlot::TransferSlot(TransferSlot&& other) noexcept
    : buffer(other.buffer), size(other.size), transfer(other.transfer), completed(other.completed) {
    other.buffer = nullptr;
    other.size = 0;
    other.transfer = nullptr;
    other.completed = false;
}

TransferSlot::~TransferSlot() {
    FreeTransfer();
    delete[] buffer;
}

void TransferSlot::FreeTransfer() {
    if (transfer != nullptr) {
        libusb_free_transfer(transfer);
        transfer = nullptr;
    }
}

bool TransferSlot::AllocTransfer(int isoPackets) {
    FreeTransfer();
    transfer = libusb_alloc_transfer(isoPackets);
    return transfer != nullptr;
}

bool TransferSlot::ResizeBuffer(uint32_t length) {
    if (size == length) {
        return true;
    }
    uint8_t* fresh = new (std::nothrow) uint8_t[length];
    if (fresh == nullptr) {
        return false;
    }
    delete[] buffer;
    buffer = fresh;
    size = length;
    return true;
}
