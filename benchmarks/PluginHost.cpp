#include "PluginHost.h"

#include <dlfcn.h>

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
    standin::Toolkit::Options options{initialize_};
    options.listener = this;
    options.keepRecords = false;
    toolkit_.emplace(options);
    if (toolkit_->Bearer() == nullptr)
        fault_ = "KestoBearerInitialize returned null";
}

PluginHost::~PluginHost()
{
    // The toolkit goes before the log its calls may still write to.
    toolkit_.reset();
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
    if (!fault_.empty())
        return false;
    connection_ = &toolkit_->AddConnection({{"bus", std::to_string(bus)}, {"dev", std::to_string(address)}});
    if (int result = toolkit_->CreateConnection(*connection_))
        return Fail("bearerCreateConnection", result);
    if (int result = toolkit_->Establish(*connection_))
        return Fail("connectionEstablish", result);
    auto deadline = standin::Toolkit::Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!connection_->Connected() && standin::Toolkit::Clock::now() < deadline)
        if (!Pump(10))
            return false;
    if (!connection_->Connected())
        fault_ = "not connected within " + std::to_string(timeoutMs) + " ms";
    return connection_->Connected();
}

bool PluginHost::Pump(int maxMs)
{
    if (!fault_.empty() || connection_ == nullptr)
        return false;
    const int activityCalls = connection_->ActivityCalls();
    const int timers = connection_->TimerExpiries();
    toolkit_->RunOnce(std::chrono::milliseconds(maxMs));
    wakeups_ += connection_->ActivityCalls() - activityCalls + connection_->TimerExpiries() - timers;
    if (connection_->Failure() != 0)
        return Fail(connection_->FailedCall(), connection_->Failure());
    // Completions a timer's pass took in are not signalled again.
    if (connection_->TimerExpiries() != timers ||
        (connection_->ActivityCalls() != activityCalls && (connection_->Activity() & KestoBearerActivityReadable)))
        ReadAll();
    return fault_.empty();
}

// Data already queued does not make the handle readable again: take it all.
void PluginHost::ReadAll()
{
    for (;;) {
        uint32_t length = static_cast<uint32_t>(readBuffer_.size());
        int result = toolkit_->Read(*connection_, readBuffer_.data(), length);
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
    if (int result = toolkit_->Write(*connection_, data, taken))
        return Fail("connectionWrite", result);
    return taken != 0;
}

void PluginHost::Disconnect()
{
    if (connection_ != nullptr)
        toolkit_->Destroy(*connection_);
    connection_ = nullptr;
}

void PluginHost::Problem(const std::string& problem)
{
    if (fault_.empty())
        fault_ = "the plug-in broke the contract: " + problem;
}

void PluginHost::PluginLine(const char*, const char* text)
{
    if (log_.size() == kLogLines)
        log_.erase(log_.begin());
    log_.emplace_back(text);
}
