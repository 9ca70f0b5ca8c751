#pragma once

#include <cstdarg>

// One rendered log line: at most 255 characters and always NUL-terminated,
// because the toolkit's log functions take plain C strings of bounded length.
class LogLine {
public:
    LogLine(const char* format, va_list args);
    const char* Text() const { return text_; }

private:
    static constexpr int kCapacity = 256;
    char text_[kCapacity];
};
