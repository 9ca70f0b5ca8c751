#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

// Bytes on their way to the phone, offered to the plug-in one piece at a time,
// as they came, cut only where a piece would exceed one phone read.
class OutgoingBuffer {
public:
    // Takes data and length (in: offered, out: taken); returns a result code.
    using WriteFunction = std::function<int(const uint8_t* data, uint32_t& length)>;

    // The largest piece: the phone's accessory driver reads at most 16 KiB at a time.
    static constexpr size_t kMaxPiece = 16384;

    void Append(const uint8_t* data, size_t size);
    size_t Size() const { return bytes_.size() - head_; }
    bool Empty() const { return Size() == 0; }

    // Length of the next piece to offer; 0 when empty.
    size_t NextPieceLength() const;
    // Offers pieces until one is refused (a write in flight) or the buffer is
    // empty; what was taken is dropped. Returns the first non-zero result code,
    // otherwise 0. taken (if given) receives the number of bytes taken.
    int OfferTo(const WriteFunction& write, size_t* taken = nullptr);

private:
    std::vector<uint8_t> bytes_;
    size_t head_ = 0;
};
