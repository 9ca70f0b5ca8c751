#include "kesto-host/Options.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

struct Parsed {
    bool ok;
    Options options;
    std::string error;
};

Parsed Parse(std::vector<const char*> args) {
    args.insert(args.begin(), "kesto-host");
    Parsed p;
    p.ok = Options::Parse(static_cast<int>(args.size()), args.data(), p.options, p.error);
    return p;
}

TEST(Options, IdentityOptionsBecomeTheFieldsThePluginLooksUp) {
    Parsed p = Parse({"echo", "--description", "Car display", "--accessory-serial=A1", "--interface", "0",
                      "--altsetting=1", "--manufacturer", "", "--uri", "https://example.org/k",
                      "--accessory-version", "4.1"});
    ASSERT_TRUE(p.ok) << p.error;
    EXPECT_EQ(p.options.mode, Options::Mode::Echo);
    EXPECT_EQ(p.options.fields, (std::map<std::string, std::string>{{"desc", "Car display"},
                                                                     {"serial", "A1"},
                                                                     {"interface", "0"},
                                                                     {"altsetting", "1"},
                                                                     {"manufacturer", ""},
                                                                     {"uri", "https://example.org/k"},
                                                                     {"version", "4.1"}}));
    // Bare, it bridges, and options not given stay out of the command string.
    EXPECT_EQ(Parse({}).options.mode, Options::Mode::Bridge);
    EXPECT_TRUE(Parse({}).options.fields.empty());
    // A bridge waits a second for the phone's last bytes unless told otherwise.
    EXPECT_EQ(Parse({}).options.lingerSeconds, 1.0);
}

// What a user of other command-line tools types: bundles, abbreviations, the
// mode after the options or after "--", and the last of -q and -v winning.
TEST(Options, ReadLikeOtherCommandLineTools) {
    Parsed p = Parse({"-vs", "0A1B", "--ling", "2.5", "--time=5", "-Vp./k.so", "--", "bridge"});
    ASSERT_TRUE(p.ok) << p.error;
    EXPECT_EQ(p.options.verbosity, Verbosity::Verbose);
    EXPECT_EQ(p.options.serial, "0A1B");
    EXPECT_EQ(p.options.lingerSeconds, 2.5);
    EXPECT_EQ(p.options.timeoutSeconds, 5.0);
    EXPECT_TRUE(p.options.version);
    EXPECT_EQ(p.options.pluginPath, "./k.so");
    EXPECT_EQ(Parse({"-qv"}).options.verbosity, Verbosity::Verbose);
    p = Parse({"-b", "1", "echo", "-a2", "-q"});
    ASSERT_TRUE(p.ok) << p.error;
    EXPECT_EQ(p.options.mode, Options::Mode::Echo);
    EXPECT_EQ(p.options.address, 2);
    EXPECT_EQ(p.options.verbosity, Verbosity::Quiet);
}

TEST(Options, ByteCountsTakeBinarySuffixes) {
    EXPECT_EQ(Parse({"echo", "--bytes", "4096"}).options.echoBytes, 4096u);
    EXPECT_EQ(Parse({"echo", "--bytes", "64k"}).options.echoBytes, 64u * 1024);
    EXPECT_EQ(Parse({"echo", "--bytes=3M"}).options.echoBytes, 3u * 1024 * 1024);
    EXPECT_EQ(Parse({"echo", "--bytes", "2G"}).options.echoBytes, 2ull << 30);
    for (const char* bad : {"-1", "1.5M", "12MB", "99999999999999999999"}) {
        EXPECT_FALSE(Parse({"echo", "--bytes", bad}).ok) << bad;
    }
}

TEST(Options, MistakesAreNamed) {
    const struct {
        std::vector<const char*> args;
        const char* error;
    } cases[] = {
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
        Parsed p = Parse(c.args);
        EXPECT_FALSE(p.ok) << c.error;
        EXPECT_EQ(p.error, c.error);
    }
}

} // namespace
