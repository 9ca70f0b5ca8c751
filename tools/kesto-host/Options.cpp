#include "kesto-host/Options.h"

#include "kesto-host/EchoCheck.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <set>
#include <vector>

#include <getopt.h>

namespace {

// Options without a short form take ids above any character.
enum OptionId : int {
    kHelp = 'h',
    kQuiet = 'q',
    kVerbose = 'v',
    kVersion = 'V',
    kBus = 'b',
    kAddress = 'a',
    kSerial = 's',
    kPlugin = 'p',
    kTimeout = 't',
    kLinger = 'l',
    kAll = 256,
    kInterface,
    kAltsetting,
    kManufacturer,
    kModel,
    kDescription,
    kAccessoryVersion,
    kUri,
    kAccessorySerial,
    kBytes,
    kPings,
    kPingBytes,
    kSeed,
    kProgress,
};

// The leading colon makes a missing value come back as ':' rather than '?'.
constexpr char kShortOptions[] = ":hqvVb:a:s:p:t:l:";

constexpr option kLongOptions[] = {
    {"help", no_argument, nullptr, kHelp},
    {"quiet", no_argument, nullptr, kQuiet},
    {"verbose", no_argument, nullptr, kVerbose},
    {"version", no_argument, nullptr, kVersion},
    {"bus", required_argument, nullptr, kBus},
    {"address", required_argument, nullptr, kAddress},
    {"serial", required_argument, nullptr, kSerial},
    {"plugin", required_argument, nullptr, kPlugin},
    {"timeout", required_argument, nullptr, kTimeout},
    {"linger", required_argument, nullptr, kLinger},
    {"all", no_argument, nullptr, kAll},
    {"interface", required_argument, nullptr, kInterface},
    {"altsetting", required_argument, nullptr, kAltsetting},
    {"manufacturer", required_argument, nullptr, kManufacturer},
    {"model", required_argument, nullptr, kModel},
    {"description", required_argument, nullptr, kDescription},
    {"accessory-version", required_argument, nullptr, kAccessoryVersion},
    {"uri", required_argument, nullptr, kUri},
    {"accessory-serial", required_argument, nullptr, kAccessorySerial},
    {"bytes", required_argument, nullptr, kBytes},
    {"pings", required_argument, nullptr, kPings},
    {"ping-bytes", required_argument, nullptr, kPingBytes},
    {"seed", required_argument, nullptr, kSeed},
    {"progress", required_argument, nullptr, kProgress},
    {nullptr, 0, nullptr, 0},
};

// Options that name a command-string field, and the field each one sets.
struct FieldOption {
    int id;
    const char* field;
};
constexpr FieldOption kFieldOptions[] = {
    {kInterface, "interface"}, {kAltsetting, "altsetting"}, {kManufacturer, "manufacturer"},
    {kModel, "model"},         {kDescription, "desc"},      {kAccessoryVersion, "version"},
    {kUri, "uri"},             {kAccessorySerial, "serial"},
};

// Options that only one mode reads; given to another mode they are a mistake.
struct ModeOption {
    int id;
    Options::Mode mode;
};
constexpr ModeOption kModeOptions[] = {
    {kBytes, Options::Mode::Echo},
    {kPings, Options::Mode::Echo},
    {kPingBytes, Options::Mode::Echo},
    {kSeed, Options::Mode::Echo},
    {kProgress, Options::Mode::Echo},
    {kLinger, Options::Mode::Bridge},
    {kAll, Options::Mode::List},
};

const char* ModeName(Options::Mode mode) {
    switch (mode) {
    case Options::Mode::Bridge:
        return "bridge";
    case Options::Mode::Echo:
        return "echo";
    case Options::Mode::List:
        return "list";
    }
    return "?";
}

// The name messages use: the long form, which every option has.
std::string NameOf(int id) {
    for (const option* o = kLongOptions; o->name != nullptr; ++o) {
        if (o->val == id) {
            return std::string("--") + o->name;
        }
    }
    return std::string("-") + static_cast<char>(id);
}

bool IsKnown(int id) {
    for (const option* o = kLongOptions; o->name != nullptr; ++o) {
        if (o->val == id) {
            return true;
        }
    }
    return false;
}

// Why getopt_long refused a long option: unknown, ambiguous, or given a value it does not take.
std::string LongOptionMistake(const std::string& arg) {
    std::string name = arg.substr(2, arg.find('=') == std::string::npos ? std::string::npos : arg.find('=') - 2);
    std::vector<const option*> matches;
    for (const option* o = kLongOptions; o->name != nullptr; ++o) {
        if (name == o->name) {
            matches.assign(1, o);
            break;
        }
        if (!name.empty() && std::strncmp(o->name, name.c_str(), name.size()) == 0) {
            matches.push_back(o);
        }
    }
    if (matches.size() > 1) {
        std::string list;
        for (const option* o : matches) {
            list += std::string(list.empty() ? "" : ", ") + "--" + o->name;
        }
        return "option '--" + name + "' is ambiguous: " + list;
    }
    if (matches.size() == 1 && matches.front()->has_arg == no_argument) {
        return std::string("--") + matches.front()->name + " takes no value";
    }
    return "unknown option '" + arg.substr(0, arg.find('=')) + "'";
}

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

bool ApplyNumber(int id, const std::string& value, Options& out) {
    long number = 0;
    switch (id) {
    case kBus:
        return ParseInt(value, 1, 255, number) && (out.bus = static_cast<int>(number), true);
    case kAddress:
        return ParseInt(value, 1, 127, number) && (out.address = static_cast<int>(number), true);
    case kPings:
        return ParseInt(value, 0, 1000, number) && (out.pings = static_cast<int>(number), true);
    case kPingBytes:
        return ParseInt(value, 1, static_cast<long>(EchoCheck::kLargestPing), number) &&
               (out.pingBytes = static_cast<size_t>(number), true);
    case kInterface:
    case kAltsetting:
        return ParseInt(value, 0, 255, number);
    case kTimeout:
        return ParseSeconds(value, out.timeoutSeconds);
    case kLinger:
        return ParseSeconds(value, out.lingerSeconds);
    case kBytes:
        return ParseByteCount(value, out.echoBytes);
    case kSeed:
        return ParseInt(value, 1, 2147483647, number) && (out.echoSeed = static_cast<uint64_t>(number), true);
    case kProgress:
        return ParseByteCount(value, out.progressBytes);
    default:
        return true;
    }
}

void Apply(int id, const char* value, Options& out) {
    switch (id) {
    case kHelp:
        out.help = true;
        return;
    case kVersion:
        out.version = true;
        return;
    case kQuiet:
        out.verbosity = Verbosity::Quiet;
        return;
    case kVerbose:
        out.verbosity = Verbosity::Verbose;
        return;
    case kAll:
        out.listAll = true;
        return;
    case kPlugin:
        out.pluginPath = value;
        return;
    case kSerial:
        out.serial = value;
        return;
    default:
        break;
    }
    for (const FieldOption& option : kFieldOptions) {
        if (option.id == id) {
            out.fields[option.field] = value;
        }
    }
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

bool CheckCombination(const Options& out, const std::set<int>& given, std::string& error) {
    for (const ModeOption& option : kModeOptions) {
        if (given.count(option.id) != 0 && out.mode != option.mode) {
            error = NameOf(option.id) + " is for " + ModeName(option.mode) + " only";
            return false;
        }
    }
    bool fieldGiven = !out.fields.empty();
    if ((out.bus == 0) != (out.address == 0)) {
        error = "--bus and --address go together";
    } else if (!out.serial.empty() && out.bus != 0) {
        error = "--serial and --bus/--address both pick the phone: give one of them";
    } else if (given.count(kAltsetting) != 0 && given.count(kInterface) == 0) {
        error = "--altsetting needs --interface";
    } else if (out.mode == Options::Mode::List && (out.bus != 0 || given.count(kSerial) != 0 || fieldGiven ||
                                                   given.count(kPlugin) != 0 || given.count(kTimeout) != 0)) {
        error = "list takes no device, plug-in or connection options";
    }
    return error.empty();
}

} // namespace

bool Options::Parse(int argc, const char* const* argv, Options& out, std::string& error) {
    // getopt_long reorders its array; the caller's stays as it was.
    std::vector<char*> args;
    for (int i = 0; i < argc; ++i) {
        args.push_back(const_cast<char*>(argv[i]));
    }
    args.push_back(nullptr);
    optind = 0; // 0, not 1: also forgets the state of an earlier parse
    opterr = 0;
    std::set<int> given;
    int id = 0;
    while ((id = getopt_long(argc, args.data(), kShortOptions, kLongOptions, nullptr)) != -1) {
        if (id == ':') {
            error = NameOf(optopt) + " needs a value";
            return false;
        }
        if (id == '?') {
            // A short option unknown, or a long one refused; only the latter
            // leaves optopt 0 or naming an option.
            bool shortOption = optopt != 0 && !IsKnown(optopt);
            error = shortOption ? std::string("unknown option '-") + static_cast<char>(optopt) + "'"
                                : LongOptionMistake(args[static_cast<size_t>(optind) - 1]);
            return false;
        }
        std::string value = optarg != nullptr ? optarg : "";
        if (!ApplyNumber(id, value, out)) {
            error = NameOf(id) + ": '" + value + "' is not a valid value";
            return false;
        }
        Apply(id, value.c_str(), out);
        given.insert(id);
    }
    bool modeGiven = false;
    for (int i = optind; i < argc; ++i) {
        if (!ApplyMode(args[static_cast<size_t>(i)], modeGiven, out, error)) {
            return false;
        }
    }
    return CheckCombination(out, given, error);
}

const char* Options::HelpText() {
    return R"(Usage: kesto-host [OPTIONS] [bridge|echo|list]

Loads libkestobearer-USBAAP.so, connects to an Android phone over USB through
it, and drives the connection the way a remote-display toolkit does.

Modes:
  bridge   (default) copy standard input to the phone and the phone's stream to
           standard output, like netcat; after standard input has ended and
           been sent, goes on copying the phone's stream until the phone has
           been quiet for a second (see --linger)
  echo     send a pseudo-random pattern to the phone's echo application, check
           that it comes back unchanged and in order, and report round-trip
           times and throughput
  list     list the USB devices that could be phones

Choosing the phone (bridge, echo):
  -b, --bus N           the device at this USB bus number (1 to 255) and,
  -a, --address N       given with it, device address (1 to 127)
  -s, --serial TEXT     the device with this USB serial number; not with --bus
  (neither)             the only device that looks like a phone

Command-string fields for the plug-in (bridge, echo; absent unless given):
  --interface N         "interface": accessory interface number, 0 to 255
  --altsetting N        "altsetting": alternate setting, 0 to 255 (needs
                        --interface)
  --manufacturer TEXT   "manufacturer": accessory identity sent to the phone
  --model TEXT          "model"
  --description TEXT    "desc"
  --accessory-version TEXT  "version"
  --uri TEXT            "uri"
  --accessory-serial TEXT  "serial": the accessory's serial, not the phone's

Connection (bridge, echo):
  -p, --plugin PATH     the plug-in to load; otherwise the first found of: next
                        to kesto-host, the install's library directory, the
                        build tree's root (when run from a build tree), then
                        the dynamic linker's search path
  -t, --timeout SECONDS give up when not connected within this time (default 30;
                        0 waits for ever); the message names the step reached

Echo:
  --bytes N[K|M|G]      bytes to send after the pings (default 1M; binary units)
  --pings N             small messages sent one at a time to time the round
                        trip, 0 to 1000 (default 10)
  --ping-bytes N        bytes in each of those messages, 1 to 65536 (default 100)
  --seed N              send the bulk as messages of pseudo-random lengths drawn
                        from seed N, 1 to 2147483647: any length up to 65536
                        bytes, a quarter of them whole multiples of 512 (default:
                        pieces of 16384 bytes)
  --progress N[K|M|G]   print "echo: B bytes back" to standard output when the
                        stream starts, each time another N bytes have come back
                        and at its end, with the process's memory and descriptors

Bridge:
  -l, --linger SECONDS  after standard input has ended and been sent, keep copying
                        from the phone until it has been quiet this long
                        (default 1; 0 ends as soon as the input is sent)

List:
  --all                 list every USB device except hubs, not only likely phones

Output (standard error, timestamped in milliseconds since start):
  -q, --quiet           errors and results only
  -v, --verbose         also the calls between the tool and the plug-in outside
                        the data path: fields, timers, strings, properties
                        (of -q and -v, the last given counts)
  -V, --version         print kesto-host's version and the plug-in's (it loads
                        the plug-in, so --plugin applies), then exit
  -h, --help            this text, then exit

Short options may be bundled (-qs SERIAL), long ones abbreviated while the
abbreviation is unique (--ser), and "--" ends the options. An option that does
not apply to the mode, or a value out of range, is refused with exit status 2.

Exit status: 0 success; 1 the connection or the plug-in failed (the plug-in's
result code and its last log line are printed); 2 bad command line; 3 echo
data came back changed; 130 interrupted.
)";
}
