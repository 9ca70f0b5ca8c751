// A shared object that reaches libusb only through its own dependencies, loaded
// with dlopen the way a toolkit loads the plug-in: the emulated phone must be
// reachable from it over the interposed path.
#include "AccessoryHost.h"

namespace {

constexpr unsigned int kHandshakeTimeoutMs = 2000;
constexpr size_t kChunk = 16384;
constexpr int kDepth = 2;

} // namespace

// Opens the accessory at bus/address, claims it, handshakes and echoes
// `echoBytes`; returns 0, or the libusb error of the step that failed.
extern "C" __attribute__((visibility("default"))) int emuphone_probe_connect(int bus, int address,
                                                                               unsigned long long echoBytes)
{
    emuphone::AccessoryHost host;
    if (int error = host.Open(bus, address))
        return error;
    if (int error = host.ClaimAccessory())
        return error;
    if (int error = host.Handshake(kHandshakeTimeoutMs))
        return error;
    return host.Echo(echoBytes, kChunk, kDepth).error;
}
