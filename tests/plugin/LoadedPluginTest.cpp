#include <dlfcn.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <new>

#include "harness/Toolkit.h"

using testing::ElementsAre;

namespace {
// Armed by a test to make the process's next throwing allocation fail. The
// plug-in's allocations reach this process's operator new too.
std::atomic<bool> failNextAllocation{false};

using AllocateFn = void* (*)(std::size_t);

// The operator new this one stands in front of (the C++ runtime's or a
// sanitizer's), so that every allocation still meets its own operator delete.
AllocateFn NextOperatorNew() {
    static const auto next =
        reinterpret_cast<AllocateFn>(dlsym(RTLD_NEXT, sizeof(std::size_t) == 8 ? "_Znwm" : "_Znwj"));
    return next;
}
} // namespace

void* operator new(std::size_t size) {
    if (failNextAllocation.exchange(false)) {
        throw std::bad_alloc();
    }
    return NextOperatorNew()(size);
}

namespace {

using Library = std::unique_ptr<void, int (*)(void*)>;

// The plug-in as a toolkit loads it: by path, keeping its symbols to itself,
// and unloading it after the bearer is gone.
class LoadedPlugin : public testing::Test {
protected:
    static Library Open() {
        void* library = dlopen(KESTO_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
        if (library == nullptr) {
            ADD_FAILURE() << dlerror();
        }
        return Library(library, dlclose);
    }

    static Toolkit::Options EntryPointOf(void* library) {
        Toolkit::Options options{nullptr};
        if (library != nullptr) {
            options.initialize = reinterpret_cast<KestoBearerInitializeFn>(dlsym(library, "KestoBearerInitialize"));
        }
        return options;
    }

    Library library = Open();
    Toolkit toolkit{EntryPointOf(library.get())};
};

// What else the plug-in exports is PluginExportsOnlyItsEntryPoint's to tell;
// its properties are the unit tier's, and every integration story drives a
// bearer it found with dlsym. What stays here: an exception thrown across the
// shipped object's fence, and unloading it once the bearer is gone.
TEST_F(LoadedPlugin, ToolkitOutOfMemoryForANewConnectionGetsAFailureAndNoHandle) {
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
                ElementsAre("KestoBearerImpl::CreateConnection caught exception: std::bad_alloc\n"));
}

} // namespace
