#pragma once

#include <string>
#include <vector>

namespace emuphone {

// Runs a command the way umockdev-run does: with umockdev's preload added to
// LD_PRELOAD (after anything already there, so a sanitizer runtime the caller
// preloaded stays first) and UMOCKDEV_DIR inherited. SIGTERM and SIGHUP are passed on; SIGINT
// and SIGQUIT reach the command from the terminal by themselves.
class ChildProcess {
public:
    // Where kesto-phone keeps the LD_PRELOAD it was started with when it adds
    // to its own; the command gets that one, plus umockdev's.
    static constexpr char kGivenPreload[] = "KESTO_PHONE_GIVEN_PRELOAD";

    // Returns the command's exit status, or 128 + the signal that ended it;
    // 127 when it could not be started.
    static int Run(const std::vector<std::string>& command);
};

} // namespace emuphone
