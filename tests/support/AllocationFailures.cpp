#include "support/AllocationFailures.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <link.h>

#include <algorithm>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

// The allocator underneath: a sanitizer's when one is linked in (it stands
// behind malloc's name, which this file takes over), else the C library's.
extern "C" {
void* __interceptor_malloc(size_t) __attribute__((weak));
void* __interceptor_calloc(size_t, size_t) __attribute__((weak));
void* __interceptor_realloc(void*, size_t) __attribute__((weak));
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
}

// Not anonymous: the sweep tells these frames by name on the stack.
namespace allocation_failures {
std::atomic<int> skipLeft{-1};
std::atomic<int> failLeft{0};
std::atomic<unsigned long> failSize{0};
std::atomic<int> seen{0};

std::atomic<bool> sweeping{false};
std::atomic<int> sweepFailAt{0};
std::atomic<int> sweepSeen{0};
std::atomic<const void*> failedSite{nullptr};
constexpr int kMaxSites = 1024;
std::atomic<const void*> sites[kMaxSites];
std::atomic<int> siteCount{0};
// Set while this file allocates for itself, so nothing is numbered twice.
thread_local bool inside = false;

struct Inside {
    const bool was = inside;
    Inside() { inside = true; }
    ~Inside() { inside = was; }
};

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

enum class Owner { Library, Plugin, Other };

// The plug-in's classes and free functions (bearer/, usb/, aap/).
constexpr std::string_view kPlugin[] = {"Kesto",     "LibUSB",         "FD",        "CreateFDCompositor",
                                        "TransferSlot", "SlotQueue",   "CompositorLock", "AccessoryInterface",
                                        "LogLine",   "FillInterfaceTable", "WholeSlotBytes"};

// Judged by the outermost name of a symbol: its class or namespace, or the
// function itself. The standard library and this file are passed over.
Owner OwnerOf(const char* symbol) {
    if (symbol == nullptr) {
        return Owner::Other;
    }
    std::string_view outer = symbol;
    if (outer == "malloc" || outer == "calloc" || outer == "realloc") {
        return Owner::Library;
    }
    if (outer.substr(0, 2) == "_Z") {
        size_t i = 2 + (symbol[2] == 'Z');
        if (symbol[i] == 'N') {
            for (++i; symbol[i] == 'K' || symbol[i] == 'V' || symbol[i] == 'r'; ++i) {
            }
        }
        if (symbol[i] == 'S' || symbol[i] == 'n') { // std::, operator new
            return Owner::Library;
        }
        char* end = nullptr;
        const long length = std::strtol(symbol + i, &end, 10);
        outer = std::string_view(end, length > 0 ? std::min<size_t>(length, std::strlen(end)) : 0);
    }
    if (outer.substr(0, 9) == "__gnu_cxx" || outer.substr(0, 7) == "__wrap_" || outer == "allocation_failures" ||
        outer == "AllocationFailures") {
        return Owner::Library;
    }
    for (std::string_view name : kPlugin) {
        if (outer.substr(0, name.size()) == name) {
            return Owner::Plugin;
        }
    }
    return Owner::Other;
}

// The executable's functions by address, from its full symbol table (the
// plug-in's are hidden from the dynamic one).
struct Function {
    uintptr_t start;
    uintptr_t end;
    const char* name;
    bool operator<(const Function& other) const { return start < other.start; }
};
std::vector<Function>* functions = nullptr;

void LoadFunctions() {
    Inside guard;
    functions = new std::vector<Function>;
    Dl_info self{};
    dladdr(reinterpret_cast<void*>(&LoadFunctions), &self);
    const int fd = open("/proc/self/exe", O_RDONLY);
    struct stat status {};
    fstat(fd, &status);
    const auto* image = static_cast<const char*>(mmap(nullptr, status.st_size, PROT_READ, MAP_PRIVATE, fd, 0));
    close(fd); // the mapping stays: the names point into it
    const auto* header = reinterpret_cast<const ElfW(Ehdr)*>(image);
    const uintptr_t bias = header->e_type == ET_DYN ? reinterpret_cast<uintptr_t>(self.dli_fbase) : 0;
    const auto* sections = reinterpret_cast<const ElfW(Shdr)*>(image + header->e_shoff);
    for (int i = 0; i < header->e_shnum; ++i) {
        if (sections[i].sh_type != SHT_SYMTAB) {
            continue;
        }
        const char* names = image + sections[sections[i].sh_link].sh_offset;
        const auto* symbols = reinterpret_cast<const ElfW(Sym)*>(image + sections[i].sh_offset);
        for (size_t j = 0; j < sections[i].sh_size / sizeof(ElfW(Sym)); ++j) {
            const ElfW(Sym)& symbol = symbols[j];
            if (ELF64_ST_TYPE(symbol.st_info) == STT_FUNC && symbol.st_size > 0 && symbol.st_shndx != SHN_UNDEF) {
                const uintptr_t start = bias + symbol.st_value;
                functions->push_back({start, start + symbol.st_size, names + symbol.st_name});
            }
        }
    }
    std::sort(functions->begin(), functions->end());
}

// The executable's function holding `address`, or null (a shared library's).
const Function* FunctionAt(const void* address) {
    const Function key{reinterpret_cast<uintptr_t>(address) - 1, 0, nullptr}; // a return address may end its function
    auto after = std::upper_bound(functions->begin(), functions->end(), key);
    return after == functions->begin() || key.start >= (--after)->end ? nullptr : &*after;
}

// The return address into plug-in code of the allocation being made, or null.
const void* PluginCaller() {
    void* frames[64];
    const int depth = backtrace(frames, 64);
    for (int i = 1; i < depth; ++i) {
        const Function* function = FunctionAt(frames[i]);
        const Owner owner = function == nullptr ? Owner::Library : OwnerOf(function->name);
        if (owner != Owner::Library) {
            return owner == Owner::Plugin ? frames[i] : nullptr;
        }
    }
    return nullptr;
}

// Numbers a plug-in allocation; true for the one to fail.
bool SweepFails() {
    if (!sweeping || inside) {
        return false;
    }
    Inside guard;
    const void* site = PluginCaller();
    if (site == nullptr) {
        return false;
    }
    int known = 0;
    while (known < siteCount && sites[known] != site) {
        ++known;
    }
    if (known == siteCount && known < kMaxSites) {
        sites[siteCount++] = site;
    }
    if (++sweepSeen != sweepFailAt) {
        return false;
    }
    failedSite = site;
    return true;
}

std::string SiteName(const void* site) {
    Inside guard;
    const Function* function = site == nullptr ? nullptr : FunctionAt(site);
    if (function == nullptr) {
        return "";
    }
    int status = 0;
    char* demangled = abi::__cxa_demangle(function->name, nullptr, nullptr, &status);
    char offset[32];
    std::snprintf(offset, sizeof offset, "+0x%zx", size_t(reinterpret_cast<uintptr_t>(site) - function->start));
    std::string name = (status == 0 ? demangled : function->name) + std::string(offset);
    std::free(demangled);
    return name;
}

// The allocation functions this file replaces, as they were.
void* Next(bool array, std::size_t size) {
    using New = void* (*)(std::size_t);
    static const New single = reinterpret_cast<New>(dlsym(RTLD_NEXT, sizeof size == 8 ? "_Znwm" : "_Znwj"));
    static const New many = reinterpret_cast<New>(dlsym(RTLD_NEXT, sizeof size == 8 ? "_Znam" : "_Znaj"));
    Inside guard;
    return (array ? many : single)(size);
}

void* NoThrow(std::size_t size, bool array) noexcept {
    if (ShouldFail(size) || SweepFails()) {
        return nullptr;
    }
    try {
        return Next(array, size);
    } catch (...) {
        return nullptr;
    }
}

void* Throwing(std::size_t size, bool array) {
    if (SweepFails()) {
        throw std::bad_alloc();
    }
    return Next(array, size);
}

void* Failed() {
    errno = ENOMEM;
    return nullptr;
}
} // namespace allocation_failures

