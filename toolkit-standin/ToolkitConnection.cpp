#include "toolkit-standin/ToolkitConnection.h"

#include <utility>

#include "toolkit-standin/Toolkit.h"

namespace standin {

ToolkitConnection::ToolkitConnection(Toolkit& toolkit, Fields fields)
    : context_{Toolkit::kConnectionTag, &toolkit, this}, fields_(std::move(fields)) {}

const std::string* ToolkitConnection::Field(const char* name) const {
    auto found = fields_.find(name);
    return found == fields_.end() ? nullptr : &found->second;
}

void ToolkitConnection::RequestTimer(int delayMs, bool keepRecord) {
    ++timerRequestCount_;
    if (keepRecord) {
        timerRequests_.push_back(delayMs);
    }
    deadline_ = Clock::now() + std::chrono::milliseconds(delayMs > 0 ? delayMs : 0);
}

bool ToolkitConnection::TakeDueTimer(Clock::time_point now) {
    if (!deadline_ || *deadline_ > now) {
        return false;
    }
    deadline_.reset();
    return true;
}

} // namespace standin
