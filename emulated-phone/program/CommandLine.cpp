#include "CommandLine.h"

#include <cerrno>
#include <cstdlib>
#include <functional>

namespace emuphone {
namespace {

using Setter = std::function<bool(PhoneOptions&, const std::string&)>;

// Ports on the emulated root hub.
constexpr long long kMostPhones = 8;
// Where option help starts, clear of most option names.
constexpr size_t kHelpColumn = 21;

// One option: its name, the value it takes (null: none), its help line, what it sets.
struct Knob {
    const char* name;
    const char* value;
    const char* help;
    Setter set;
};

bool Number(const std::string& text, long long& out)
{
    char* end = nullptr;
    errno = 0;
    out = std::strtoll(text.c_str(), &end, 0);
    return errno == 0 && end && *end == '\0' && !text.empty();
}

template <typename T>
Setter NumberInto(T PhoneOptions::*field)
{
    return [field](PhoneOptions& o, const std::string& v) {
        long long n = 0;
        if (!Number(v, n))
            return false;
        o.*field = static_cast<T>(n);
        return true;
    };
}

Setter MillisecondsInto(std::chrono::milliseconds PhoneOptions::*field)
{
    return [field](PhoneOptions& o, const std::string& v) {
        long long n = 0;
        if (!Number(v, n))
            return false;
        o.*field = std::chrono::milliseconds(n);
        return true;
    };
}

Setter FlagInto(bool PhoneOptions::*field, bool value)
{
    return [field, value](PhoneOptions& o, const std::string&) {
        o.*field = value;
        return true;
    };
}

bool Stage(const std::string& name, PhoneStage& stage)
{
    for (int s = 0; s <= static_cast<int>(PhoneStage::Unplugged); ++s)
        if (name == StageName(static_cast<PhoneStage>(s))) {
            stage = static_cast<PhoneStage>(s);
            return true;
        }
    return false;
}

// STAGE or STAGE+BYTES.
bool StageAndBytes(const std::string& text, PhoneStage& stage, uint64_t& bytes)
{
    size_t plus = text.find('+');
    long long n = 0;
    if (plus != std::string::npos && (!Number(text.substr(plus + 1), n) || n < 0))
        return false;
    bytes = static_cast<uint64_t>(n);
    return Stage(text.substr(0, plus), stage);
}

bool Hex(const std::string& text, std::vector<uint8_t>& bytes)
{
    bytes.clear();
    std::string digits;
    for (char c : text)
        if (c != ' ' && c != ':')
            digits += c;
    if (digits.size() % 2)
        return false;
    for (size_t i = 0; i < digits.size(); i += 2) {
        char* end = nullptr;
        std::string pair = digits.substr(i, 2);
        bytes.push_back(static_cast<uint8_t>(std::strtoul(pair.c_str(), &end, 16)));
        if (*end != '\0')
            return false;
    }
    return true;
}

bool Link(const std::string& text, LinkModel& link)
{
    if (text == "hs" || text == "ss" || text == "instant") {
        link = text == "hs" ? LinkModel::HighSpeed() : text == "ss" ? LinkModel::SuperSpeed() : LinkModel::Instant();
        return true;
    }
    size_t slash = text.find('/');
    long long rate = 0, latency = 0;
    if (slash == std::string::npos || !Number(text.substr(0, slash), rate) ||
        !Number(text.substr(slash + 1), latency) || rate < 0 || latency < 0)
        return false;
    link.bytesPerSecond = static_cast<double>(rate);
    link.latency = std::chrono::microseconds(latency);
    return true;
}

// REQUEST[:COUNT[:eproto|epipe|silent]]
bool Fault(const std::string& text, PhoneOptions::ControlFault& fault)
{
    size_t first = text.find(':');
    size_t second = first == std::string::npos ? first : text.find(':', first + 1);
    long long request = 0, count = 1;
    if (!Number(text.substr(0, first), request))
        return false;
    if (first != std::string::npos && !Number(text.substr(first + 1, second - first - 1), count))
        return false;
    std::string status = second == std::string::npos ? "eproto" : text.substr(second + 1);
    if (status != "eproto" && status != "epipe" && status != "silent")
        return false;
    fault.request = static_cast<uint8_t>(request);
    fault.count = static_cast<int>(count);
    fault.urbStatus = status == "eproto" ? -EPROTO : status == "epipe" ? -EPIPE : 0;
    return true;
}

// A word from a fixed list, each standing for a value.
template <typename T>
Setter ChoiceInto(T PhoneOptions::*field, std::vector<std::pair<std::string, T>> words)
{
    return [field, words](PhoneOptions& o, const std::string& v) {
        for (const auto& [word, value] : words)
            if (word == v) {
                o.*field = value;
                return true;
            }
        return false;
    };
}

bool AddFault(PhoneOptions& o, const std::string& v)
{
    PhoneOptions::ControlFault fault;
    if (!Fault(v, fault))
        return false;
    o.controlFaults.push_back(fault);
    return true;
}

// in|out[@STAGE[+BYTES]]
bool Stall(PhoneOptions& o, const std::string& v)
{
    size_t at = v.find('@');
    std::string which = v.substr(0, at);
    if (which != "in" && which != "out")
        return false;
    o.stallEndpoint = which == "in" ? PhoneOptions::Endpoint::In : PhoneOptions::Endpoint::Out;
    return at == std::string::npos || StageAndBytes(v.substr(at + 1), o.stallAt, o.stallAfterBytes);
}

bool UnplugAt(PhoneOptions& o, const std::string& v)
{
    PhoneStage stage;
    if (!StageAndBytes(v, stage, o.unplugAfterBytes))
        return false;
    o.unplugAt = stage;
    return true;
}

void AddIdentityKnobs(std::vector<Knob>& knobs)
{
    knobs.insert(knobs.end(), {
        {"--vendor", "HEX", "normal-mode vendor id (default 0x1209)", NumberInto(&PhoneOptions::vendorId)},
        {"--product", "HEX", "normal-mode product id (default 0x0001)", NumberInto(&PhoneOptions::productId)},
        {"--serial", "TEXT", "serial number string (default EMULATED0001)",
         [](PhoneOptions& o, const std::string& v) { o.serial = v; return true; }},
        {"--no-serial", nullptr, "the phone has no serial number string",
         [](PhoneOptions& o, const std::string&) { o.serial.reset(); return true; }},
        {"--protocol", "N", "accessory protocol version answered to request 51 (default 2)",
         NumberInto(&PhoneOptions::protocolVersion)},
        {"--version-reply-bytes", "N", "bytes in that answer (default 2)",
         NumberInto(&PhoneOptions::versionReplyLength)},
        {"--fail-request", "REQ[:COUNT[:eproto|epipe|silent]]", "fail vendor request REQ COUNT times", AddFault},
    });
}

void AddEnumerationKnobs(std::vector<Knob>& knobs)
{
    knobs.insert(knobs.end(), {
        {"--accessory", nullptr, "start already in accessory mode", FlagInto(&PhoneOptions::startInAccessoryMode, true)},
        {"--no-debug-bridge", nullptr, "no debug-bridge interface (accessory id 0x2D00)",
         FlagInto(&PhoneOptions::debugBridge, false)},
        {"--bridge-first", nullptr, "list the debug-bridge interface first",
         FlagInto(&PhoneOptions::debugBridgeFirst, true)},
        {"--out-first", nullptr, "list the accessory's OUT endpoint first",
         FlagInto(&PhoneOptions::outEndpointFirst, true)},
        {"--unconfigured", nullptr, "come back in accessory mode unconfigured",
         FlagInto(&PhoneOptions::accessoryUnconfigured, true)},
        {"--superspeed", nullptr, "1024-byte bulk packets, speed 5000", FlagInto(&PhoneOptions::superSpeed, true)},
        {"--drop-ms", "N", "start request to off the bus (default 30)", MillisecondsInto(&PhoneOptions::dropDelay)},
        {"--return-ms", "N", "off the bus to back in accessory mode; negative: never (default 35)",
         MillisecondsInto(&PhoneOptions::returnDelay)},
    });
}

void AddStreamKnobs(std::vector<Knob>& knobs)
{
    using A = PhoneOptions::Application;
    using R = PhoneOptions::ReadRule;
    knobs.insert(knobs.end(), {
        {"--app", "echo|sink|source", "the phone application (default echo)",
         ChoiceInto(&PhoneOptions::application, {{"echo", A::Echo}, {"sink", A::Sink}, {"source", A::Source}})},
        {"--source-bytes", "N", "a source stops after N bytes (default: never)", NumberInto(&PhoneOptions::sourceBytes)},
        {"--source-chunk", "N", "bytes per source write (default 16384)", NumberInto(&PhoneOptions::sourceChunk)},
        {"--read-rule", "as-it-comes|phone", "how transfers become the application's reads (default phone)",
         ChoiceInto(&PhoneOptions::readRule, {{"as-it-comes", R::AsItComes}, {"phone", R::PhoneDriver}})},
        {"--handshake", "HEX", "bytes the phone sends as its handshake (default FFFF00000A0A444556)",
         [](PhoneOptions& o, const std::string& v) { return Hex(v, o.handshake); }},
        {"--silent", nullptr, "the phone never sends its handshake", FlagInto(&PhoneOptions::sendHandshake, false)},
        {"--handshake-delay-ms", "N", "after the interface is claimed (default 0)",
         MillisecondsInto(&PhoneOptions::handshakeDelay)},
        {"--handshake-chunk", "N", "send the handshake in writes of N bytes", NumberInto(&PhoneOptions::handshakeChunk)},
        {"--zlp-before-handshake", "N", "empty writes before the handshake",
         NumberInto(&PhoneOptions::zeroLengthBeforeHandshake)},
        {"--write-chunk", "N", "split application writes into N-byte writes", NumberInto(&PhoneOptions::writeChunk)},
        {"--out-cap", "N", "accept at most N bytes of each host transfer", NumberInto(&PhoneOptions::outCompletionCap)},
        {"--link", "hs|ss|instant|BYTES_PER_S/LATENCY_US", "the wire (default hs: 53248000/125)",
         [](PhoneOptions& o, const std::string& v) { return Link(v, o.link); }},
    });
}

void AddFaultKnobs(std::vector<Knob>& knobs)
{
    knobs.insert(knobs.end(), {
        {"--stall", "in|out[@STAGE[+BYTES]]", "halt an accessory endpoint (default at handshake-done)", Stall},
        {"--unplug-at", "STAGE[+BYTES]", "pull the cable at a stage, after BYTES from the host", UnplugAt},
        {"--unplug-status", "shutdown|eproto", "how transfers in flight end on unplug (default shutdown)",
         ChoiceInto(&PhoneOptions::unplugStatus, {{"shutdown", -ESHUTDOWN}, {"eproto", -EPROTO}})},
    });
}

const std::vector<Knob>& Knobs()
{
    static const std::vector<Knob> knobs = [] {
        std::vector<Knob> all;
        AddIdentityKnobs(all);
        AddEnumerationKnobs(all);
        AddStreamKnobs(all);
        AddFaultKnobs(all);
        return all;
    }();
    return knobs;
}

const Knob* Find(const std::string& name)
{
    for (const Knob& knob : Knobs())
        if (name == knob.name)
            return &knob;
    return nullptr;
}

} // namespace

bool CommandLine::Parse(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--") {
            command_.assign(argv + i + 1, argv + argc);
            break;
        }
        std::string value;
        size_t equals = arg.find('=');
        bool inlineValue = equals != std::string::npos;
        if (inlineValue) {
            value = arg.substr(equals + 1);
            arg = arg.substr(0, equals);
        }
        bool takesValue = arg == "--phones" || (Find(arg) && Find(arg)->value);
        if (takesValue && !inlineValue) {
            if (i + 1 >= argc)
                return Refuse(arg + " needs a value");
            value = argv[++i];
        }
        if (!Apply(arg, value))
            return false;
    }
    if (!help_ && command_.empty())
        return Refuse("no command given after --");
    return true;
}

