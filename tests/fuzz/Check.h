#pragma once

#include <cstdio>
#include <cstdlib>

// A broken invariant is the fuzzer's finding: say which, and crash.
inline void Check(bool holds, const char* invariant) {
    if (!holds) {
        std::fprintf(stderr, "invariant broken: %s\n", invariant);
        std::abort();
    }
}
