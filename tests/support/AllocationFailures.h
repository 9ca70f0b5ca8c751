#pragma once

#include <string>
#include <vector>

// Makes chosen allocations of the test process fail, so that the paths that
// must survive out-of-memory can be driven for real.
//
// FailAfter and FailSize affect only non-throwing allocations
// (new (std::nothrow)), the ones that must report failure by a null result.
// The sweep affects every kind (malloc, calloc, realloc and each operator
// new), but only those the plug-in's own code makes, directly or through the
// standard library (or through a wrapper named __wrap_*), as the stack and
// the executable's symbol table tell.
class AllocationFailures {
public:
    // The next `skip` non-throwing allocations succeed, the one after fails,
    // and so do `count - 1` more after it.
    static void FailAfter(int skip, int count = 1);
    // Fails non-throwing allocations of exactly `size` bytes (count times).
    static void FailSize(unsigned long size, int count = 1);
    // Numbers the plug-in's allocations from 1 and fails number `n` (none for
    // 0) the way its function reports failure: null, or std::bad_alloc.
    static void Sweep(int n);
    // Numbers an allocation made for the plug-in where this file cannot see
    // it, such as inside a libusb call; true when it is the one to fail.
    static bool Allocating();
    // Ends any of the above.
    static void Reset();
    // Number of non-throwing allocations made since the last Reset.
    static int Seen();
    // The plug-in's allocations numbered since Sweep began.
    static int SweepSeen();
    // Where the failed one was made, as "function+offset" ("" if not reached),
    // and every call site numbered so far in the process.
    static std::string FailedSite();
    static std::vector<std::string> Sites();
};

// Resets on construction and destruction: one per test that injects failures.
class ScopedAllocationFailures {
public:
    ScopedAllocationFailures() { AllocationFailures::Reset(); }
    ~ScopedAllocationFailures() { AllocationFailures::Reset(); }
};
