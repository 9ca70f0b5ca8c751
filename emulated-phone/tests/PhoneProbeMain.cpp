// phone-probe: the accessory protocol's host side, run against whatever phone
// the bus offers, over the real libusb. A plain libusb program: kesto-phone runs
// it on an emulated bus and a demo shows what it prints.
#include "AccessoryHost.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

using emuphone::AccessoryHost;

namespace {

// The root hub every bus has: not a phone.
constexpr uint16_t kLinuxFoundation = 0x1D6B;
constexpr std::chrono::milliseconds kFindTimeout{2000};
constexpr std::chrono::milliseconds kSwitchTimeout{3000};
constexpr unsigned int kHandshakeTimeoutMs = 3000;
constexpr size_t kDefaultChunk = 16384;
constexpr int kDefaultDepth = 2;

struct Options {
    uint64_t echo = 0;
    size_t chunk = kDefaultChunk;
    int depth = kDefaultDepth;
};

bool Parse(int argc, char** argv, Options& options)
{
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        bool hasValue = i + 1 < argc;
        if (arg == "--echo" && hasValue)
            options.echo = std::strtoull(argv[++i], nullptr, 0);
        else if (arg == "--chunk" && hasValue)
            options.chunk = std::strtoull(argv[++i], nullptr, 0);
        else if (arg == "--depth" && hasValue)
            options.depth = std::atoi(argv[++i]);
        else
            return false;
    }
    return options.chunk > 0 && options.depth > 0;
}

int Fail(const char* step, int error)
{
    std::printf("phone-probe: %s failed: %s\n", step, libusb_error_name(error));
    return 1;
}

bool IsAccessory(const AccessoryHost::Device& d) { return d.vendor == AccessoryHost::kAccessoryVendor; }

// Switches a phone in normal mode; returns its serial, which finds it again.
int SwitchPhone(AccessoryHost& host, const AccessoryHost::Device& phone)
{
    if (int error = host.Open(phone.bus, phone.address))
        return Fail("opening the phone", error);
    uint16_t version = 0;
    const std::array<std::string, 6> identity = {"Emphone", "Probe", "Emulated phone probe", "1.0",
                                                 "https://example.invalid/probe", "PROBE0001"};
    auto start = std::chrono::steady_clock::now();
    if (int error = host.Switch(identity, version))
        return Fail("the accessory requests", error);
    host.Close();
    std::printf("phone-probe: phone %04x:%04x serial %s at %d/%d speaks accessory protocol %u\n", phone.vendor,
                phone.product, phone.serial.c_str(), phone.bus, phone.address, version);
    if (!host.WaitUntilGone(phone.address, kSwitchTimeout) || !host.WaitForAccessory(phone.serial, kSwitchTimeout))
        return Fail("waiting for the accessory", LIBUSB_ERROR_TIMEOUT);
    auto ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    std::printf("phone-probe: back in accessory mode %.1f ms after the first request\n", ms);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!Parse(argc, argv, options)) {
        std::printf("usage: phone-probe [--echo BYTES] [--chunk BYTES] [--depth N]\n");
        return 2;
    }
    AccessoryHost host;
    auto phone = host.WaitForDevice([](const AccessoryHost::Device& d) { return d.vendor != kLinuxFoundation; },
                                    kFindTimeout);
    if (!phone)
        return Fail("finding a phone", LIBUSB_ERROR_NOT_FOUND);
    if (!IsAccessory(*phone) && SwitchPhone(host, *phone) != 0)
        return 1;
    auto accessory = host.WaitForAccessory(phone->serial, kSwitchTimeout);
    if (!accessory)
        return Fail("finding the accessory", LIBUSB_ERROR_NOT_FOUND);
    if (int error = host.Open(accessory->bus, accessory->address))
        return Fail("opening the accessory", error);
    if (int error = host.ClaimAccessory())
        return Fail("claiming the accessory interface", error);
    if (int error = host.Handshake(kHandshakeTimeoutMs))
        return Fail("the handshake", error);
    std::printf("phone-probe: accessory %04x:%04x at %d/%d, interface %d, endpoints IN 0x%02x OUT 0x%02x, "
                "handshake done\n",
                accessory->vendor, accessory->product, accessory->bus, accessory->address, host.Interface(),
                host.In(), host.Out());
    if (options.echo == 0)
        return 0;
    AccessoryHost::EchoResult echo = host.Echo(options.echo, options.chunk, options.depth);
    if (echo.error)
        return Fail(echo.problem.c_str(), echo.error);
    std::printf("phone-probe: echoed %llu bytes intact in %.3f s (%.1f MB/s)\n",
                static_cast<unsigned long long>(echo.bytes), echo.seconds, echo.bytes / echo.seconds / 1e6);
    return 0;
}
