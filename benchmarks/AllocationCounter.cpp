#include "AllocationCounter.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <link.h>

#include <atomic>
#include <cstring>

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* pointer, size_t size);
}

namespace {

// Frames walked per allocation: deep enough to get out of the runtimes.
constexpr int kFrames = 12;
constexpr int kRanges = 16;

struct Range {
    uintptr_t begin = 0;
    uintptr_t end = 0;
    int owner = AllocationCounter::Other;
    bool runtime = false;
};

Range ranges[kRanges];
int rangeCount = 0;
std::atomic<bool> counting{false};
std::atomic<uint64_t> counts[AllocationCounter::kOwners];
thread_local bool inside = false;
const void* pluginCode = nullptr;
const void* baselineCode = nullptr;

bool Contains(const dl_phdr_info* info, const void* address)
{
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr)& segment = info->dlpi_phdr[i];
        uintptr_t begin = info->dlpi_addr + segment.p_vaddr;
        if (segment.p_type == PT_LOAD && reinterpret_cast<uintptr_t>(address) - begin < segment.p_memsz)
            return true;
    }
    return false;
}

int NoteObject(dl_phdr_info* info, size_t, void*)
{
    const char* name = info->dlpi_name != nullptr ? info->dlpi_name : "";
    Range range;
    range.runtime = std::strstr(name, "/libc.so") || std::strstr(name, "/libstdc++.so") ||
                    std::strstr(name, "/libgcc_s.so") || std::strstr(name, "/libm.so");
    if (pluginCode != nullptr && Contains(info, pluginCode))
        range.owner = AllocationCounter::Plugin;
    else if (baselineCode != nullptr && Contains(info, baselineCode))
        range.owner = AllocationCounter::Baseline;
    else if (std::strstr(name, "/libusb-1.0.so"))
        range.owner = AllocationCounter::Libusb;
    else if (!range.runtime)
        return 0;
    for (int i = 0; i < info->dlpi_phnum && rangeCount < kRanges; ++i) {
        const ElfW(Phdr)& segment = info->dlpi_phdr[i];
        if (segment.p_type != PT_LOAD || !(segment.p_flags & PF_X))
            continue;
        range.begin = info->dlpi_addr + segment.p_vaddr;
        range.end = range.begin + segment.p_memsz;
        ranges[rangeCount++] = range;
    }
    return 0;
}

// `caller` is where malloc was called from; the frames before it are the hook's own.
void Charge(void* caller)
{
    void* frames[kFrames];
    int depth = backtrace(frames, kFrames);
    int first = 0;
    while (first < depth && frames[first] != caller)
        ++first;
    for (int i = first; i < depth; ++i) {
        auto address = reinterpret_cast<uintptr_t>(frames[i]);
        const Range* found = nullptr;
        for (int r = 0; r < rangeCount && found == nullptr; ++r)
            if (address - ranges[r].begin < ranges[r].end - ranges[r].begin)
                found = &ranges[r];
        if (found != nullptr && found->runtime)
            continue;
        counts[found != nullptr ? found->owner : AllocationCounter::Other].fetch_add(1, std::memory_order_relaxed);
        return;
    }
    counts[AllocationCounter::Other].fetch_add(1, std::memory_order_relaxed);
}

void Note(void* caller)
{
    if (!counting.load(std::memory_order_relaxed) || inside)
        return;
    inside = true;
    Charge(caller);
    inside = false;
}

} // namespace

void AllocationCounter::Locate(const void* plugin, const void* baseline)
{
    pluginCode = plugin;
    baselineCode = baseline;
    rangeCount = 0;
    dl_iterate_phdr(&NoteObject, nullptr);
    // The first walk loads the unwinder, which allocates: not while counting.
    void* frames[2];
    backtrace(frames, 2);
}

void AllocationCounter::Start()
{
    for (auto& count : counts)
        count.store(0);
    counting.store(true);
}

AllocationCounter::Counts AllocationCounter::Stop()
{
    counting.store(false);
    Counts result;
    for (int i = 0; i < kOwners; ++i)
        result.byOwner[i] = counts[i].load();
    return result;
}

extern "C" {

__attribute__((visibility("default"), noinline)) void* malloc(size_t size)
{
    Note(__builtin_return_address(0));
    return __libc_malloc(size);
}

__attribute__((visibility("default"), noinline)) void* calloc(size_t count, size_t size)
{
    Note(__builtin_return_address(0));
    return __libc_calloc(count, size);
}

__attribute__((visibility("default"), noinline)) void* realloc(void* pointer, size_t size)
{
    Note(__builtin_return_address(0));
    return __libc_realloc(pointer, size);
}

} // extern "C"
