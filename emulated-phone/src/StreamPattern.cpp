#include "emulated-phone/StreamPattern.h"

namespace emuphone {
namespace {

// FNV-1a 64-bit prime.
constexpr uint64_t kHashPrime = 1099511628211ull;
// Odd, so each 256-byte block starts at a different value.
constexpr uint64_t kBlockStep = 31;

} // namespace

uint8_t StreamPattern::ByteAt(uint64_t offset)
{
    return static_cast<uint8_t>(offset + (offset >> 8) * kBlockStep);
}

void StreamPattern::Fill(uint64_t offset, uint8_t* out, size_t length)
{
    for (size_t i = 0; i < length; ++i)
        out[i] = ByteAt(offset + i);
}

uint64_t StreamPattern::Hash(uint64_t hash, const uint8_t* data, size_t length)
{
    for (size_t i = 0; i < length; ++i)
        hash = (hash ^ data[i]) * kHashPrime;
    return hash;
}

} // namespace emuphone
