#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "kesto/KestoBearer.h"
#include "kesto-host/ConnectStage.h"
#include "kesto-host/HostLog.h"
#include "kesto-host/StringLedger.h"

// The connection command string, field name to value.
using CommandFields = std::map<std::string, std::string>;

// The toolkit's side of one bearer with one connection: the support functions
// the plug-in calls back, each checking that the plug-in keeps its side of the
// contract, and typed calls into the plug-in's interface table. Driven from the
// thread that built it.
class ToolkitSession {
public:
    using Clock = std::chrono::steady_clock;

    ToolkitSession(KestoBearerInitializeFn initialize, CommandFields fields, HostLog& log, StringLedger& ledger);
    ~ToolkitSession();
    ToolkitSession(const ToolkitSession&) = delete;
    ToolkitSession& operator=(const ToolkitSession&) = delete;

    // Creates the bearer and the connection and starts connecting; false when a
    // step failed, which has been reported.
    bool Start();
    // Creates the bearer alone and reads its version (property 3); false when
    // the bearer could not be created, which has been reported.
    bool BearerVersion(std::string& version);
    // Destroys the connection, then the bearer; a second call does nothing.
    void Close();

    // The connection slots; each returns the plug-in's result code.
    int EventHandle(int& handle);
    int GetActivity(uint32_t& activity);
    // Forgets the pending deadline first, so that one asked for inside stays.
    int TimerExpired();
    // The oldest received block into buffer, which grows when the plug-in asks
    // for room; length is the block's size, 0 when nothing is waiting.
    int Read(std::vector<uint8_t>& buffer, uint32_t& length);
    // length: in the bytes offered, out the bytes taken (0 while a write is in flight).
    int Write(const uint8_t* data, uint32_t& length);

    // The deadline of the last setTimer, while it has not been served.
    std::optional<Clock::time_point> TimerDeadline() const { return timerDeadline_; }
    bool Connected() const { return connected_; }
    // Times the plug-in broke its side of the contract (wrong thread, wrong
    // context, a second "connected", impossible read or write lengths).
    int ContractViolations() const { return violations_; }

    // Logs a failed call with the result code's name and the plug-in's last log line.
    void ReportFailure(const char* call, int code) const;
    // For a connection that did not complete: the step it stopped at and what
    // usually stops one there.
    void ReportStage() const;
    // The plug-in's last log line, with the name of a libusb result it quotes.
    std::string LastPluginLine() const;
    static const char* ResultName(int code);

private:
    // The two contexts carry tags, so a context passed to the wrong kind of
    // support function is reported instead of misread.
    struct Context {
        uint32_t tag;
        ToolkitSession* session;
    };

    static ToolkitSession& From(void* context, uint32_t tag, const char* function);
    static char* AllocString(void* bearerContext, size_t size);
    static void FreeString(void* bearerContext, char* string);
    static void BearerLog(void* bearerContext, const char* text);
    static char* GetConnectionParameter(void* connectionContext, const char* name, unsigned char flag, int* result);
    static int SetConnectionStatus(void* connectionContext, int status);
    static int SetTimer(void* connectionContext, int delayMs);
    static int Reserved6(void* connectionContext, intptr_t a, intptr_t b, int* result);
    static intptr_t Reserved7(void* connectionContext, intptr_t a, intptr_t b);
    static void ConnectionLog(void* connectionContext, const char* text);

    bool CreateBearer();
    bool TableComplete();
    void DescribeBearer();
    std::string TakeProperty(char* text);
    void CheckThread(const char* function);
    void Violation(const char* what);

    KestoBearerInitializeFn initialize_;
    CommandFields fields_;
    HostLog& log_;
    StringLedger& ledger_;
    const std::thread::id thread_;
    Context bearerContext_;
    Context connectionContext_;
    KestoBearerInterface table_{};
    void* bearer_ = nullptr;
    void* connection_ = nullptr;
    std::optional<Clock::time_point> timerDeadline_;
    ConnectStage stage_;
    bool connected_ = false;
    bool wrongThreadReported_ = false;
    std::atomic<int> violations_{0};
};
