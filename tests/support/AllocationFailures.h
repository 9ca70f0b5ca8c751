#pragma once

#include <string>
#include <vector>

// Makes chosen allocations of the test process fail, so that the paths that
// must survive out-of-memory can be driven for real.
//
// One rule at a time, each failing one allocation. FailAfter and FailSize
// affect only non-throwing allocations (new (std::nothrow)), the ones that
// must report failure by a null result. The sweep affects every operator new,
// but only those the plug-in's own code makes, directly or through the
// standard library (or through a wrapper named __wrap_*), as the stack and
// the executable's symbol table tell. The plug-in calls no malloc of its own.
class AllocationFailures {
public:
    // The next `skip` non-throwing allocations succeed, the one after fails.
    static void FailAfter(int skip);
    // Fails the next non-throwing allocation of exactly `size` bytes.
    static void FailSize(unsigned long size);
    // Numbers the plug-in's allocations from 1 and fails number `n` (none for
    // 0) the way its function reports failure: null, or std::bad_alloc.
    static void Sweep(int n);
    // Numbers an allocation made for the plug-in where this file cannot see
    // it, such as inside a libusb call; true when it is the one to fail.
    static bool Allocating();
    // Ends any of the above.
    static void Reset();
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
