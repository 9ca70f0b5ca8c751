#pragma once

#include <chrono>
#include <functional>

#include "toolkit-standin/Toolkit.h"

using ToolkitConnection = standin::ToolkitConnection;

// The toolkit stand-in for tests: every break of the plug-in's contract fails
// the test, and so does every string not handed back exactly once by the time
// the toolkit goes.
class Toolkit : public standin::Toolkit {
public:
    explicit Toolkit(const Options& options);
    ~Toolkit();

    // Runs the loop until done() holds. On time-out the test fails at the
    // caller's line and false is returned, so the caller may stop there.
    bool RunUntil(const std::function<bool()>& done, Milliseconds timeout = std::chrono::seconds(5),
                  const char* file = __builtin_FILE(), int line = __builtin_LINE());
};
