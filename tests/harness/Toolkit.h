#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "harness/ToolkitConnection.h"
#include "harness/ToolkitStrings.h"
#include "kesto/KestoBearer.h"

// A remote-display toolkit as the bearer meets it: it loads the bearer through
// its entry point, answers every support call (recording it), and drives its
// connections with an event loop that waits on each connection's event
// handle and keeps one timer per connection. Tests reach the bearer only
// through the interface table, as the toolkit does.
//
// One toolkit exists at a time; its support functions find it through that.
// Support calls are expected on the thread that made the toolkit: a call from
// anywhere else fails the test. On destruction it destroys the connections it
// created, terminates the bearer and fails the test for every string that was
// not handed back exactly once.
class Toolkit {
public:
    using Fields = ToolkitConnection::Fields;
    using Milliseconds = std::chrono::milliseconds;

    struct Options {
        KestoBearerInitializeFn initialize;
        std::string name = "USBAAP";
        size_t interfaceSize = sizeof(KestoBearerInterface);
        size_t supportSize = sizeof(KestoBearerSupportAPI);
        bool connectionLog = true;
    };

    // The result of a read or write slot: its code, the length it left and,
    // for reads, the bytes delivered.
    struct Transfer {
        int result;
        uint32_t length;
        std::vector<uint8_t> bytes;
    };

    explicit Toolkit(const Options& options);
    ~Toolkit();
    Toolkit(const Toolkit&) = delete;
    Toolkit& operator=(const Toolkit&) = delete;

    // What the entry point returned (null when it failed) and the tables as the toolkit holds them.
    void* Bearer() const { return bearer_; }
    void* Context() { return this; }
    const KestoBearerInterface& Interface() const { return interface_.table; }
    const KestoBearerSupportAPI& Support() const { return support_.table; }

    // Property slots; the returned buffer is reclaimed by the toolkit.
    std::optional<std::string> BearerProperty(int property);
    std::optional<std::string> ConnectionProperty(const ToolkitConnection& connection, int property);
    // For tests that call a property slot themselves.
    std::optional<std::string> TakeProperty(const char* text) { return strings_.TakeProperty(text); }

    // A record the bearer does not know yet; its Context() can be handed over by hand.
    ToolkitConnection& AddConnection(Fields fields = {});
    // A record plus bearerCreateConnection, which is expected to succeed.
    ToolkitConnection& CreateConnection(Fields fields = {});
    // connectionEstablish; on success the toolkit takes the event handle and drives the connection.
    int Establish(ToolkitConnection& connection);
    void Destroy(ToolkitConnection& connection);
    // Destroys the connections still alive, then the bearer, as a toolkit
    // shutting down does; the destructor does this if the test has not.
    void Terminate();
    Transfer Read(const ToolkitConnection& connection, uint32_t capacity);
    Transfer Write(const ToolkitConnection& connection, std::vector<uint8_t> bytes);

    // One pass of the event loop, waiting at most maxWait for an event handle or a timer.
    void RunOnce(Milliseconds maxWait);
    // Runs the loop until done() holds. On time-out the test fails at the
    // caller's line and false is returned, so the caller may stop there.
    bool RunUntil(const std::function<bool()>& done, Milliseconds timeout = std::chrono::seconds(5),
                  const char* file = __builtin_FILE(), int line = __builtin_LINE());
    void RunFor(Milliseconds duration);

    // How the support functions answer from now on.
    void FailAllocations(bool fail) { failAllocations_ = fail; }
    void AnswerStatusWith(int answer) { statusAnswer_ = answer; }

    const std::vector<std::string>& BearerLog() const { return bearerLog_; }
    std::vector<std::string> StringProblems() const { return strings_.Problems(); }

private:
    // Room past the end of each table shows a bearer that writes or reads beyond the size it was given.
    struct InterfaceRoom {
        KestoBearerInterface table;
        void* beyond[16];
    };
    struct SupportRoom {
        KestoBearerSupportAPI table;
        void* beyond[16];
    };

    void Load(const Options& options);
    void Fail(ToolkitConnection& connection, int result);
    void ServiceEventHandle(ToolkitConnection& connection, short events);
    void ServiceTimer(ToolkitConnection& connection);
    std::vector<ToolkitConnection*> Driven() const;
    int PollTimeout(const std::vector<ToolkitConnection*>& driven, Milliseconds maxWait) const;

    static Toolkit* OnToolkitThread(const char* slot);
    static Toolkit* FromBearerContext(void* context, const char* slot);
    static ToolkitConnection* FromConnectionContext(void* context, const char* slot);
    static char* AllocString(void* context, size_t size);
    static void FreeString(void* context, char* text);
    static void LogForBearer(void* context, const char* text);
    static char* GetConnectionParameter(void* context, const char* name, unsigned char flag, int* result);
    static int SetConnectionStatus(void* context, int status);
    static int SetTimer(void* context, int delayMs);
    static int Reserved6(void* context, intptr_t a, intptr_t b, int* result);
    static intptr_t Reserved7(void* context, intptr_t a, intptr_t b);
    static void LogForConnection(void* context, const char* text);

    static Toolkit* current_;

    std::thread::id thread_;
    InterfaceRoom interface_{};
    SupportRoom support_{};
    void* bearer_ = nullptr;
    std::vector<std::unique_ptr<ToolkitConnection>> connections_;
    ToolkitStrings strings_;
    std::vector<std::string> bearerLog_;
    bool failAllocations_ = false;
    int statusAnswer_ = 0;
};
