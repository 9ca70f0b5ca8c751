#include "kesto-host/ToolkitSession.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kesto-host/DeviceLister.h"

namespace {

constexpr uint32_t kBearerTag = 0x4B425243;     // "KBRC"
constexpr uint32_t kConnectionTag = 0x4B434E43; // "KCNC"

// What the toolkit calls this bearer; the plug-in answers it as property 0.
constexpr const char* kBearerName = "USBAAP";

const char* StatusName(int status) {
    switch (status) {
    case KestoConnectionStatusConnecting:
        return "KestoConnectionStatusConnecting";
    case KestoConnectionStatusConnected:
        return "KestoConnectionStatusConnected";
    default:
        return "unknown status";
    }
}

} // namespace

ToolkitSession::ToolkitSession(KestoBearerInitializeFn initialize, CommandFields fields, HostLog& log,
                               StringLedger& ledger)
    : initialize_(initialize), fields_(std::move(fields)), log_(log), ledger_(ledger),
      thread_(std::this_thread::get_id()), bearerContext_{kBearerTag, this}, connectionContext_{kConnectionTag, this} {}

ToolkitSession::~ToolkitSession() { Close(); }

const char* ToolkitSession::ResultName(int code) {
    switch (code) {
    case KestoBearerErrorNone:
        return "KestoBearerErrorNone";
    case KestoBearerErrorInvalidParameter:
        return "KestoBearerErrorInvalidParameter";
    case KestoBearerErrorFailed:
        return "KestoBearerErrorFailed";
    case KestoBearerErrorCannotOpenDevice:
        return "KestoBearerErrorCannotOpenDevice";
    case KestoBearerErrorBufferTooSmall:
        return "KestoBearerErrorBufferTooSmall";
    default:
        return "unknown result code";
    }
}

void ToolkitSession::ReportFailure(const char* call, int code) const {
    log_.Error("%s failed: %s (%d)", call, ResultName(code), code);
    std::string last = LastPluginLine();
    if (!last.empty()) {
        log_.Error("last plug-in log line: %s", last.c_str());
    }
}

void ToolkitSession::ReportStage() const {
    if (connection_ == nullptr) {
        return;
    }
    ConnectStage::Stage stage = stage_.Current();
    log_.Error("stopped while %s", ConnectStage::Step(stage));
    log_.Error("usual cause: %s", ConnectStage::UsualCause(stage));
}

std::string ToolkitSession::LastPluginLine() const {
    std::string line = log_.LastPluginLine();
    const char* quoted = std::strstr(line.c_str(), "libusb error ");
    if (quoted != nullptr) {
        char* end = nullptr;
        long code = std::strtol(quoted + std::strlen("libusb error "), &end, 10);
        if (end != quoted + std::strlen("libusb error ") && code < 0 && code > -100) {
            line += " [" + DeviceLister::LibusbResult(static_cast<int>(code)) + "]";
        }
    }
    return line;
}

bool ToolkitSession::Start() {
    if (!CreateBearer()) {
        return false;
    }
    DescribeBearer();
    int rc = table_.bearerCreateConnection(bearer_, &connectionContext_, &connection_);
    if (rc != KestoBearerErrorNone || connection_ == nullptr) {
        ReportFailure("bearerCreateConnection", rc != KestoBearerErrorNone ? rc : KestoBearerErrorFailed);
        connection_ = nullptr;
        return false;
    }
    log_.Trace("connectionEstablish");
    rc = table_.connectionEstablish(connection_);
    stage_.EstablishReturned(rc);
    if (rc != KestoBearerErrorNone) {
        ReportFailure("connectionEstablish", rc);
        return false;
    }
    std::string transport = TakeProperty(table_.connectionGetProperty(connection_, KestoConnectionPropertyTransport));
    log_.Trace("connectionGetProperty(%d) = %s", KestoConnectionPropertyTransport, transport.c_str());
    return true;
}

bool ToolkitSession::BearerVersion(std::string& version) {
    if (bearer_ == nullptr && !CreateBearer()) {
        return false;
    }
    version = TakeProperty(table_.bearerGetProperty(bearer_, KestoBearerPropertyVersion));
    return true;
}

bool ToolkitSession::CreateBearer() {
    KestoBearerSupportAPI support{AllocString,  FreeString, BearerLog, GetConnectionParameter, SetConnectionStatus,
                                  SetTimer,     Reserved6,  Reserved7, ConnectionLog};
    log_.Trace("KestoBearerInitialize(\"%s\", table sizes %zu and %zu)", kBearerName, sizeof table_, sizeof support);
    bearer_ = initialize_(kBearerName, &bearerContext_, &table_, sizeof table_, &support, sizeof support);
    if (bearer_ == nullptr) {
        log_.Error("KestoBearerInitialize returned no bearer");
        return false;
    }
    return TableComplete();
}

