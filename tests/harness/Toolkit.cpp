#include "harness/Toolkit.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <gtest/gtest.h>

namespace {
using Clock = ToolkitConnection::Clock;

// Bytes of the interface table that the bearer must leave alone keep this.
constexpr unsigned char kUntouched = 0xA5;
// The loop re-checks its caller's condition at least this often, so that a
// condition changed by another thread (a phone) is seen soon.
constexpr std::chrono::milliseconds kLongestPass(10);
} // namespace

Toolkit* Toolkit::current_ = nullptr;

Toolkit::Toolkit(const Options& options) : thread_(std::this_thread::get_id()) {
    if (current_ != nullptr) {
        ADD_FAILURE() << "a second toolkit was made while one is alive";
    }
    current_ = this;
    support_.table = {AllocString,         FreeString, LogForBearer, GetConnectionParameter,
                      SetConnectionStatus, SetTimer,   Reserved6,    Reserved7,
                      options.connectionLog ? LogForConnection : nullptr};
    if (options.initialize == nullptr) {
        ADD_FAILURE() << "no entry point to load the bearer through";
        return;
    }
    if (options.interfaceSize > sizeof interface_ || options.supportSize > sizeof support_) {
        ADD_FAILURE() << "table sizes beyond what the toolkit holds";
        return;
    }
    Load(options);
}

Toolkit::~Toolkit() {
    Terminate();
    for (const std::string& problem : strings_.Problems()) {
        ADD_FAILURE() << problem;
    }
    current_ = nullptr;
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
    bearer_ = options.initialize(name.data(), this, &interface_.table, options.interfaceSize, &support_.table,
                                 options.supportSize);
    std::fill(name.begin(), name.end() - 1, '#');

    // Only whole slots within the size may be written, and never past the last slot.
    const size_t slot = sizeof(void*);
    const size_t filled =
        bearer_ == nullptr ? 0 : std::min(options.interfaceSize / slot * slot, sizeof(KestoBearerInterface));
    auto* bytes = reinterpret_cast<unsigned char*>(&interface_);
    if (std::any_of(bytes + filled, bytes + sizeof interface_, [](unsigned char b) { return b != kUntouched; })) {
        ADD_FAILURE() << "the bearer wrote beyond the slots that " << options.interfaceSize << " bytes hold";
    }
    std::memset(bytes + filled, 0, sizeof interface_ - filled);
}

std::optional<std::string> Toolkit::BearerProperty(int property) {
    return strings_.TakeProperty(interface_.table.bearerGetProperty(bearer_, property));
}

std::optional<std::string> Toolkit::ConnectionProperty(const ToolkitConnection& connection, int property) {
    return strings_.TakeProperty(interface_.table.connectionGetProperty(connection.handle_, property));
}

ToolkitConnection& Toolkit::AddConnection(Fields fields) {
    connections_.push_back(std::make_unique<ToolkitConnection>(std::move(fields)));
    return *connections_.back();
}

