// The shipped plug-in as a toolkit loads it: by path, keeping its symbols to
// itself, and unloading it once the bearer is gone. What else it exports is
// PluginExportsOnlyItsEntryPoint's to tell; its properties are the unit tier's,
// and every integration story drives a bearer it found with dlsym. What stays
// here: an exception thrown across the shipped object's fence, and the unload.
#include <dlfcn.h>

#include <gmock/gmock.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <new>

#include "harness/Toolkit.h"

namespace {
// Armed by the test to make the process's next throwing allocation fail. The
// plug-in's allocations reach this process's operator new too.
std::atomic<bool> failNextAllocation{false};
} // namespace

// In front of the C++ runtime's operator new or a sanitizer's, so that every
// allocation still meets its own operator delete.
void* operator new(std::size_t size) {
    using AllocateFn = void* (*)(std::size_t);
    static const auto next =
        reinterpret_cast<AllocateFn>(dlsym(RTLD_NEXT, sizeof(std::size_t) == 8 ? "_Znwm" : "_Znwj"));
    if (failNextAllocation.exchange(false)) {
        throw std::bad_alloc();
    }
    return next(size);
}

TEST(LoadedPlugin, ToolkitOutOfMemoryForANewConnectionGetsAFailureAndNoHandle) {
    const std::unique_ptr<void, int (*)(void*)> library(dlopen(KESTO_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL), dlclose);
    ASSERT_NE(nullptr, library) << dlerror();
    Toolkit toolkit({reinterpret_cast<KestoBearerInitializeFn>(dlsym(library.get(), "KestoBearerInitialize"))});
    ASSERT_NE(nullptr, toolkit.Bearer());
    ToolkitConnection& phone = toolkit.AddConnection();
    void* const untouched = &phone;
    void* handle = untouched;
    failNextAllocation = true;
    EXPECT_EQ(KestoBearerErrorFailed,
              toolkit.Interface().bearerCreateConnection(toolkit.Bearer(), phone.Context(), &handle));
    failNextAllocation = false;
    EXPECT_EQ(untouched, handle);
    EXPECT_THAT(toolkit.BearerLog(),
                testing::ElementsAre("KestoBearerImpl::CreateConnection caught exception: std::bad_alloc\n"));
}
