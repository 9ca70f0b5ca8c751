#pragma once

#include <cstddef>
#include <string>

// A text whose every character differs from its neighbours, so a log line cut
// in the wrong place shows.
inline std::string PatternText(size_t length) {
    std::string text;
    for (size_t i = 0; i < length; ++i) {
        text += static_cast<char>('a' + i % 26);
    }
    return text;
}
