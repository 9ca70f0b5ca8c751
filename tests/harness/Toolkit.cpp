#include "harness/Toolkit.h"

#include <gtest/gtest.h>

namespace {

// The loop re-checks its caller's condition at least this often, so that a
// condition changed by another thread (a phone) is seen soon.
constexpr std::chrono::milliseconds kLongestPass(10);

class FailingListener : public standin::ToolkitListener {
public:
    void Problem(const std::string& problem) override { ADD_FAILURE() << problem; }
};

FailingListener failing;

Toolkit::Options Failing(Toolkit::Options options) {
    options.listener = &failing;
    return options;
}

} // namespace

Toolkit::Toolkit(const Options& options) : standin::Toolkit(Failing(options)) {}

Toolkit::~Toolkit() {
    Terminate();
    for (const std::string& problem : StringProblems()) {
        ADD_FAILURE() << problem;
    }
}

bool Toolkit::RunUntil(const std::function<bool()>& done, Milliseconds timeout, const char* file, int line) {
    const Clock::time_point end = Clock::now() + timeout;
    while (!done()) {
        const Clock::time_point now = Clock::now();
        if (now >= end) {
            ADD_FAILURE_AT(file, line) << "the toolkit waited " << timeout.count() << " ms in vain";
            return false;
        }
        RunOnce(std::min(kLongestPass, std::chrono::ceil<Milliseconds>(end - now)));
    }
    return true;
}
