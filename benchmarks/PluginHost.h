#pragma once

#include "BenchHost.h"

#include "toolkit-standin/Toolkit.h"

#include <optional>
#include <string>
#include <vector>

// The toolkit stand-in around the shipped plug-in, driving one connection,
// loaded as a toolkit loads it.
class PluginHost : public BenchHost, private standin::ToolkitListener {
public:
    explicit PluginHost(const std::string& pluginPath);
    ~PluginHost() override;
    PluginHost(const PluginHost&) = delete;
    PluginHost& operator=(const PluginHost&) = delete;

    bool Connect(int bus, int address, int timeoutMs) override;
    bool Pump(int maxMs) override;
    bool TryWrite(const uint8_t* data, size_t length) override;
    void Disconnect() override;
    uint64_t Wakeups() const override { return wakeups_; }
    std::string Fault() const override { return fault_; }

    // The plug-in's entry point, to find where its code lies; null until loaded.
    const void* CodeAddress() const { return reinterpret_cast<const void*>(initialize_); }
    uint64_t TimerRequests() const { return connection_ != nullptr ? connection_->TimerRequestCount() : 0; }

private:
    bool Fail(const std::string& what, int result);
    void ReadAll();
    void Problem(const std::string& problem) override;
    void PluginLine(const char* source, const char* text) override;

    KestoBearerInitializeFn initialize_ = nullptr;
    std::optional<standin::Toolkit> toolkit_;
    standin::ToolkitConnection* connection_ = nullptr;
    std::vector<uint8_t> readBuffer_;
    std::vector<std::string> log_;
    uint64_t wakeups_ = 0;
    std::string fault_;
};
