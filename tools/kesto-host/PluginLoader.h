#pragma once

#include <string>
#include <vector>

#include "kesto/KestoBearer.h"
#include "kesto-host/HostLog.h"

// Opens libkestobearer-USBAAP.so the way a toolkit does (dlopen, then the one
// exported function) and keeps it loaded for the loader's lifetime.
class PluginLoader {
public:
    PluginLoader() = default;
    ~PluginLoader();
    PluginLoader(const PluginLoader&) = delete;
    PluginLoader& operator=(const PluginLoader&) = delete;

    // Opens explicitPath when given, otherwise the first plug-in found along
    // SearchOrder. False, with the reasons logged, when none can be used.
    bool Load(const std::string& explicitPath, HostLog& log);
    KestoBearerInitializeFn Initialize() const { return initialize_; }
    const std::string& Path() const { return path_; }

private:
    // Candidate paths for an executable in exeDir, best first; the last entry is
    // the bare file name, left to the dynamic linker's own search.
    static std::vector<std::string> SearchOrder(const std::string& exeDir);
    bool Open(const std::string& path, HostLog& log);

    void* handle_ = nullptr;
    KestoBearerInitializeFn initialize_ = nullptr;
    std::string path_;
};
