#include "support/AllocationFailures.h"

#include <atomic>
#include <cstddef>
#include <new>

namespace {
std::atomic<int> skipLeft{-1};
std::atomic<int> failLeft{0};
std::atomic<unsigned long> failSize{0};
std::atomic<int> seen{0};

bool ShouldFail(std::size_t size) {
    seen++;
    if (failSize != 0 && size == failSize && failLeft > 0) {
        failLeft--;
        return true;
    }
    if (failSize == 0 && skipLeft >= 0 && failLeft > 0) {
        if (skipLeft == 0) {
            failLeft--;
            return true;
        }
        skipLeft--;
    }
    return false;
}

// Delegating to the throwing operator keeps new/delete pairs matched for the
// sanitizers' allocators.
void* Allocate(std::size_t size, bool array) noexcept {
    if (ShouldFail(size)) {
        return nullptr;
    }
    try {
        return array ? ::operator new[](size) : ::operator new(size);
    } catch (...) {
        return nullptr;
    }
}
} // namespace

void AllocationFailures::FailAfter(int skip, int count) {
    failSize = 0;
    failLeft = count;
    skipLeft = skip;
}

void AllocationFailures::FailSize(unsigned long size, int count) {
    skipLeft = -1;
    failLeft = count;
    failSize = size;
}

void AllocationFailures::Reset() {
    skipLeft = -1;
    failLeft = 0;
    failSize = 0;
    seen = 0;
}

int AllocationFailures::Seen() { return seen; }

void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return Allocate(size, false); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return Allocate(size, true); }
