#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

// The toolkit's record of one connection. Its address is the connection
// context handed to the bearer, so every connection-level support call lands
// here. Tests read it; only the Toolkit writes it.
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

    explicit ToolkitConnection(Fields fields);
    ToolkitConnection(const ToolkitConnection&) = delete;
    ToolkitConnection& operator=(const ToolkitConnection&) = delete;

    void* Context() { return this; }
    // The bearer's handle: null before bearerCreateConnection and after connectionDestroy.
    void* Handle() const { return handle_; }

    const std::vector<std::string>& Log() const { return log_; }
    const std::vector<Lookup>& Lookups() const { return lookups_; }
    const std::vector<int>& Statuses() const { return statuses_; }
    const std::vector<int>& TimerRequests() const { return timerRequests_; }

    // The event loop's view: the mask of the latest successful
    // connectionGetActivity, how often each entry was called, and the non-zero
    // result that made the toolkit stop driving the connection (0 while driven).
    uint32_t Activity() const { return activity_; }
    int ActivityCalls() const { return activityCalls_; }
    int TimerExpiries() const { return timerExpiries_; }
    int Failure() const { return failure_; }
    bool TimerPending() const { return deadline_.has_value(); }

private:
    friend class Toolkit;

    const std::string* Field(const char* name) const;
    // A toolkit keeps one deadline per connection; a new request replaces it.
    void RequestTimer(int delayMs);
    // Clears and answers true when the deadline has passed by now.
    bool TakeDueTimer(Clock::time_point now);

    Fields fields_;
    void* handle_ = nullptr;
    std::vector<std::string> log_;
    std::vector<Lookup> lookups_;
    std::vector<int> statuses_;
    std::vector<int> timerRequests_;
    std::optional<Clock::time_point> deadline_;
    int eventHandle_ = -1;
    bool driven_ = false;
    uint32_t activity_ = 0;
    int activityCalls_ = 0;
    int timerExpiries_ = 0;
    int failure_ = 0;
};
