#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "kesto-host/HostLog.h"

// What the command line asked for. Parse checks everything that can be checked
// before touching USB or the plug-in, so that a typo fails at once with exit code 2.
class Options {
public:
    enum class Mode { Bridge, Echo, List };

    // False with a one-line reason in error when the command line is not usable.
    static bool Parse(int argc, const char* const* argv, Options& out, std::string& error);
    static const char* HelpText();

    Mode mode = Mode::Bridge;
    bool help = false;
    bool version = false;
    Verbosity verbosity = Verbosity::Normal;
    std::string pluginPath;

    // Which phone: bus and address (0 = not given), or its USB serial number.
    int bus = 0;
    int address = 0;
    std::string serial;

    // Command-string fields other than "bus" and "dev", keyed by field name.
    std::map<std::string, std::string> fields;

    double timeoutSeconds = 30;
    uint64_t echoBytes = 1024 * 1024;
    int pings = 10;
    size_t pingBytes = 100;
    uint64_t echoSeed = 0;      // 0: the bulk in fixed pieces
    uint64_t progressBytes = 0; // 0: no progress lines
    double lingerSeconds = 1;
    bool listAll = false;
};
