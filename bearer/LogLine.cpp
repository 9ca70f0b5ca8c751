#include "bearer/LogLine.h"

#include <cstdio>

LogLine::LogLine(const char* format, va_list args) {
    std::vsnprintf(text_, kCapacity, format, args);
    text_[kCapacity - 1] = '\0';
}
