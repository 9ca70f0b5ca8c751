#include "kesto-host/Options.h"

#include "kesto-host/EchoCheck.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

// Options that name a command-string field, and the field each one sets.
struct FieldOption {
    const char* option;
    const char* field;
};
constexpr FieldOption kFieldOptions[] = {
    {"--interface", "interface"},       {"--altsetting", "altsetting"}, {"--manufacturer", "manufacturer"},
    {"--model", "model"},               {"--description", "desc"},      {"--version", "version"},
    {"--uri", "uri"},                   {"--accessory-serial", "serial"},
};

bool ParseInt(const std::string& text, long min, long max, long& out) {
    // strtol would also take blanks and a plus sign, which are typos here.
    if (text.empty() || !(std::isdigit(static_cast<unsigned char>(text[0])) || text[0] == '-')) {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    long value = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || value < min || value > max) {
        return false;
    }
    out = value;
    return true;
}

bool ParseSeconds(const std::string& text, double& out) {
    char* end = nullptr;
    double value = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !std::isfinite(value) || value < 0 || value > 1e6) {
        return false;
    }
    out = value;
    return true;
}

// A byte count with an optional binary suffix: 4096, 64K, 100M, 2G.
bool ParseByteCount(const std::string& text, uint64_t& out) {
    char* end = nullptr;
    errno = 0;
    unsigned long long value = std::strtoull(text.c_str(), &end, 10);
    if (text.empty() || !std::isdigit(static_cast<unsigned char>(text[0])) || errno != 0) {
        return false;
    }
    unsigned shift = 0;
    if (*end != '\0') {
        const char* suffixes = "KMG";
        const char* found = std::strchr(suffixes, std::toupper(static_cast<unsigned char>(*end)));
        if (found == nullptr || *found == '\0' || end[1] != '\0') {
            return false;
        }
        shift = 10 * static_cast<unsigned>(found - suffixes + 1);
    }
    constexpr unsigned long long kLargest = 1ULL << 50;
    if (value > (kLargest >> shift)) {
        return false;
    }
    out = static_cast<uint64_t>(value) << shift;
    return true;
}

bool TakesValue(const std::string& name) {
    static const char* const kValued[] = {"--plugin",     "--serial",  "--bus",    "--address", "--pings",
                                          "--ping-bytes", "--timeout", "--linger", "--bytes"};
    for (const char* valued : kValued) {
        if (name == valued) {
            return true;
        }
    }
    for (const FieldOption& option : kFieldOptions) {
        if (name == option.option) {
            return true;
        }
    }
    return false;
}

class ArgumentReader {
public:
    ArgumentReader(int argc, const char* const* argv) : args_(argv + 1, argv + argc) {}

    bool Next(std::string& arg) {
        if (index_ >= args_.size()) {
            return false;
        }
        arg = args_[index_++];
        inlineValue_.clear();
        hasInlineValue_ = false;
        size_t equals = arg.find('=');
        if (arg.compare(0, 2, "--") == 0 && equals != std::string::npos) {
            inlineValue_ = arg.substr(equals + 1);
            hasInlineValue_ = true;
            arg.resize(equals);
        }
        return true;
    }

    bool Value(const std::string& option, std::string& value, std::string& error) {
        if (hasInlineValue_) {
            value = inlineValue_;
            hasInlineValue_ = false;
            return true;
        }
        if (index_ >= args_.size()) {
            error = option + " needs a value";
            return false;
        }
        value = args_[index_++];
        return true;
    }

    bool HasInlineValue() const { return hasInlineValue_; }

private:
    std::vector<std::string> args_;
    size_t index_ = 0;
    std::string inlineValue_;
    bool hasInlineValue_ = false;
};

enum class Outcome { Applied, Unknown, Failed };

