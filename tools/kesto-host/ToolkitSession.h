#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "kesto-host/ConnectStage.h"
#include "kesto-host/HostLog.h"
#include "toolkit-standin/Toolkit.h"

// The connection command string, field name to value.
using CommandFields = std::map<std::string, std::string>;

// The toolkit stand-in with one connection, telling the tool's log what
// happens: the plug-in's lines, the status changes, every break of the
// plug-in's side of the contract, and where a connection that did not
// complete stopped. Driven from the thread that built it.
class ToolkitSession : private standin::ToolkitListener {
public:
    ToolkitSession(KestoBearerInitializeFn initialize, CommandFields fields, HostLog& log);
    ToolkitSession(const ToolkitSession&) = delete;
    ToolkitSession& operator=(const ToolkitSession&) = delete;

    // Creates the bearer and the connection and starts connecting; false when a
    // step failed, which has been reported.
    bool Start();
    // Creates the bearer alone and reads its version (property 3); false when
    // the bearer could not be created, which has been reported.
    bool BearerVersion(std::string& version);
    // Destroys the connection and the bearer, then judges the run: exitCode,
    // unless it was 0 and the plug-in broke the contract or kept a string.
    int Finish(int exitCode);

    // One pass of the toolkit's loop, waiting at most maxWait for the event
    // handle, the timer or one of `also`. activity: the bits of a
    // connectionGetActivity made in the pass, else 0. False once the
    // connection has failed (reported).
    bool RunOnce(std::chrono::milliseconds maxWait, std::vector<pollfd>& also, uint32_t& activity);
    // The oldest received block into buffer, which grows when the plug-in asks
    // for room; length is the block's size, 0 when nothing is waiting.
    int Read(std::vector<uint8_t>& buffer, uint32_t& length);
    // length: in the bytes offered, out the bytes taken (0 while a write is in flight).
    int Write(const uint8_t* data, uint32_t& length);
    bool Connected() const { return connection_ != nullptr && connection_->Connected(); }

    // Logs a failed call with the result code's name and the plug-in's last log line.
    void ReportFailure(const char* call, int code) const;
    // For a connection that did not complete: the step it stopped at and what
    // usually stops one there.
    void ReportStage() const;
    // The plug-in's last log line, with the name of a libusb result it quotes.
    std::string LastPluginLine() const;
    static const char* ResultName(int code);

private:
    void Problem(const std::string& problem) override;
    void PluginLine(const char* source, const char* text) override;
    void Status(const standin::ToolkitConnection& connection, int status) override;
    bool Traced() const override { return log_.Verbose(); }
    void Called(const std::string& call) override { log_.Trace("%s", call.c_str()); }

    bool CreateBearer();
    bool TableComplete();
    void DescribeBearer();
    std::string Property(std::optional<std::string> text) const { return text.value_or("(none)"); }

    KestoBearerInitializeFn initialize_;
    CommandFields fields_;
    HostLog& log_;
    ConnectStage stage_;
    int violations_ = 0;
    // Last, so that the plug-in's calls while the toolkit goes find the rest whole.
    std::optional<standin::Toolkit> toolkit_;
    standin::ToolkitConnection* connection_ = nullptr;
};
