#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

// The fuzzer's bytes, read front to back as the story's decisions. Past the
// end every read answers 0, so any input is a whole story.
class FuzzInput {
public:
    FuzzInput(const uint8_t* data, size_t size) : data(data), size(size) {}

    bool Empty() const { return offset >= size; }
    uint8_t U8() { return offset < size ? data[offset++] : 0; }
    uint16_t U16() { // little-endian
        const uint8_t low = U8();
        return static_cast<uint16_t>(low | U8() << 8);
    }
    std::vector<uint8_t> Bytes(size_t count) {
        std::vector<uint8_t> bytes(count);
        std::generate(bytes.begin(), bytes.end(), [this] { return U8(); });
        return bytes;
    }
    // A length byte, then that many bytes.
    std::string Text() {
        const std::vector<uint8_t> bytes = Bytes(U8());
        return {bytes.begin(), bytes.end()};
    }

private:
    const uint8_t* data;
    size_t size;
    size_t offset = 0;
};

// KESTO_FUZZ_TRACE=1: to follow one input's story.
inline bool Tracing() {
    static const bool trace = std::getenv("KESTO_FUZZ_TRACE") != nullptr;
    return trace;
}

// A broken invariant is the fuzzer's finding: say which, and crash.
inline void Check(bool holds, const char* invariant) {
    if (!holds) {
        std::fprintf(stderr, "invariant broken: %s\n", invariant);
        std::abort();
    }
}
