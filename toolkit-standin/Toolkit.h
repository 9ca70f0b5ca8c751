#pragma once

#include <poll.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "kesto/KestoBearer.h"
#include "toolkit-standin/ToolkitConnection.h"
#include "toolkit-standin/ToolkitListener.h"
#include "toolkit-standin/ToolkitStrings.h"

namespace standin {

// A remote-display toolkit as the bearer meets it: it loads the bearer through
// its entry point, answers every support call, checking that the plug-in keeps
// its side of the contract, and drives its connections with an event loop that
// waits on each connection's event handle and keeps one timer per connection.
// It reaches the bearer only through the interface table.
//
// Support calls are expected on the thread that made the toolkit; the
// listener hears of anything else. On destruction it destroys the connections
// it created and terminates the bearer.
class Toolkit {
public:
    using Fields = ToolkitConnection::Fields;
    using Clock = ToolkitConnection::Clock;
    using Milliseconds = std::chrono::milliseconds;

    static constexpr uint32_t kBearerTag = 0x4B425243;     // "KBRC"
    static constexpr uint32_t kConnectionTag = 0x4B434E43; // "KCNC"

    struct Options {
        KestoBearerInitializeFn initialize;
        std::string name = "USBAAP";
        size_t interfaceSize = sizeof(KestoBearerInterface);
        size_t supportSize = sizeof(KestoBearerSupportAPI);
        bool connectionLog = true;
        ToolkitListener* listener = nullptr;
        // Records of every log line, lookup, status and timer in each connection;
        // a toolkit that runs for long keeps counts only.
        bool keepRecords = true;
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
    void* Context() { return &context_; }
    const KestoBearerInterface& Interface() const { return interface_.table; }
    const KestoBearerSupportAPI& Support() const { return support_.table; }

    // Property slots; the returned buffer is reclaimed by the toolkit.
    std::optional<std::string> BearerProperty(int property);
    std::optional<std::string> ConnectionProperty(const ToolkitConnection& connection, int property);
    // For callers of a property slot.
    std::optional<std::string> TakeProperty(const char* text) { return strings_.TakeProperty(text); }

    // A record the bearer does not know yet; its Context() can be handed over by hand.
    ToolkitConnection& AddConnection(Fields fields = {});
    // bearerCreateConnection for a record; its result.
    int CreateConnection(ToolkitConnection& connection);
    // A record plus bearerCreateConnection, whose failure is a problem.
    ToolkitConnection& CreateConnection(Fields fields = {});
    // connectionEstablish; on success the toolkit takes the event handle and drives the connection.
    int Establish(ToolkitConnection& connection);
    void Destroy(ToolkitConnection& connection);
    // Destroys the connections still alive, then the bearer, as a toolkit
    // shutting down does; the destructor does this if the owner has not.
    void Terminate();

    // connectionRead into buffer; length in: its size, out: what the plug-in left.
    int Read(const ToolkitConnection& connection, uint8_t* buffer, uint32_t& length);
    // connectionWrite; length in: the bytes offered, out: the bytes taken.
    int Write(const ToolkitConnection& connection, const uint8_t* data, uint32_t& length);
    Transfer Read(const ToolkitConnection& connection, uint32_t capacity);
    // The buffer is overwritten after the call, as a toolkit reuses its own.
    Transfer Write(const ToolkitConnection& connection, std::vector<uint8_t> bytes);

    // One pass of the event loop, waiting at most maxWait for an event handle,
    // a timer or one of `also` (whose revents are filled in).
    void RunOnce(Milliseconds maxWait, std::vector<pollfd>* also = nullptr);
    void RunFor(Milliseconds duration);

    // How the support functions answer from now on.
    void FailAllocations(bool fail) { failAllocations_ = fail; }
    void AnswerStatusWith(int answer) { statusAnswer_ = answer; }

    const std::vector<std::string>& BearerLog() const { return bearerLog_; }
    // Every string fault so far and every string still out, one line each.
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
    void Problem(const std::string& problem) const;
    void Fail(ToolkitConnection& connection, const char* call, int result);
    void ServiceEventHandle(ToolkitConnection& connection, short events);
    void ServiceTimer(ToolkitConnection& connection);
    int PollTimeout(Milliseconds maxWait) const;
    bool Traced() const { return listener_ != nullptr && listener_->Traced(); }

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

    const std::thread::id thread_;
    ToolkitListener* const listener_;
    const bool keepRecords_;
    ToolkitConnection::SupportContext context_;
    InterfaceRoom interface_{};
    SupportRoom support_{};
    void* bearer_ = nullptr;
    std::vector<std::unique_ptr<ToolkitConnection>> connections_;
    ToolkitStrings strings_;
    std::vector<std::string> bearerLog_;
    bool failAllocations_ = false;
    int statusAnswer_ = 0;
    // Kept between passes so that the loop allocates nothing once running.
    std::vector<ToolkitConnection*> driven_;
    std::vector<pollfd> polled_;
};

} // namespace standin