Outcome ApplyFlag(const std::string& name, Options& out) {
    if (name == "--help" || name == "-h") {
        out.help = true;
    } else if (name == "--quiet" || name == "-q") {
        out.verbosity = Verbosity::Quiet;
    } else if (name == "--verbose" || name == "-v") {
        out.verbosity = Verbosity::Verbose;
    } else if (name == "--all") {
        out.listAll = true;
    } else {
        return Outcome::Unknown;
    }
    return Outcome::Applied;
}

Outcome ApplyNumber(const std::string& name, const std::string& value, Options& out, std::string& error) {
    long number = 0;
    bool ok = true;
    if (name == "--bus") {
        ok = ParseInt(value, 1, 255, number);
        out.bus = static_cast<int>(number);
    } else if (name == "--address") {
        ok = ParseInt(value, 1, 127, number);
        out.address = static_cast<int>(number);
    } else if (name == "--pings") {
        ok = ParseInt(value, 0, 1000, number);
        out.pings = static_cast<int>(number);
    } else if (name == "--ping-bytes") {
        ok = ParseInt(value, 1, static_cast<long>(EchoCheck::kLargestPing), number);
        out.pingBytes = static_cast<size_t>(number);
    } else if (name == "--interface" || name == "--altsetting") {
        ok = ParseInt(value, 0, 255, number);
        out.fields[name.substr(2)] = value;
    } else if (name == "--timeout") {
        ok = ParseSeconds(value, out.timeoutSeconds);
    } else if (name == "--linger") {
        ok = ParseSeconds(value, out.lingerSeconds);
    } else if (name == "--bytes") {
        ok = ParseByteCount(value, out.echoBytes);
    } else {
        return Outcome::Unknown;
    }
    if (!ok) {
        error = name + ": '" + value + "' is not a valid value";
        return Outcome::Failed;
    }
    return Outcome::Applied;
}

Outcome ApplyText(const std::string& name, const std::string& value, Options& out) {
    if (name == "--plugin") {
        out.pluginPath = value;
        return Outcome::Applied;
    }
    if (name == "--serial") {
        out.serial = value;
        return Outcome::Applied;
    }
    for (const FieldOption& option : kFieldOptions) {
        if (name == option.option) {
            out.fields[option.field] = value;
            return Outcome::Applied;
        }
    }
    return Outcome::Unknown;
}

bool ApplyMode(const std::string& word, bool& modeGiven, Options& out, std::string& error) {
    if (modeGiven) {
        error = "unexpected argument '" + word + "'";
        return false;
    }
    modeGiven = true;
    if (word == "bridge") {
        out.mode = Options::Mode::Bridge;
    } else if (word == "echo") {
        out.mode = Options::Mode::Echo;
    } else if (word == "list") {
        out.mode = Options::Mode::List;
    } else {
        error = "unknown mode '" + word + "' (bridge, echo or list)";
        return false;
    }
    return true;
}

// Options that only one mode reads; given to another mode they are a mistake.
struct ModeOption {
    const char* option;
    Options::Mode mode;
};
constexpr ModeOption kModeOptions[] = {
    {"--bytes", Options::Mode::Echo},
    {"--pings", Options::Mode::Echo},
    {"--ping-bytes", Options::Mode::Echo},
    {"--linger", Options::Mode::Bridge},
    {"--all", Options::Mode::List},
};

bool CheckCombination(const Options& out, const std::vector<std::string>& given, std::string& error) {
    auto has = [&given](const char* name) {
        for (const std::string& g : given) {
            if (g == name) {
                return true;
            }
        }
        return false;
    };
    for (const ModeOption& option : kModeOptions) {
        if (has(option.option) && out.mode != option.mode) {
            error = std::string(option.option) + " does not apply to this mode";
            return false;
        }
    }
    if ((has("--quiet") || has("-q")) && (has("--verbose") || has("-v"))) {
        error = "--quiet and --verbose contradict each other";
    } else if ((out.bus == 0) != (out.address == 0)) {
        error = "--bus and --address go together";
    } else if (!out.serial.empty() && out.bus != 0) {
        error = "--serial and --bus/--address both pick the phone: give one of them";
    } else if (out.mode == Options::Mode::List && (out.bus != 0 || !out.serial.empty() || !out.fields.empty() ||
                                                   !out.pluginPath.empty() || has("--timeout"))) {
        error = "list takes no device, plug-in or connection options";
    }
    return error.empty();
}

} // namespace

