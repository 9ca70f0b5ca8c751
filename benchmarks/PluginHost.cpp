#include "PluginHost.h"

#include <dlfcn.h>
#include <poll.h>

#include <cstdlib>
#include <cstring>

namespace {

// The largest block the plug-in can hand over at once, with room to spare.
constexpr size_t kReadCapacity = 1 << 17;
// Log lines kept to explain a fault.
constexpr size_t kLogLines = 20;

} // namespace

PluginHost::PluginHost(const std::string& pluginPath) : readBuffer_(kReadCapacity)
{
    // Kept loaded for the process: a toolkit does not unload its bearers.
    void* library = dlopen(pluginPath.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        fault_ = dlerror();
        return;
    }
    initialize_ = reinterpret_cast<KestoBearerInitializeFn>(dlsym(library, "KestoBearerInitialize"));
    if (initialize_ == nullptr) {
        fault_ = "no KestoBearerInitialize in the plug-in";
        return;
    }
    support_.allocString = &PluginHost::AllocString;
    support_.freeString = &PluginHost::FreeString;
    support_.bearerLog = &PluginHost::LogForBearer;
    support_.getConnectionParameter = &PluginHost::GetConnectionParameter;
    support_.setConnectionStatus = &PluginHost::SetConnectionStatus;
    support_.setTimer = &PluginHost::SetTimer;
    support_.reserved6 = &PluginHost::Reserved6;
    support_.reserved7 = &PluginHost::Reserved7;
    support_.connectionLog = &PluginHost::LogForConnection;
    bearer_ = initialize_("USBAAP", this, &interface_, sizeof interface_, &support_, sizeof support_);
    if (bearer_ == nullptr)
        fault_ = "KestoBearerInitialize returned null";
}

PluginHost::~PluginHost()
{
    Disconnect();
    if (bearer_ != nullptr)
        interface_.bearerTerminate(bearer_);
}

bool PluginHost::Fail(const std::string& what, int result)
{
    if (fault_.empty()) {
        fault_ = what + " returned " + std::to_string(result);
        for (const std::string& line : log_)
            fault_ += "\n    plug-in: " + line;
    }
    return false;
}

bool PluginHost::Connect(int bus, int address, int timeoutMs)
{
    if (bearer_ == nullptr)
        return false;
    bus_ = std::to_string(bus);
    dev_ = std::to_string(address);
    // The connection context is this host: one connection at a time.
    if (int result = interface_.bearerCreateConnection(bearer_, this, &connection_))
        return Fail("bearerCreateConnection", result);
    if (int result = interface_.connectionEstablish(connection_))
        return Fail("connectionEstablish", result);
    intptr_t extra = 0;
    if (int result = interface_.connectionGetEventHandle(connection_, &eventHandle_, &extra))
        return Fail("connectionGetEventHandle", result);
    auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!connected_ && Clock::now() < deadline)
        if (!Pump(10))
            return false;
    if (!connected_)
        fault_ = "not connected within " + std::to_string(timeoutMs) + " ms";
    return connected_;
}

bool PluginHost::Pump(int maxMs)
{
    if (!fault_.empty() || connection_ == nullptr)
        return false;
    int wait = maxMs;
    if (deadline_) {
        auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline_ - Clock::now()).count();
        wait = static_cast<int>(std::max<long long>(0, std::min<long long>(wait, left)));
    }
    pollfd watched{eventHandle_, POLLIN, 0};
    int ready = poll(&watched, 1, wait);
    if (ready > 0) {
        ++wakeups_;
        uint32_t activity = 0;
        if (int result = interface_.connectionGetActivity(connection_, &activity))
            return Fail("connectionGetActivity", result);
        if (activity & KestoBearerActivityReadable)
            ReadAll();
    }
    if (deadline_ && Clock::now() >= *deadline_) {
        deadline_.reset();
        ++wakeups_;
        if (int result = interface_.connectionTimerExpired(connection_))
            return Fail("connectionTimerExpired", result);
        // Completions the timer's pass took in are not signalled again.
        ReadAll();
    }
    return fault_.empty();
}

// Data already queued does not make the handle readable again: take it all.
void PluginHost::ReadAll()
{
    for (;;) {
        uint32_t length = static_cast<uint32_t>(readBuffer_.size());
        int result = interface_.connectionRead(connection_, readBuffer_.data(), &length);
        if (result != 0) {
            Fail("connectionRead", result);
            return;
        }
        if (length == 0)
            return;
        Deliver(readBuffer_.data(), length);
    }
}

bool PluginHost::TryWrite(const uint8_t* data, size_t length)
{
    if (!fault_.empty() || connection_ == nullptr)
        return false;
    uint32_t taken = static_cast<uint32_t>(length);
    if (int result = interface_.connectionWrite(connection_, data, &taken))
        return Fail("connectionWrite", result);
    return taken != 0;
}

void PluginHost::Disconnect()
{
    if (connection_ != nullptr)
        interface_.connectionDestroy(connection_);
    connection_ = nullptr;
    eventHandle_ = -1;
    deadline_.reset();
    connected_ = false;
}

char* PluginHost::AllocString(void*, size_t size)
{
    return static_cast<char*>(std::malloc(size));
}

void PluginHost::FreeString(void*, char* text)
{
    std::free(text);
}

void PluginHost::LogForBearer(void* context, const char* text)
{
    LogForConnection(context, text);
}

char* PluginHost::GetConnectionParameter(void* context, const char* name, unsigned char, int* result)
{
    auto* host = static_cast<PluginHost*>(context);
    const std::string* value = std::strcmp(name, "bus") == 0 ? &host->bus_
                               : std::strcmp(name, "dev") == 0 ? &host->dev_
                                                               : nullptr;
    if (result != nullptr)
        *result = 0;
    return value != nullptr ? strdup(value->c_str()) : nullptr;
}

int PluginHost::SetConnectionStatus(void* context, int status)
{
    if (status == KestoConnectionStatusConnected)
        static_cast<PluginHost*>(context)->connected_ = true;
    return 0;
}

int PluginHost::SetTimer(void* context, int delayMs)
{
    auto* host = static_cast<PluginHost*>(context);
    ++host->timerRequests_;
    host->deadline_ = Clock::now() + std::chrono::milliseconds(delayMs);
    return 0;
}

int PluginHost::Reserved6(void*, intptr_t, intptr_t, int* result)
{
    if (result != nullptr)
        *result = 0;
    return 0;
}

intptr_t PluginHost::Reserved7(void*, intptr_t, intptr_t)
{
    return 0;
}

void PluginHost::LogForConnection(void* context, const char* text)
{
    auto* host = static_cast<PluginHost*>(context);
    if (host->log_.size() == kLogLines)
        host->log_.erase(host->log_.begin());
    host->log_.emplace_back(text);
}
