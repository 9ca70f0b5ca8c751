#pragma once

#include <cstdint>

// Counts heap allocations (malloc, calloc, realloc) by the code that asked for
// them. The executable defines malloc, calloc and realloc itself, so every
// library's calls reach it first; while counting, each call walks its own
// stack, passes over the C and C++ runtimes' frames (operator new, strdup,
// std::string) and charges the first frame beyond them: the plug-in's, the
// plain program's library, libusb's, or anything else's (the emulated phone,
// the benchmark). Walking the stack is slow, so counting is for runs that
// measure nothing else.
class AllocationCounter {
public:
    enum Owner { Plugin, Baseline, Libusb, Other, kOwners };

    struct Counts {
        uint64_t byOwner[kOwners] = {};
    };

    // Where the two programs' code lies: any address inside each object.
    static void Locate(const void* pluginCode, const void* baselineCode);
    static void Start();
    static Counts Stop();
};
