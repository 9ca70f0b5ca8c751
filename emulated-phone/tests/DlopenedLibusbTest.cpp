// The integration tests' arrangement: the executable holds the phone and never
// links libusb; libusb arrives later inside a dlopen'ed shared object.
#include "emulated-phone/PhoneWorld.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

namespace emuphone {
namespace {

using namespace std::chrono_literals;
using Connect = int (*)(int bus, int address, unsigned long long echoBytes);

TEST(DlopenedLibusb, ReachesTheInterposedPhoneAndEchoes)
{
    PhoneWorld world(PhoneWorld::IoctlPath::Interposed);
    PhoneOptions options;
    options.startInAccessoryMode = true;
    EmulatedPhone& phone = world.AddPhone(options);
    void* module = dlopen(PROBE_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, module) << dlerror();
    auto connect = reinterpret_cast<Connect>(dlsym(module, "emuphone_probe_connect"));
    ASSERT_NE(nullptr, connect);
    EXPECT_EQ(0, connect(phone.BusNumber(), phone.Address(), 1 << 20));
    EXPECT_TRUE(phone.WaitUntil([](const PhoneReport& r) { return r.bytesToHost == (1u << 20); }, 2000ms));
    EXPECT_TRUE(phone.Report().Reached(PhoneStage::HandshakeDone));
    dlclose(module);
}

} // namespace
} // namespace emuphone
