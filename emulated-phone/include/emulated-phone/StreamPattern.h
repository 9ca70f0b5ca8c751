#pragma once

#include <cstddef>
#include <cstdint>

namespace emuphone {

// The bytes a source phone sends and the running hash a phone keeps of what it
// receives, so that a test can check a stream without keeping a copy of it.
class StreamPattern {
public:
    // FNV-1a 64-bit offset basis.
    static constexpr uint64_t kHashSeed = 14695981039346656037ull;

    // Byte number `offset` of the source stream. Not periodic at 256, so a block
    // delivered twice or out of order shows.
    static uint8_t ByteAt(uint64_t offset);
    static void Fill(uint64_t offset, uint8_t* out, size_t length);
    // Continues an FNV-1a hash over `length` more bytes.
    static uint64_t Hash(uint64_t hash, const uint8_t* data, size_t length);
};

} // namespace emuphone
