#include "fuzz/FuzzInput.h"

uint8_t FuzzInput::U8() {
    return offset < size ? data[offset++] : 0;
}

uint16_t FuzzInput::U16() {
    uint8_t low = U8();
    return static_cast<uint16_t>(low | U8() << 8);
}

std::vector<uint8_t> FuzzInput::Bytes(size_t count) {
    std::vector<uint8_t> bytes(count);
    for (uint8_t& byte : bytes) {
        byte = U8();
    }
    return bytes;
}

std::string FuzzInput::Text() {
    std::vector<uint8_t> bytes = Bytes(U8());
    return std::string(bytes.begin(), bytes.end());
}
