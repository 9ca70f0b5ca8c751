#pragma once

// Makes chosen non-throwing allocations (new (std::nothrow)) of the test
// process fail, so that the paths that must report out-of-memory by a null
// result can be driven for real. Throwing allocations are never affected.
class AllocationFailures {
public:
    // The next `skip` non-throwing allocations succeed, the one after fails,
    // and so do `count - 1` more after it.
    static void FailAfter(int skip, int count = 1);
    // Fails non-throwing allocations of exactly `size` bytes (count times).
    static void FailSize(unsigned long size, int count = 1);
    static void Reset();
    // Number of non-throwing allocations made since the last Reset.
    static int Seen();
};

// Resets on construction and destruction: one per test that injects failures.
class ScopedAllocationFailures {
public:
    ScopedAllocationFailures() { AllocationFailures::Reset(); }
    ~ScopedAllocationFailures() { AllocationFailures::Reset(); }
};