bool Options::Parse(int argc, const char* const* argv, Options& out, std::string& error) {
    ArgumentReader reader(argc, argv);
    std::vector<std::string> given;
    bool modeGiven = false;
    std::string name;
    while (reader.Next(name)) {
        if (name.empty() || name[0] != '-') {
            if (!ApplyMode(name, modeGiven, out, error)) {
                return false;
            }
            continue;
        }
        given.push_back(name);
        bool inlineValue = reader.HasInlineValue();
        if (ApplyFlag(name, out) == Outcome::Applied) {
            if (inlineValue) {
                error = name + " takes no value";
                return false;
            }
            continue;
        }
        if (!TakesValue(name)) {
            error = "unknown option '" + name + "'";
            return false;
        }
        std::string value;
        if (!reader.Value(name, value, error)) {
            return false;
        }
        Outcome outcome = ApplyNumber(name, value, out, error);
        if (outcome == Outcome::Unknown) {
            outcome = ApplyText(name, value, out);
        }
        if (outcome != Outcome::Applied) {
            return false;
        }
    }
    return CheckCombination(out, given, error);
}

const char* Options::HelpText() {
    return R"(Usage: kesto-host [bridge|echo|list] [OPTIONS]

Loads libkestobearer-USBAAP.so, connects to an Android phone over USB through it,
and drives the connection the way a remote-display toolkit does.

Modes:
  bridge   (default) copy standard input to the phone and the phone's stream to
           standard output, like netcat; ends when standard input ends and the
           last write has completed (see --linger)
  echo     send a pseudo-random pattern to the phone's echo application, check
           that it comes back unchanged and in order, and report round-trip
           times and throughput
  list     list the USB devices that could be phones

Choosing the phone (bridge, echo):
  --bus N --address N   the device at this USB bus number and device address
  --serial TEXT         the device with this USB serial number
  (neither)             the only device that looks like a phone

Command-string fields for the plug-in (bridge, echo; absent unless given):
  --interface N         "interface": accessory interface number
  --altsetting N        "altsetting": alternate setting (needs --interface)
  --manufacturer TEXT   "manufacturer": accessory identity sent to the phone
  --model TEXT          "model"
  --description TEXT    "desc"
  --version TEXT        "version"
  --uri TEXT            "uri"
  --accessory-serial TEXT  "serial": the accessory's serial, not the phone's

Connection (bridge, echo):
  --plugin PATH         the plug-in to load; otherwise the first found of: next
                        to kesto-host, the install's library directory, the
                        build tree's root (when run from a build tree), then
                        the dynamic linker's search path
  --timeout SECONDS     give up when not connected within this time (default 30;
                        0 waits for ever)

Echo:
  --bytes N[K|M|G]      bytes to send after the pings (default 1M; binary units)
  --pings N             small messages sent one at a time to time the round trip
                        (default 10)
  --ping-bytes N        bytes in each of those messages, 1 to 65536 (default 100)

Bridge:
  --linger SECONDS      after standard input has ended and been sent, keep copying
                        from the phone until it has been quiet this long
                        (default 0)

List:
  --all                 list every USB device except hubs, not only likely phones

Output (standard error, timestamped in milliseconds since start):
  -q, --quiet           errors and results only
  -v, --verbose         also the calls between the tool and the plug-in outside
                        the data path: fields, timers, strings, properties
  -h, --help            this text

Exit status: 0 success; 1 the connection or the plug-in failed (the plug-in's
result code and its last log line are printed); 2 bad command line; 3 echo
data came back changed; 130 interrupted.
)";
}