ToolkitConnection& Toolkit::CreateConnection(Fields fields) {
    ToolkitConnection& connection = AddConnection(std::move(fields));
    EXPECT_EQ(KestoBearerErrorNone,
              interface_.table.bearerCreateConnection(bearer_, connection.Context(), &connection.handle_))
        << "bearerCreateConnection";
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
        Fail(connection, handleResult);
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

Toolkit::Transfer Toolkit::Read(const ToolkitConnection& connection, uint32_t capacity) {
    Transfer transfer{0, capacity, std::vector<uint8_t>(capacity)};
    transfer.result = interface_.table.connectionRead(connection.handle_, transfer.bytes.data(), &transfer.length);
    transfer.bytes.resize(transfer.result == KestoBearerErrorNone ? std::min(transfer.length, capacity) : 0);
    return transfer;
}

Toolkit::Transfer Toolkit::Write(const ToolkitConnection& connection, std::vector<uint8_t> bytes) {
    uint32_t length = static_cast<uint32_t>(bytes.size());
    const int result = interface_.table.connectionWrite(connection.handle_, bytes.data(), &length);
    // The toolkit reuses its buffer at once; the bearer must have taken a copy.
    std::fill(bytes.begin(), bytes.end(), 0xEE);
    return Transfer{result, length, {}};
}

void Toolkit::Fail(ToolkitConnection& connection, int result) {
    connection.failure_ = result;
    connection.driven_ = false;
}

std::vector<ToolkitConnection*> Toolkit::Driven() const {
    std::vector<ToolkitConnection*> driven;
    for (const auto& connection : connections_) {
        if (connection->driven_) {
            driven.push_back(connection.get());
        }
    }
    return driven;
}

int Toolkit::PollTimeout(const std::vector<ToolkitConnection*>& driven, Milliseconds maxWait) const {
    Milliseconds wait = maxWait;
    const Clock::time_point now = Clock::now();
    for (const ToolkitConnection* connection : driven) {
        if (connection->deadline_) {
            const auto untilDue = std::chrono::ceil<Milliseconds>(*connection->deadline_ - now);
            wait = std::min(wait, std::max(untilDue, Milliseconds(0)));
        }
    }
    return static_cast<int>(std::max(wait, Milliseconds(0)).count());
}

void Toolkit::RunOnce(Milliseconds maxWait) {
    const std::vector<ToolkitConnection*> driven = Driven();
    std::vector<pollfd> handles;
    for (const ToolkitConnection* connection : driven) {
        handles.push_back(pollfd{connection->eventHandle_, POLLIN, 0});
    }
    const int ready = poll(handles.data(), handles.size(), PollTimeout(driven, maxWait));
    if (ready < 0 && errno != EINTR) {
        ADD_FAILURE() << "poll on the event handles failed: " << std::strerror(errno);
    }
    for (size_t i = 0; ready > 0 && i < driven.size(); ++i) {
        if (handles[i].revents != 0) {
            ServiceEventHandle(*driven[i], handles[i].revents);
        }
    }
    const Clock::time_point now = Clock::now();
    for (ToolkitConnection* connection : driven) {
        if (connection->driven_ && connection->TakeDueTimer(now)) {
            ServiceTimer(*connection);
        }
    }
}

void Toolkit::ServiceEventHandle(ToolkitConnection& connection, short events) {
    if ((events & POLLNVAL) != 0) {
        ADD_FAILURE() << "event handle " << connection.eventHandle_ << " is not an open descriptor";
        connection.driven_ = false;
        return;
    }
    uint32_t activity = 0;
    ++connection.activityCalls_;
    const int result = interface_.table.connectionGetActivity(connection.handle_, &activity);
    if (result != KestoBearerErrorNone) {
        Fail(connection, result);
    } else {
        connection.activity_ = activity;
    }
}

void Toolkit::ServiceTimer(ToolkitConnection& connection) {
    ++connection.timerExpiries_;
    const int result = interface_.table.connectionTimerExpired(connection.handle_);
    if (result != KestoBearerErrorNone) {
        Fail(connection, result);
    }
}

bool Toolkit::RunUntil(const std::function<bool()>& done, Milliseconds timeout, const char* file, int line) {
    const Clock::time_point end = Clock::now() + timeout;
    while (!done()) {
        const Clock::time_point now = Clock::now();
        if (now >= end) {
            ADD_FAILURE_AT(file, line) << "the toolkit waited " << timeout.count() << " ms in vain";
            return false;
        }
        RunOnce(std::min(kLongestPass, std::chrono::ceil<Milliseconds>(end - now)));
    }
    return true;
}

void Toolkit::RunFor(Milliseconds duration) {
    const Clock::time_point end = Clock::now() + duration;
    for (Clock::time_point now = Clock::now(); now < end; now = Clock::now()) {
        RunOnce(std::chrono::ceil<Milliseconds>(end - now));
    }
}

Toolkit* Toolkit::OnToolkitThread(const char* slot) {
    if (current_ == nullptr) {
        ADD_FAILURE() << slot << " called with no toolkit alive";
    } else if (std::this_thread::get_id() != current_->thread_) {
        ADD_FAILURE() << slot << " called off the toolkit's thread";
    } else {
        return current_;
    }
    return nullptr;
}

Toolkit* Toolkit::FromBearerContext(void* context, const char* slot) {
    Toolkit* toolkit = OnToolkitThread(slot);
    if (toolkit != nullptr && context != toolkit) {
        ADD_FAILURE() << slot << " called with " << context << ", not the bearer context";
        return nullptr;
    }
    return toolkit;
}

ToolkitConnection* Toolkit::FromConnectionContext(void* context, const char* slot) {
    Toolkit* toolkit = OnToolkitThread(slot);
    if (toolkit == nullptr) {
        return nullptr;
    }
    for (const auto& connection : toolkit->connections_) {
        if (connection->Context() == context) {
            return connection.get();
        }
    }
    ADD_FAILURE() << slot << " called with " << context << ", not a connection context";
    return nullptr;
}

char* Toolkit::AllocString(void* context, size_t size) {
    Toolkit* toolkit = FromBearerContext(context, "allocString");
    if (toolkit == nullptr || toolkit->failAllocations_) {
        return nullptr;
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
    if (toolkit != nullptr && text != nullptr) {
        toolkit->bearerLog_.push_back(text);
    }
}

char* Toolkit::GetConnectionParameter(void* context, const char* name, unsigned char flag, int* result) {
    ToolkitConnection* connection = FromConnectionContext(context, "getConnectionParameter");
    if (connection == nullptr || name == nullptr) {
        return nullptr;
    }
    const std::string* value = connection->Field(name);
    connection->lookups_.push_back({name, flag, result != nullptr, value != nullptr});
    return value == nullptr ? nullptr : current_->strings_.IssueParameter(name, *value);
}

int Toolkit::SetConnectionStatus(void* context, int status) {
    if (ToolkitConnection* connection = FromConnectionContext(context, "setConnectionStatus")) {
        connection->statuses_.push_back(status);
    }
    return current_ == nullptr ? 0 : current_->statusAnswer_;
}

int Toolkit::SetTimer(void* context, int delayMs) {
    if (ToolkitConnection* connection = FromConnectionContext(context, "setTimer")) {
        connection->RequestTimer(delayMs);
    }
    return 0;
}

// The reserved slots mean nothing this toolkit could answer; the bearer never calls them.
int Toolkit::Reserved6(void*, intptr_t, intptr_t, int*) {
    ADD_FAILURE() << "reserved6 called";
    return 0;
}

intptr_t Toolkit::Reserved7(void*, intptr_t, intptr_t) {
    ADD_FAILURE() << "reserved7 called";
    return 0;
}

void Toolkit::LogForConnection(void* context, const char* text) {
    ToolkitConnection* connection = FromConnectionContext(context, "connectionLog");
    if (connection != nullptr && text != nullptr) {
        connection->log_.push_back(text);
    }
}