using namespace allocation_failures;

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

void AllocationFailures::Sweep(int n) {
    Reset();
    if (functions == nullptr) {
        LoadFunctions();
    }
    void* warm[4];
    backtrace(warm, 4); // loads the unwinder now, not inside an allocation
    sweepFailAt = n;
    sweeping = true;
}

void AllocationFailures::Reset() {
    skipLeft = -1;
    failLeft = 0;
    failSize = 0;
    seen = 0;
    sweeping = false;
    sweepSeen = 0;
    failedSite = nullptr;
}

bool AllocationFailures::Allocating() { return SweepFails(); }
int AllocationFailures::Seen() { return seen; }
int AllocationFailures::SweepSeen() { return sweepSeen; }
std::string AllocationFailures::FailedSite() { return SiteName(failedSite); }

std::vector<std::string> AllocationFailures::Sites() {
    std::vector<std::string> names;
    for (int i = 0; i < siteCount; ++i) {
        names.push_back(SiteName(sites[i]));
    }
    return names;
}

void* operator new(std::size_t size) { return Throwing(size, false); }
void* operator new[](std::size_t size) { return Throwing(size, true); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return NoThrow(size, false); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return NoThrow(size, true); }

extern "C" void* malloc(size_t size) {
    if (SweepFails()) {
        return Failed();
    }
    return __interceptor_malloc != nullptr ? __interceptor_malloc(size) : __libc_malloc(size);
}

extern "C" void* calloc(size_t count, size_t size) {
    if (SweepFails()) {
        return Failed();
    }
    return __interceptor_calloc != nullptr ? __interceptor_calloc(count, size) : __libc_calloc(count, size);
}

extern "C" void* realloc(void* old, size_t size) {
    if (SweepFails()) {
        return Failed();
    }
    return __interceptor_realloc != nullptr ? __interceptor_realloc(old, size) : __libc_realloc(old, size);
}
