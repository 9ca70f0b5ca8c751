#include "support/AllocationFailures.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

// Not anonymous: the sweep tells these frames by name on the stack.
namespace allocation_failures {
// The rule in force: the failAt-th allocation it numbers fails (none for 0).
// Sweeping numbers the plug-in's operator new of every kind; otherwise only
// non-throwing ones of size onlySize (any size for 0) are numbered.
std::atomic<bool> sweeping{false};
std::atomic<unsigned long> onlySize{0};
std::atomic<int> failAt{0};
std::atomic<int> numbered{0};
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

enum class Owner { Library, Plugin, Other };

// The plug-in's classes and free functions (bearer/, usb/, aap/).
constexpr std::string_view kPlugin[] = {"Kesto",     "LibUSB",         "FD",        "CreateFDCompositor",
                                        "TransferSlot", "SlotQueue",   "CompositorLock", "AccessoryInterface",
                                        "LogLine",   "FillInterfaceTable", "WholeSlotBytes"};

// Judged by the outermost name of a symbol: its class or namespace, or the
// function itself. The standard library and this file are passed over.
Owner OwnerOf(const char* symbol) {
    std::string_view outer = symbol;
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

// Numbers an allocation if the rule covers it; true for the one to fail.
bool Fails(std::size_t size, bool nothrow) {
    if (!sweeping) {
        return nothrow && failAt > 0 && (onlySize == 0 || size == onlySize) && ++numbered == failAt;
    }
    if (inside) {
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
    if (++numbered != failAt) {
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
    if (Fails(size, true)) {
        return nullptr;
    }
    try {
        return Next(array, size);
    } catch (...) {
        return nullptr;
    }
}

void* Throwing(std::size_t size, bool array) {
    if (Fails(size, false)) {
        throw std::bad_alloc();
    }
    return Next(array, size);
}
} // namespace allocation_failures

using namespace allocation_failures;

void AllocationFailures::FailAfter(int skip) {
    Reset();
    failAt = skip + 1;
}

void AllocationFailures::FailSize(unsigned long size) {
    Reset();
    onlySize = size;
    failAt = 1;
}

void AllocationFailures::Sweep(int n) {
    Reset();
    if (functions == nullptr) {
        LoadFunctions();
    }
    void* warm[4];
    backtrace(warm, 4); // loads the unwinder now, not inside an allocation
    failAt = n;
    sweeping = true;
}

void AllocationFailures::Reset() {
    sweeping = false;
    onlySize = 0;
    failAt = 0;
    numbered = 0;
    failedSite = nullptr;
}

bool AllocationFailures::Allocating() { return Fails(0, false); }
int AllocationFailures::SweepSeen() { return numbered; }
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
