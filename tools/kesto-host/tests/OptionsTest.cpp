#include "kesto-host/Options.h"

#include <gtest/gtest.h>

#include <functional>
#include <vector>

namespace {

using Fields = std::map<std::string, std::string>;

// Each command line as a user types it, and what the tool makes of it: the
// options, or the mistake named. Bundles, abbreviations, the mode after the
// options or after "--" and the last of -q and -v winning are what users of
// other command-line tools type; identity options become the fields the
// plug-in looks up, and options not given stay out of the command string.
TEST(Options, CommandLinesAndWhatTheToolMakesOfThem) {
    const struct {
        std::vector<const char*> args;
        const char* error; // null: parsed, and `check` holds
        std::function<void(const Options&)> check = {};
    } cases[] = {
        {{}, nullptr,
         [](const Options& o) {
             EXPECT_EQ(o.mode, Options::Mode::Bridge);
             EXPECT_TRUE(o.fields.empty());
             EXPECT_EQ(o.lingerSeconds, 1.0); // a bridge waits a second for the phone's last bytes
         }},
        {{"echo", "--description", "Car display", "--accessory-serial=A1", "--interface", "0", "--altsetting=1",
          "--manufacturer", "", "--uri", "https://example.org/k", "--accessory-version", "4.1"},
         nullptr,
         [](const Options& o) {
             EXPECT_EQ(o.mode, Options::Mode::Echo);
             EXPECT_EQ(o.fields, (Fields{{"desc", "Car display"}, {"serial", "A1"}, {"interface", "0"},
                                         {"altsetting", "1"}, {"manufacturer", ""}, {"uri", "https://example.org/k"},
                                         {"version", "4.1"}}));
         }},
        {{"-vs", "0A1B", "--ling", "2.5", "--time=5", "-Vp./k.so", "--", "bridge"}, nullptr,
         [](const Options& o) {
             EXPECT_EQ(o.verbosity, Verbosity::Verbose);
             EXPECT_EQ(o.serial, "0A1B");
             EXPECT_EQ(o.lingerSeconds, 2.5);
             EXPECT_EQ(o.timeoutSeconds, 5.0);
             EXPECT_TRUE(o.version);
             EXPECT_EQ(o.pluginPath, "./k.so");
         }},
        {{"-qv"}, nullptr, [](const Options& o) { EXPECT_EQ(o.verbosity, Verbosity::Verbose); }},
        {{"-b", "1", "echo", "-a2", "-q"}, nullptr,
         [](const Options& o) {
             EXPECT_EQ(o.mode, Options::Mode::Echo);
             EXPECT_EQ(o.address, 2);
             EXPECT_EQ(o.verbosity, Verbosity::Quiet);
         }},
        // Byte counts take binary suffixes.
        {{"echo", "--bytes", "4096"}, nullptr, [](const Options& o) { EXPECT_EQ(o.echoBytes, 4096u); }},
        {{"echo", "--bytes", "64k"}, nullptr, [](const Options& o) { EXPECT_EQ(o.echoBytes, 64u << 10); }},
        {{"echo", "--bytes=3M"}, nullptr, [](const Options& o) { EXPECT_EQ(o.echoBytes, 3u << 20); }},
        {{"echo", "--bytes", "2G"}, nullptr, [](const Options& o) { EXPECT_EQ(o.echoBytes, 2ull << 30); }},
        {{"echo", "--bytes", "-1"}, "--bytes: '-1' is not a valid value"},
        {{"echo", "--bytes", "1.5M"}, "--bytes: '1.5M' is not a valid value"},
        {{"echo", "--bytes", "12MB"}, "--bytes: '12MB' is not a valid value"},
        {{"echo", "--bytes", "99999999999999999999"}, "--bytes: '99999999999999999999' is not a valid value"},
        {{"--frobnicate"}, "unknown option '--frobnicate'"},
        {{"-qx"}, "unknown option '-x'"},
        {{"--ver"}, "option '--ver' is ambiguous: --verbose, --version"},
        {{"--bus"}, "--bus needs a value"},
        {{"-b"}, "--bus needs a value"},
        {{"--bus", "1"}, "--bus and --address go together"},
        {{"--address", "0", "--bus", "1"}, "--address: '0' is not a valid value"},
        {{"--bus", "1", "--address", "12x"}, "--address: '12x' is not a valid value"},
        {{"--serial", "X", "--bus", "1", "--address", "2"},
         "--serial and --bus/--address both pick the phone: give one of them"},
        {{"--interface", "256"}, "--interface: '256' is not a valid value"},
        {{"--altsetting", "1"}, "--altsetting needs --interface"},
        {{"--timeout", "soon"}, "--timeout: 'soon' is not a valid value"},
        {{"echo", "--ping-bytes", "65537"}, "--ping-bytes: '65537' is not a valid value"},
        {{"echo", "--seed", "0"}, "--seed: '0' is not a valid value"},
        {{"--progress", "100M"}, "--progress is for echo only"},
        {{"--quiet=yes"}, "--quiet takes no value"},
        {{"--bytes", "10"}, "--bytes is for echo only"},
        {{"echo", "--linger", "1"}, "--linger is for bridge only"},
        {{"--all"}, "--all is for list only"},
        {{"list", "--serial", "X"}, "list takes no device, plug-in or connection options"},
        {{"list", "--plugin", "p.so"}, "list takes no device, plug-in or connection options"},
        {{"ping"}, "unknown mode 'ping' (bridge, echo or list)"},
        {{"echo", "bridge"}, "unexpected argument 'bridge'"},
        {{"--", "-q"}, "unknown mode '-q' (bridge, echo or list)"},
    };
    for (const auto& c : cases) {
        std::vector<const char*> args = c.args;
        args.insert(args.begin(), "kesto-host");
        Options options;
        std::string error;
        const bool ok = Options::Parse(static_cast<int>(args.size()), args.data(), options, error);
        SCOPED_TRACE(testing::PrintToString(c.args));
        EXPECT_EQ(c.error == nullptr, ok) << error;
        if (c.error == nullptr && ok) {
            c.check(options);
        } else if (c.error != nullptr) {
            EXPECT_EQ(c.error, error);
        }
    }
}

} // namespace