bool ToolkitSession::TableComplete() {
    const struct {
        const char* name;
        bool filled;
    } slots[] = {
        {"bearerTerminate", table_.bearerTerminate != nullptr},
        {"bearerCreateConnection", table_.bearerCreateConnection != nullptr},
        {"bearerGetProperty", table_.bearerGetProperty != nullptr},
        {"connectionEstablish", table_.connectionEstablish != nullptr},
        {"connectionDestroy", table_.connectionDestroy != nullptr},
        {"connectionRead", table_.connectionRead != nullptr},
        {"connectionWrite", table_.connectionWrite != nullptr},
        {"connectionGetEventHandle", table_.connectionGetEventHandle != nullptr},
        {"connectionGetActivity", table_.connectionGetActivity != nullptr},
        {"connectionGetProperty", table_.connectionGetProperty != nullptr},
        {"connectionTimerExpired", table_.connectionTimerExpired != nullptr},
    };
    bool complete = true;
    for (const auto& slot : slots) {
        if (!slot.filled) {
            log_.Error("the plug-in left %s empty in its interface table", slot.name);
            complete = false;
        }
    }
    if (!complete && table_.bearerTerminate != nullptr) {
        table_.bearerTerminate(bearer_);
    }
    if (!complete) {
        bearer_ = nullptr;
    }
    return complete;
}

void ToolkitSession::DescribeBearer() {
    std::string title = TakeProperty(table_.bearerGetProperty(bearer_, KestoBearerPropertyTitle));
    std::string version = TakeProperty(table_.bearerGetProperty(bearer_, KestoBearerPropertyVersion));
    std::string name = TakeProperty(table_.bearerGetProperty(bearer_, KestoBearerPropertyName));
    std::string description = TakeProperty(table_.bearerGetProperty(bearer_, KestoBearerPropertyDescription));
    log_.Note("bearer \"%s\": %s %s", name.c_str(), title.c_str(), version.c_str());
    log_.Trace("bearer description: %s", description.c_str());
}

// A property text is the toolkit's to free; a copy is kept and the buffer released.
std::string ToolkitSession::TakeProperty(char* text) {
    if (text == nullptr) {
        return "(none)";
    }
    std::string copy = text;
    if (!ledger_.Release(text)) {
        Violation("a property text was not allocated with allocString");
    }
    return copy;
}

void ToolkitSession::Close() {
    if (connection_ != nullptr) {
        log_.Trace("connectionDestroy");
        table_.connectionDestroy(connection_);
        connection_ = nullptr;
    }
    if (bearer_ != nullptr) {
        log_.Trace("bearerTerminate");
        table_.bearerTerminate(bearer_);
        bearer_ = nullptr;
    }
}

int ToolkitSession::EventHandle(int& handle) {
    intptr_t extra = -1;
    handle = -1;
    return table_.connectionGetEventHandle(connection_, &handle, &extra);
}

int ToolkitSession::GetActivity(uint32_t& activity) {
    activity = 0;
    return table_.connectionGetActivity(connection_, &activity);
}

int ToolkitSession::TimerExpired() {
    timerDeadline_.reset();
    log_.Trace("connectionTimerExpired");
    int rc = table_.connectionTimerExpired(connection_);
    stage_.TimerServed(timerDeadline_.has_value());
    return rc;
}

int ToolkitSession::Read(std::vector<uint8_t>& buffer, uint32_t& length) {
    length = static_cast<uint32_t>(buffer.size());
    int rc = table_.connectionRead(connection_, buffer.data(), &length);
    if (rc == KestoBearerErrorBufferTooSmall && length > buffer.size()) {
        log_.Trace("connectionRead needs %u bytes: the read buffer grows from %zu", length, buffer.size());
        buffer.resize(length);
        length = static_cast<uint32_t>(buffer.size());
        rc = table_.connectionRead(connection_, buffer.data(), &length);
    }
    if (rc == KestoBearerErrorBufferTooSmall) {
        Violation("connectionRead answered KestoBearerErrorBufferTooSmall for a block that fits");
    } else if (rc == KestoBearerErrorNone && length > buffer.size()) {
        Violation("connectionRead delivered more bytes than the buffer holds");
        return KestoBearerErrorFailed;
    }
    return rc;
}

int ToolkitSession::Write(const uint8_t* data, uint32_t& length) {
    uint32_t offered = length;
    int rc = table_.connectionWrite(connection_, data, &length);
    if (rc == KestoBearerErrorNone && length > offered) {
        Violation("connectionWrite took more bytes than it was offered");
        return KestoBearerErrorFailed;
    }
    return rc;
}

