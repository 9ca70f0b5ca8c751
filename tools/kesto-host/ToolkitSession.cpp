#include "kesto-host/ToolkitSession.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kesto-host/DeviceLister.h"

namespace {

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

ToolkitSession::ToolkitSession(KestoBearerInitializeFn initialize, CommandFields fields, HostLog& log)
    : initialize_(initialize), fields_(std::move(fields)), log_(log) {}

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
    connection_ = &toolkit_->AddConnection(fields_);
    int rc = toolkit_->CreateConnection(*connection_);
    if (rc != KestoBearerErrorNone || connection_->Handle() == nullptr) {
        ReportFailure("bearerCreateConnection", rc != KestoBearerErrorNone ? rc : KestoBearerErrorFailed);
        connection_ = nullptr;
        return false;
    }
    log_.Trace("connectionEstablish");
    rc = toolkit_->Establish(*connection_);
    stage_.EstablishReturned(rc);
    if (rc != KestoBearerErrorNone) {
        ReportFailure("connectionEstablish", rc);
        return false;
    }
    if (connection_->Failure() != KestoBearerErrorNone) {
        ReportFailure(connection_->FailedCall(), connection_->Failure());
        return false;
    }
    std::string transport = Property(toolkit_->ConnectionProperty(*connection_, KestoConnectionPropertyTransport));
    log_.Trace("connectionGetProperty(%d) = %s", KestoConnectionPropertyTransport, transport.c_str());
    return true;
}

bool ToolkitSession::BearerVersion(std::string& version) {
    if (!toolkit_ && !CreateBearer()) {
        return false;
    }
    version = Property(toolkit_->BearerProperty(KestoBearerPropertyVersion));
    return true;
}

bool ToolkitSession::CreateBearer() {
    standin::Toolkit::Options options{initialize_};
    options.name = kBearerName;
    options.listener = this;
    options.keepRecords = false;
    log_.Trace("KestoBearerInitialize(\"%s\", table sizes %zu and %zu)", kBearerName, options.interfaceSize,
               options.supportSize);
    toolkit_.emplace(options);
    if (toolkit_->Bearer() == nullptr) {
        log_.Error("KestoBearerInitialize returned no bearer");
        return false;
    }
    return TableComplete();
}

bool ToolkitSession::TableComplete() {
    const KestoBearerInterface& table = toolkit_->Interface();
    const struct {
        const char* name;
        bool filled;
    } slots[] = {
        {"bearerTerminate", table.bearerTerminate != nullptr},
        {"bearerCreateConnection", table.bearerCreateConnection != nullptr},
        {"bearerGetProperty", table.bearerGetProperty != nullptr},
        {"connectionEstablish", table.connectionEstablish != nullptr},
        {"connectionDestroy", table.connectionDestroy != nullptr},
        {"connectionRead", table.connectionRead != nullptr},
        {"connectionWrite", table.connectionWrite != nullptr},
        {"connectionGetEventHandle", table.connectionGetEventHandle != nullptr},
        {"connectionGetActivity", table.connectionGetActivity != nullptr},
        {"connectionGetProperty", table.connectionGetProperty != nullptr},
        {"connectionTimerExpired", table.connectionTimerExpired != nullptr},
    };
    bool complete = true;
    for (const auto& slot : slots) {
        if (!slot.filled) {
            log_.Error("the plug-in left %s empty in its interface table", slot.name);
            complete = false;
        }
    }
    if (!complete) {
        toolkit_.reset();
    }
    return complete;
}

void ToolkitSession::DescribeBearer() {
    std::string title = Property(toolkit_->BearerProperty(KestoBearerPropertyTitle));
    std::string version = Property(toolkit_->BearerProperty(KestoBearerPropertyVersion));
    std::string name = Property(toolkit_->BearerProperty(KestoBearerPropertyName));
    std::string description = Property(toolkit_->BearerProperty(KestoBearerPropertyDescription));
    log_.Note("bearer \"%s\": %s %s", name.c_str(), title.c_str(), version.c_str());
    log_.Trace("bearer description: %s", description.c_str());
}

int ToolkitSession::Finish(int exitCode) {
    if (!toolkit_) {
        return exitCode;
    }
    log_.Trace("connectionDestroy and bearerTerminate");
    toolkit_->Terminate();
    const std::vector<std::string> strings = toolkit_->StringProblems();
    for (const std::string& problem : strings) {
        log_.Error("plug-in contract broken: %s", problem.c_str());
    }
    toolkit_.reset();
    connection_ = nullptr;
    return exitCode == 0 && (violations_ > 0 || !strings.empty()) ? 1 : exitCode;
}

bool ToolkitSession::RunOnce(std::chrono::milliseconds maxWait, std::vector<pollfd>& also, uint32_t& activity) {
    const int activityCalls = connection_->ActivityCalls();
    const int timersServed = connection_->TimerExpiries();
    toolkit_->RunOnce(maxWait, &also);
    if (connection_->TimerExpiries() != timersServed) {
        stage_.TimerServed(connection_->TimerPending());
    }
    if (connection_->Failure() != KestoBearerErrorNone) {
        ReportFailure(connection_->FailedCall(), connection_->Failure());
        return false;
    }
    activity = connection_->ActivityCalls() != activityCalls ? connection_->Activity() : 0;
    return true;
}

int ToolkitSession::Read(std::vector<uint8_t>& buffer, uint32_t& length) {
    length = static_cast<uint32_t>(buffer.size());
    int rc = toolkit_->Read(*connection_, buffer.data(), length);
    if (rc == KestoBearerErrorBufferTooSmall && length > buffer.size()) {
        log_.Trace("connectionRead needs %u bytes: the read buffer grows from %zu", length, buffer.size());
        buffer.resize(length);
        length = static_cast<uint32_t>(buffer.size());
        rc = toolkit_->Read(*connection_, buffer.data(), length);
    }
    return rc;
}

int ToolkitSession::Write(const uint8_t* data, uint32_t& length) { return toolkit_->Write(*connection_, data, length); }

void ToolkitSession::Problem(const std::string& problem) {
    log_.Error("plug-in contract broken: %s", problem.c_str());
    ++violations_;
}

void ToolkitSession::PluginLine(const char* source, const char* text) {
    stage_.PluginLine(text);
    log_.PluginLine(source, text);
}

void ToolkitSession::Status(const standin::ToolkitConnection&, int status) {
    log_.Note("status %d (%s)", status, StatusName(status));
    if (status == KestoConnectionStatusConnected) {
        stage_.Connected();
    }
}
