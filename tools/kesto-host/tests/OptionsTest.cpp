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
                      "--altsetting=1", "--manufacturer", "", "--uri", "https://example.org/k"});
    ASSERT_TRUE(p.ok) << p.error;
    EXPECT_EQ(p.options.mode, Options::Mode::Echo);
    EXPECT_EQ(p.options.fields, (std::map<std::string, std::string>{{"desc", "Car display"},
                                                                     {"serial", "A1"},
                                                                     {"interface", "0"},
                                                                     {"altsetting", "1"},
                                                                     {"manufacturer", ""},
                                                                     {"uri", "https://example.org/k"}}));
    // Bare, it bridges, and options not given stay out of the command string.
    EXPECT_EQ(Parse({}).options.mode, Options::Mode::Bridge);
    EXPECT_TRUE(Parse({}).options.fields.empty());
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
        {{"--bus"}, "--bus needs a value"},
        {{"--bus", "1"}, "--bus and --address go together"},
        {{"--address", "0", "--bus", "1"}, "--address: '0' is not a valid value"},
        {{"--bus", "1", "--address", "12x"}, "--address: '12x' is not a valid value"},
        {{"--serial", "X", "--bus", "1", "--address", "2"},
         "--serial and --bus/--address both pick the phone: give one of them"},
        {{"--interface", "256"}, "--interface: '256' is not a valid value"},
        {{"--timeout", "soon"}, "--timeout: 'soon' is not a valid value"},
        {{"--quiet", "--verbose"}, "--quiet and --verbose contradict each other"},
        {{"--quiet=yes"}, "--quiet takes no value"},
        {{"--bytes", "10"}, "--bytes does not apply to this mode"},
        {{"echo", "--linger", "1"}, "--linger does not apply to this mode"},
        {{"list", "--serial", "X"}, "list takes no device, plug-in or connection options"},
        {{"ping"}, "unknown mode 'ping' (bridge, echo or list)"},
        {{"echo", "bridge"}, "unexpected argument 'bridge'"},
    };
    for (const auto& c : cases) {
        Parsed p = Parse(c.args);
        EXPECT_FALSE(p.ok) << c.error;
        EXPECT_EQ(p.error, c.error);
    }
}

} // namespace
