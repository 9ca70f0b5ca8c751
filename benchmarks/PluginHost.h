#pragma once

#include "BenchHost.h"

#include "kesto/KestoBearer.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

// A lean toolkit around the shipped plug-in: it loads the shared object, talks
// to it only through its tables and drives one connection with a poll loop on
// the event handle plus the one timer the plug-in may ask for.
class PluginHost : public BenchHost {
public:
    using Clock = std::chrono::steady_clock;

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
    uint64_t TimerRequests() const { return timerRequests_; }

private:
    bool Fail(const std::string& what, int result);
    void ReadAll();

    static char* AllocString(void* context, size_t size);
    static void FreeString(void* context, char* text);
    static void LogForBearer(void* context, const char* text);
    static char* GetConnectionParameter(void* context, const char* name, unsigned char flag, int* result);
    static int SetConnectionStatus(void* context, int status);
    static int SetTimer(void* context, int delayMs);
    static int Reserved6(void* context, intptr_t a, intptr_t b, int* result);
    static intptr_t Reserved7(void* context, intptr_t a, intptr_t b);
    static void LogForConnection(void* context, const char* text);

    KestoBearerInitializeFn initialize_ = nullptr;
    KestoBearerInterface interface_{};
    KestoBearerSupportAPI support_{};
    void* bearer_ = nullptr;
    void* connection_ = nullptr;
    int eventHandle_ = -1;
    std::string bus_;
    std::string dev_;
    bool connected_ = false;
    std::optional<Clock::time_point> deadline_;
    std::vector<uint8_t> readBuffer_;
    std::vector<std::string> log_;
    uint64_t wakeups_ = 0;
    uint64_t timerRequests_ = 0;
    std::string fault_;
};
