#pragma once

#include <cstdint>

class TransferSlot;

// A completed read whose bytes are not yet all handed over; they stay in the
// slot's buffer until ReadData copies them out.
struct ReadChunk {
    TransferSlot* slot;
    uint32_t length;
    uint32_t consumed;
};