bool CommandLine::Apply(const std::string& name, const std::string& value)
{
    if (name == "-h" || name == "--help") {
        help_ = true;
        return true;
    }
    if (name == "--quiet") {
        quiet_ = true;
        return true;
    }
    if (name == "--phones") {
        long long n = 0;
        if (!Number(value, n) || n < 1 || n > kMostPhones)
            return Refuse("--phones takes 1 to " + std::to_string(kMostPhones));
        phones_ = static_cast<int>(n);
        return true;
    }
    const Knob* knob = Find(name);
    if (!knob)
        return Refuse("unknown option " + name);
    if (!knob->set(phone_, value))
        return Refuse("bad value for " + name + ": " + value);
    return true;
}

bool CommandLine::Refuse(const std::string& why)
{
    error_ = why;
    return false;
}

std::string CommandLine::Usage()
{
    std::string text = "usage: kesto-phone [options] -- command [args...]\n\n"
                       "Runs the command on an emulated USB bus with Android phones on it, the way\n"
                       "umockdev-run does, and prints what each phone saw when the command ends.\n"
                       "Exits with the command's status.\n\n"
                       "  --phones N           how many phones (serials then end in -1, -2, ...)\n"
                       "  --quiet              print no report\n"
                       "  -h, --help           this text\n";
    for (const Knob& knob : Knobs()) {
        std::string left = std::string(knob.name) + (knob.value ? std::string(" ") + knob.value : "");
        std::string gap = left.size() < kHelpColumn ? std::string(kHelpColumn - left.size(), ' ')
                                                     : "\n" + std::string(kHelpColumn + 2, ' ');
        text += "  " + left + gap + knob.help + "\n";
    }
    text += "\nStages: attached version-queried identity-received start-requested detached\n"
            "accessory-attached interface-claimed handshake-sent handshake-done handshake-failed\n";
    return text;
}

} // namespace emuphone
