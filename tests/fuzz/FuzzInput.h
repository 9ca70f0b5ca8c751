#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// The fuzzer's bytes, read front to back as the story's decisions. Past the
// end every read answers 0, so any input is a whole story.
class FuzzInput {
public:
    FuzzInput(const uint8_t* data, size_t size) : data(data), size(size) {}

    bool Empty() const { return offset >= size; }
    uint8_t U8();
    // Little-endian.
    uint16_t U16();
    std::vector<uint8_t> Bytes(size_t count);
    // A length byte, then that many bytes.
    std::string Text();

private:
    const uint8_t* data;
    size_t size;
    size_t offset = 0;
};
