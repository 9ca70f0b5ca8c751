#include "kesto-host/PluginLoader.h"

#include <dlfcn.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#ifndef KESTO_HOST_BUILD_ROOT
#define KESTO_HOST_BUILD_ROOT ".."
#endif
#ifndef KESTO_HOST_LIBDIR
#define KESTO_HOST_LIBDIR "../lib"
#endif

namespace {

constexpr const char* kPluginFile = "libkestobearer-USBAAP.so";

std::string ExecutableDir() {
    char path[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0) {
        return ".";
    }
    std::string exe(path, static_cast<size_t>(n));
    size_t slash = exe.rfind('/');
    return slash == std::string::npos ? "." : exe.substr(0, slash);
}

bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// The path without "..", so that the log names the file plainly.
std::string Canonical(const std::string& path) {
    char resolved[PATH_MAX];
    return realpath(path.c_str(), resolved) != nullptr ? resolved : path;
}

} // namespace

PluginLoader::~PluginLoader() {
    if (handle_ != nullptr) {
        dlclose(handle_);
    }
}

std::vector<std::string> PluginLoader::SearchOrder(const std::string& exeDir) {
    std::vector<std::string> paths{exeDir + "/" + kPluginFile};
    std::string libDir = KESTO_HOST_LIBDIR;
    bool absolute = !libDir.empty() && libDir[0] == '/';
    paths.push_back((absolute ? libDir : exeDir + "/" + libDir) + "/" + kPluginFile);
    // The build tree keeps the plug-in in its root, away from the tool; a marker
    // file keeps an installed tool from looking in an unrelated directory.
    std::string buildRoot = exeDir + "/" KESTO_HOST_BUILD_ROOT;
    if (Exists(buildRoot + "/CMakeCache.txt")) {
        paths.push_back(buildRoot + "/" + kPluginFile);
    }
    paths.push_back(kPluginFile);
    return paths;
}

bool PluginLoader::Load(const std::string& explicitPath, HostLog& log) {
    if (!explicitPath.empty()) {
        // dlopen would search the system for a name without a slash; the user meant this file.
        return Open(explicitPath.find('/') == std::string::npos ? "./" + explicitPath : explicitPath, log);
    }
    std::vector<std::string> paths = SearchOrder(ExecutableDir());
    for (const std::string& path : paths) {
        bool bareName = path.find('/') == std::string::npos;
        if (bareName || Exists(path)) {
            return Open(bareName ? path : Canonical(path), log);
        }
        log.Trace("no plug-in at %s", path.c_str());
    }
    return false;
}

bool PluginLoader::Open(const std::string& path, HostLog& log) {
    handle_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle_ == nullptr) {
        const char* reason = dlerror();
        log.Error("cannot load the plug-in: %s", reason != nullptr ? reason : path.c_str());
        if (path.find('/') == std::string::npos) {
            log.Error("looked next to kesto-host, in the build tree and the install's library directory; "
                      "use --plugin PATH");
        }
        return false;
    }
    initialize_ = reinterpret_cast<KestoBearerInitializeFn>(dlsym(handle_, "KestoBearerInitialize"));
    if (initialize_ == nullptr) {
        log.Error("%s does not export KestoBearerInitialize", path.c_str());
        return false;
    }
    // The file the dynamic linker actually chose, when it searched.
    Dl_info info{};
    bool located = dladdr(reinterpret_cast<void*>(initialize_), &info) != 0 && info.dli_fname != nullptr;
    path_ = located ? info.dli_fname : path;
    log.Note("plug-in %s", path_.c_str());
    return true;
}
