#include "harness/ToolkitConnection.h"

#include <utility>

ToolkitConnection::ToolkitConnection(Fields fields) : fields_(std::move(fields)) {}

const std::string* ToolkitConnection::Field(const char* name) const {
    auto found = fields_.find(name);
    return found == fields_.end() ? nullptr : &found->second;
}

void ToolkitConnection::RequestTimer(int delayMs) {
    timerRequests_.push_back(delayMs);
    deadline_ = Clock::now() + std::chrono::milliseconds(delayMs);
}

bool ToolkitConnection::TakeDueTimer(Clock::time_point now) {
    if (!deadline_ || *deadline_ > now) {
        return false;
    }
    deadline_.reset();
    return true;
}
