#include "kesto-host/OutgoingBuffer.h"

#include <algorithm>

void OutgoingBuffer::Append(const uint8_t* data, size_t size) {
    // Compacting only once the consumed head outweighs the rest keeps appends cheap.
    if (head_ > 0 && head_ >= bytes_.size() / 2) {
        bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(head_));
        head_ = 0;
    }
    bytes_.insert(bytes_.end(), data, data + size);
}

size_t OutgoingBuffer::NextPieceLength() const { return std::min(Size(), kMaxPiece); }

int OutgoingBuffer::OfferTo(const WriteFunction& write, size_t* taken) {
    size_t total = 0;
    int rc = 0;
    while (!Empty()) {
        size_t offered = NextPieceLength();
        uint32_t length = static_cast<uint32_t>(offered);
        rc = write(bytes_.data() + head_, length);
        if (rc != 0 || length == 0) {
            break;
        }
        size_t accepted = std::min<size_t>(length, offered);
        head_ += accepted;
        total += accepted;
    }
    if (taken != nullptr) {
        *taken = total;
    }
    return rc;
}
