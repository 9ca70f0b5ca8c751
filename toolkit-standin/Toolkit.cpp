#include "toolkit-standin/Toolkit.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace standin {

namespace {

// Bytes of the interface table that the bearer must leave alone keep this.
constexpr unsigned char kUntouched = 0xA5;

std::string Describe(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Describe(const char* format, ...) {
    char line[256];
    va_list args;
    va_start(args, format);
    std::vsnprintf(line, sizeof line, format, args);
    va_end(args);
    return line;
}

// A context with neither tag is no context of this toolkit: nobody can be told.
ToolkitConnection::SupportContext& Tagged(void* context, const char* slot) {
    auto* tagged = static_cast<ToolkitConnection::SupportContext*>(context);
    if (tagged == nullptr || (tagged->tag != Toolkit::kBearerTag && tagged->tag != Toolkit::kConnectionTag)) {
        std::fprintf(stderr, "%s was called with a context the toolkit never gave out\n", slot);
        std::abort();
    }
    return *tagged;
}

} // namespace

Toolkit::Toolkit(const Options& options)
    : thread_(std::this_thread::get_id()), listener_(options.listener), keepRecords_(options.keepRecords),
      context_{kBearerTag, this, nullptr} {
    support_.table = {AllocString,         FreeString, LogForBearer, GetConnectionParameter,
                      SetConnectionStatus, SetTimer,   Reserved6,    Reserved7,
                      options.connectionLog ? LogForConnection : nullptr};
    if (options.initialize == nullptr) {
        Problem("no entry point to load the bearer through");
    } else if (options.interfaceSize > sizeof interface_ || options.supportSize > sizeof support_) {
        Problem("table sizes beyond what the toolkit holds");
    } else {
        Load(options);
    }
}

Toolkit::~Toolkit() {
    Terminate();
    context_.tag = 0;
    for (auto& connection : connections_) {
        connection->context_.tag = 0;
    }
}

void Toolkit::Terminate() {
    for (auto& connection : connections_) {
        Destroy(*connection);
    }
    if (bearer_ != nullptr && interface_.table.bearerTerminate != nullptr) {
        interface_.table.bearerTerminate(bearer_);
    }
    bearer_ = nullptr;
}

void Toolkit::Load(const Options& options) {
    std::memset(&interface_, kUntouched, sizeof interface_);
    // The name lives in scratch memory that the toolkit reuses at once, so
    // the bearer has to keep its own copy.
    std::vector<char> name(options.name.begin(), options.name.end());
    name.push_back('\0');
    bearer_ = options.initialize(name.data(), Context(), &interface_.table, options.interfaceSize, &support_.table,
                                 options.supportSize);
    std::fill(name.begin(), name.end() - 1, '#');

    // Only whole slots within the size may be written, and never past the last slot.
    const size_t slot = sizeof(void*);
    const size_t filled =
        bearer_ == nullptr ? 0 : std::min(options.interfaceSize / slot * slot, sizeof(KestoBearerInterface));
    auto* bytes = reinterpret_cast<unsigned char*>(&interface_);
    if (std::any_of(bytes + filled, bytes + sizeof interface_, [](unsigned char b) { return b != kUntouched; })) {
        Problem(Describe("the bearer wrote beyond the slots that %zu bytes hold", options.interfaceSize));
    }
    std::memset(bytes + filled, 0, sizeof interface_ - filled);
}

void Toolkit::Problem(const std::string& problem) const {
    if (listener_ != nullptr) {
        listener_->Problem(problem);
    }
}

std::optional<std::string> Toolkit::BearerProperty(int property) {
    return strings_.TakeProperty(interface_.table.bearerGetProperty(bearer_, property));
}

std::optional<std::string> Toolkit::ConnectionProperty(const ToolkitConnection& connection, int property) {
    return strings_.TakeProperty(interface_.table.connectionGetProperty(connection.handle_, property));
}

ToolkitConnection& Toolkit::AddConnection(Fields fields) {
    connections_.push_back(std::make_unique<ToolkitConnection>(*this, std::move(fields)));
    return *connections_.back();
}

int Toolkit::CreateConnection(ToolkitConnection& connection) {
    return interface_.table.bearerCreateConnection(bearer_, connection.Context(), &connection.handle_);
}

ToolkitConnection& Toolkit::CreateConnection(Fields fields) {
    ToolkitConnection& connection = AddConnection(std::move(fields));
    if (const int result = CreateConnection(connection)) {
        Problem(Describe("bearerCreateConnection returned %d", result));
    }
    return connection;
}

int Toolkit::Establish(ToolkitConnection& connection) {
    const int result = interface_.table.connectionEstablish(connection.handle_);
    if (result != KestoBearerErrorNone) {
        return result;
    }
    intptr_t extra = 0;
    const int handleResult =
        interface_.table.connectionGetEventHandle(connection.handle_, &connection.eventHandle_, &extra);
    if (handleResult != KestoBearerErrorNone) {
        Fail(connection, "connectionGetEventHandle", handleResult);
    } else if (connection.eventHandle_ < 0) {
        Problem(Describe("connectionGetEventHandle gave no descriptor (%d)", connection.eventHandle_));
        Fail(connection, "connectionGetEventHandle", KestoBearerErrorFailed);
    } else {
        connection.driven_ = true;
    }
    return result;
}

void Toolkit::Destroy(ToolkitConnection& connection) {
    connection.driven_ = false;
    connection.deadline_.reset();
    if (connection.handle_ != nullptr && interface_.table.connectionDestroy != nullptr) {
        interface_.table.connectionDestroy(connection.handle_);
    }
    connection.handle_ = nullptr;
}

int Toolkit::Read(const ToolkitConnection& connection, uint8_t* buffer, uint32_t& length) {
    const uint32_t capacity = length;
    const int result = interface_.table.connectionRead(connection.handle_, buffer, &length);
    if (result == KestoBearerErrorNone && length > capacity) {
        Problem(Describe("connectionRead delivered %u bytes into %u", length, capacity));
        return KestoBearerErrorFailed;
    }
    if (result == KestoBearerErrorBufferTooSmall && length <= capacity) {
        Problem(Describe("connectionRead asked for %u bytes where %u were offered", length, capacity));
    }
    return result;
}

int Toolkit::Write(const ToolkitConnection& connection, const uint8_t* data, uint32_t& length) {
    const uint32_t offered = length;
    const int result = interface_.table.connectionWrite(connection.handle_, data, &length);
    if (result == KestoBearerErrorNone && length > offered) {
        Problem(Describe("connectionWrite took %u bytes of %u", length, offered));
        return KestoBearerErrorFailed;
    }
    return result;
}

Toolkit::Transfer Toolkit::Read(const ToolkitConnection& connection, uint32_t capacity) {
    Transfer transfer{0, capacity, std::vector<uint8_t>(capacity)};
    transfer.result = Read(connection, transfer.bytes.data(), transfer.length);
    transfer.bytes.resize(transfer.result == KestoBearerErrorNone ? std::min(transfer.length, capacity) : 0);
    return transfer;
}

Toolkit::Transfer Toolkit::Write(const ToolkitConnection& connection, std::vector<uint8_t> bytes) {
    uint32_t length = static_cast<uint32_t>(bytes.size());
    const int result = Write(connection, bytes.data(), length);
    // The toolkit reuses its buffer at once; the bearer must have taken a copy.
    std::fill(bytes.begin(), bytes.end(), 0xEE);
    return Transfer{result, length, {}};
}

void Toolkit::Fail(ToolkitConnection& connection, const char* call, int result) {
    connection.failure_ = result;
    connection.failedCall_ = call;
    connection.driven_ = false;
}

int Toolkit::PollTimeout(Milliseconds maxWait) const {
    Milliseconds wait = maxWait;
    const Clock::time_point now = Clock::now();
    for (const ToolkitConnection* connection : driven_) {
        if (connection->deadline_) {
            const auto untilDue = std::chrono::ceil<Milliseconds>(*connection->deadline_ - now);
            wait = std::min(wait, std::max(untilDue, Milliseconds(0)));
        }
    }
    return static_cast<int>(std::max(wait, Milliseconds(0)).count());
}

void Toolkit::RunOnce(Milliseconds maxWait, std::vector<pollfd>* also) {
    driven_.clear();
    polled_.clear();
    for (const auto& connection : connections_) {
        if (connection->driven_) {
            driven_.push_back(connection.get());
            polled_.push_back(pollfd{connection->eventHandle_, POLLIN, 0});
        }
    }
    if (also != nullptr) {
        polled_.insert(polled_.end(), also->begin(), also->end());
    }
    const int ready = poll(polled_.data(), polled_.size(), PollTimeout(maxWait));
    if (ready < 0 && errno != EINTR) {
        Problem(Describe("poll failed: %s", std::strerror(errno)));
    }
    for (size_t i = 0; also != nullptr && i < also->size(); ++i) {
        (*also)[i].revents = ready > 0 ? polled_[driven_.size() + i].revents : 0;
    }
    for (size_t i = 0; ready > 0 && i < driven_.size(); ++i) {
        if (polled_[i].revents != 0) {
            ServiceEventHandle(*driven_[i], polled_[i].revents);
        }
    }
    const Clock::time_point now = Clock::now();
    for (ToolkitConnection* connection : driven_) {
        if (connection->driven_ && connection->TakeDueTimer(now)) {
            ServiceTimer(*connection);
        }
    }
}

void Toolkit::ServiceEventHandle(ToolkitConnection& connection, short events) {
    if ((events & POLLNVAL) != 0 || (events & POLLIN) == 0) {
        Problem(Describe("the event handle %d failed (poll events 0x%x)", connection.eventHandle_, events));
        Fail(connection, "poll", KestoBearerErrorFailed);
        return;
    }
    uint32_t activity = 0;
    ++connection.activityCalls_;
    const int result = interface_.table.connectionGetActivity(connection.handle_, &activity);
    if (result != KestoBearerErrorNone) {
        Fail(connection, "connectionGetActivity", result);
    } else {
        connection.activity_ = activity;
    }
}

void Toolkit::ServiceTimer(ToolkitConnection& connection) {
    ++connection.timerExpiries_;
    const int result = interface_.table.connectionTimerExpired(connection.handle_);
    if (result != KestoBearerErrorNone) {
        Fail(connection, "connectionTimerExpired", result);
    }
}

void Toolkit::RunFor(Milliseconds duration) {
    const Clock::time_point end = Clock::now() + duration;
    for (Clock::time_point now = Clock::now(); now < end; now = Clock::now()) {
        RunOnce(std::chrono::ceil<Milliseconds>(end - now));
    }
}

// The owner of a context, told of a call made with the other kind or off the
// toolkit's thread; null then, and the call does nothing.
Toolkit* Toolkit::FromBearerContext(void* context, const char* slot) {
    ToolkitConnection::SupportContext& tagged = Tagged(context, slot);
    Toolkit* toolkit = tagged.toolkit;
    if (tagged.tag != kBearerTag) {
        toolkit->Problem(Describe("%s called with a connection context, not the bearer context", slot));
    } else if (std::this_thread::get_id() != toolkit->thread_) {
        toolkit->Problem(Describe("%s called off the toolkit's thread", slot));
    } else {
        return toolkit;
    }
    return nullptr;
}

ToolkitConnection* Toolkit::FromConnectionContext(void* context, const char* slot) {
    ToolkitConnection::SupportContext& tagged = Tagged(context, slot);
    if (tagged.tag != kConnectionTag) {
        tagged.toolkit->Problem(Describe("%s called with the bearer context, not a connection context", slot));
    } else if (std::this_thread::get_id() != tagged.toolkit->thread_) {
        tagged.toolkit->Problem(Describe("%s called off the toolkit's thread", slot));
    } else {
        return tagged.connection;
    }
    return nullptr;
}

char* Toolkit::AllocString(void* context, size_t size) {
    Toolkit* toolkit = FromBearerContext(context, "allocString");
    if (toolkit == nullptr || toolkit->failAllocations_) {
        return nullptr;
    }
    if (toolkit->Traced()) {
        toolkit->listener_->Called(Describe("allocString(%zu)", size));
    }
    return toolkit->strings_.Allocate(size);
}

void Toolkit::FreeString(void* context, char* text) {
    if (Toolkit* toolkit = FromBearerContext(context, "freeString")) {
        toolkit->strings_.Release(text);
    }
}

void Toolkit::LogForBearer(void* context, const char* text) {
    Toolkit* toolkit = FromBearerContext(context, "bearerLog");
    if (toolkit == nullptr) {
        return;
    }
    if (text == nullptr) {
        toolkit->Problem("bearerLog was given no text");
        return;
    }
    if (toolkit->keepRecords_) {
        toolkit->bearerLog_.push_back(text);
    }
    if (toolkit->listener_ != nullptr) {
        toolkit->listener_->PluginLine("bearer", text);
    }
}

// This toolkit's result word: 0 for a field it has, 1 for one it has not.
char* Toolkit::GetConnectionParameter(void* context, const char* name, unsigned char flag, int* result) {
    ToolkitConnection* connection = FromConnectionContext(context, "getConnectionParameter");
    if (connection == nullptr || name == nullptr) {
        return nullptr;
    }
    Toolkit& toolkit = *connection->context_.toolkit;
    const std::string* value = connection->Field(name);
    if (result != nullptr) {
        *result = value != nullptr ? 0 : 1;
    }
    if (toolkit.keepRecords_) {
        connection->lookups_.push_back({name, flag, result != nullptr, value != nullptr});
    }
    if (toolkit.Traced()) {
        toolkit.listener_->Called(Describe("getConnectionParameter(\"%s\", flag %u) = %s%s%s", name, flag,
                                           value ? "\"" : "", value ? value->c_str() : "absent", value ? "\"" : ""));
    }
    return value == nullptr ? nullptr : toolkit.strings_.IssueParameter(name, *value);
}

int Toolkit::SetConnectionStatus(void* context, int status) {
    ToolkitConnection* connection = FromConnectionContext(context, "setConnectionStatus");
    if (connection == nullptr) {
        return 0;
    }
    Toolkit& toolkit = *connection->context_.toolkit;
    if (status == KestoConnectionStatusConnected) {
        if (connection->connected_) {
            toolkit.Problem("status KestoConnectionStatusConnected was reported a second time");
        }
        connection->connected_ = true;
    }
    if (toolkit.keepRecords_) {
        connection->statuses_.push_back(status);
    }
    if (toolkit.listener_ != nullptr) {
        toolkit.listener_->Status(*connection, status);
    }
    return toolkit.statusAnswer_;
}

int Toolkit::SetTimer(void* context, int delayMs) {
    if (ToolkitConnection* connection = FromConnectionContext(context, "setTimer")) {
        Toolkit& toolkit = *connection->context_.toolkit;
        if (toolkit.Traced()) {
            toolkit.listener_->Called(Describe("setTimer(%d ms)", delayMs));
        }
        connection->RequestTimer(delayMs, toolkit.keepRecords_);
    }
    return 0;
}

// The reserved slots mean nothing this toolkit could answer; the bearer never calls them.
int Toolkit::Reserved6(void* context, intptr_t, intptr_t, int* result) {
    Tagged(context, "reserved6").toolkit->Problem("reserved6 called");
    if (result != nullptr) {
        *result = 0;
    }
    return KestoBearerErrorFailed;
}

intptr_t Toolkit::Reserved7(void* context, intptr_t, intptr_t) {
    Tagged(context, "reserved7").toolkit->Problem("reserved7 called");
    return 0;
}

void Toolkit::LogForConnection(void* context, const char* text) {
    ToolkitConnection* connection = FromConnectionContext(context, "connectionLog");
    if (connection == nullptr) {
        return;
    }
    Toolkit& toolkit = *connection->context_.toolkit;
    if (text == nullptr) {
        toolkit.Problem("connectionLog was given no text");
        return;
    }
    if (toolkit.keepRecords_) {
        connection->log_.push_back(text);
    }
    if (toolkit.listener_ != nullptr) {
        toolkit.listener_->PluginLine("connection", text);
    }
}

} // namespace standin
