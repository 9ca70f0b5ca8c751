#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace standin {

class Toolkit;

// The toolkit's record of one connection. Its context is what the plug-in gets
// as the connection context, so every connection-level support call lands
// here. Owners read it; only the Toolkit writes it.
class ToolkitConnection {
public:
    using Fields = std::map<std::string, std::string>;
    using Clock = std::chrono::steady_clock;

    // One getConnectionParameter call as the bearer made it.
    struct Lookup {
        std::string field;
        unsigned flag;
        bool resultWordGiven;
        bool answered;

        bool operator==(const Lookup& other) const {
            return field == other.field && flag == other.flag && resultWordGiven == other.resultWordGiven &&
                   answered == other.answered;
        }
        friend std::ostream& operator<<(std::ostream& out, const Lookup& lookup) {
            return out << "\"" << lookup.field << "\" flag " << lookup.flag
                       << (lookup.resultWordGiven ? " with" : " without") << " result word"
                       << (lookup.answered ? ", answered" : ", absent");
        }
    };

    // What the plug-in holds as a context: tagged, so that one handed to the
    // wrong kind of support function is reported instead of misread.
    struct SupportContext {
        uint32_t tag;
        Toolkit* toolkit;
        ToolkitConnection* connection;
    };

    ToolkitConnection(Toolkit& toolkit, Fields fields);
    ToolkitConnection(const ToolkitConnection&) = delete;
    ToolkitConnection& operator=(const ToolkitConnection&) = delete;

    void* Context() { return &context_; }
    // The bearer's handle: null before bearerCreateConnection and after connectionDestroy.
    void* Handle() const { return handle_; }
    bool Connected() const { return connected_; }

    // What the plug-in said and asked, in order; empty when the toolkit keeps no records.
    const std::vector<std::string>& Log() const { return log_; }
    const std::vector<Lookup>& Lookups() const { return lookups_; }
    const std::vector<int>& Statuses() const { return statuses_; }
    const std::vector<int>& TimerRequests() const { return timerRequests_; }
    uint64_t TimerRequestCount() const { return timerRequestCount_; }

    // The event loop's view: the mask of the latest successful
    // connectionGetActivity, how often each entry was called, and the non-zero
    // result that made the toolkit stop driving the connection (0 while
    // driven) with the call that gave it.
    uint32_t Activity() const { return activity_; }
    int ActivityCalls() const { return activityCalls_; }
    int TimerExpiries() const { return timerExpiries_; }
    int Failure() const { return failure_; }
    const char* FailedCall() const { return failedCall_; }
    bool TimerPending() const { return deadline_.has_value(); }

private:
    friend class Toolkit;

    const std::string* Field(const char* name) const;
    // A toolkit keeps one deadline per connection; a new request replaces it.
    void RequestTimer(int delayMs, bool keepRecord);
    // Clears and answers true when the deadline has passed by now.
    bool TakeDueTimer(Clock::time_point now);

    SupportContext context_;
    Fields fields_;
    void* handle_ = nullptr;
    std::vector<std::string> log_;
    std::vector<Lookup> lookups_;
    std::vector<int> statuses_;
    std::vector<int> timerRequests_;
    uint64_t timerRequestCount_ = 0;
    std::optional<Clock::time_point> deadline_;
    int eventHandle_ = -1;
    bool driven_ = false;
    bool connected_ = false;
    uint32_t activity_ = 0;
    int activityCalls_ = 0;
    int timerExpiries_ = 0;
    int failure_ = 0;
    const char* failedCall_ = "";
};

} // namespace standin