void ToolkitSession::CheckThread(const char* function) {
    if (std::this_thread::get_id() != thread_ && !wrongThreadReported_) {
        wrongThreadReported_ = true;
        log_.Error("%s was called on a thread other than the toolkit's", function);
        ++violations_;
    }
}

void ToolkitSession::Violation(const char* what) {
    log_.Error("plug-in contract broken: %s", what);
    ++violations_;
}

ToolkitSession& ToolkitSession::From(void* context, uint32_t tag, const char* function) {
    auto* c = static_cast<Context*>(context);
    if (c == nullptr || (c->tag != kBearerTag && c->tag != kConnectionTag)) {
        std::fprintf(stderr, "kesto-host: %s was called with a context this toolkit never gave out\n", function);
        std::abort();
    }
    if (c->tag != tag) {
        c->session->log_.Error("%s was called with the %s context", function,
                               c->tag == kBearerTag ? "bearer" : "connection");
        ++c->session->violations_;
    }
    return *c->session;
}

char* ToolkitSession::AllocString(void* bearerContext, size_t size) {
    ToolkitSession& self = From(bearerContext, kBearerTag, "allocString");
    self.log_.Trace("allocString(%zu)", size);
    return self.ledger_.Allocate(size);
}

void ToolkitSession::FreeString(void* bearerContext, char* string) {
    ToolkitSession& self = From(bearerContext, kBearerTag, "freeString");
    if (!self.ledger_.HandBack(string)) {
        self.log_.Error("freeString was given %p, which is not a string from getConnectionParameter still on loan",
                        static_cast<void*>(string));
    }
}

void ToolkitSession::BearerLog(void* bearerContext, const char* text) {
    ToolkitSession& self = From(bearerContext, kBearerTag, "bearerLog");
    self.stage_.PluginLine(text);
    self.log_.PluginLine("bearer", text);
}

void ToolkitSession::ConnectionLog(void* connectionContext, const char* text) {
    ToolkitSession& self = From(connectionContext, kConnectionTag, "connectionLog");
    self.stage_.PluginLine(text);
    self.log_.PluginLine("connection", text);
}

char* ToolkitSession::GetConnectionParameter(void* connectionContext, const char* name, unsigned char flag,
                                             int* result) {
    ToolkitSession& self = From(connectionContext, kConnectionTag, "getConnectionParameter");
    self.CheckThread("getConnectionParameter");
    auto field = name != nullptr ? self.fields_.find(name) : self.fields_.end();
    bool present = field != self.fields_.end();
    // This toolkit's result word: 0 for a field it has, 1 for one it has not.
    if (result != nullptr) {
        *result = present ? 0 : 1;
    }
    self.log_.Trace("getConnectionParameter(\"%s\", flag %u) = %s%s%s", name != nullptr ? name : "(null)", flag,
                    present ? "\"" : "", present ? field->second.c_str() : "absent", present ? "\"" : "");
    return present ? self.ledger_.Lend(field->second) : nullptr;
}

int ToolkitSession::SetConnectionStatus(void* connectionContext, int status) {
    ToolkitSession& self = From(connectionContext, kConnectionTag, "setConnectionStatus");
    self.CheckThread("setConnectionStatus");
    self.log_.Note("status %d (%s)", status, StatusName(status));
    if (status == KestoConnectionStatusConnected) {
        if (self.connected_) {
            self.Violation("status KestoConnectionStatusConnected was reported a second time");
        }
        self.connected_ = true;
        self.stage_.Connected();
    }
    return 0;
}

int ToolkitSession::SetTimer(void* connectionContext, int delayMs) {
    ToolkitSession& self = From(connectionContext, kConnectionTag, "setTimer");
    self.CheckThread("setTimer");
    self.log_.Trace("setTimer(%d ms)", delayMs);
    // One pending deadline per connection: a new request replaces the last.
    self.timerDeadline_ = Clock::now() + std::chrono::milliseconds(delayMs > 0 ? delayMs : 0);
    return 0;
}

int ToolkitSession::Reserved6(void* connectionContext, intptr_t, intptr_t, int* result) {
    From(connectionContext, kConnectionTag, "reserved6").Violation("reserved6 was called");
    if (result != nullptr) {
        *result = 0;
    }
    return KestoBearerErrorFailed;
}

intptr_t ToolkitSession::Reserved7(void* connectionContext, intptr_t, intptr_t) {
    From(connectionContext, kConnectionTag, "reserved7").Violation("reserved7 was called");
    return 0;
}
