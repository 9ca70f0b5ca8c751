// A toolkit connects, transfers and disconnects again and again: every cycle
// must give back its descriptors and its memory. One world for the whole run,
// because umockdev keeps two descriptors of every world it makes.
#include <malloc.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "PhoneStory.h"

namespace {

constexpr int kWarmUpCycles = 20;
constexpr int kCycles = 200;
constexpr uint64_t kBytesPerCycle = 64000;
const std::vector<uint8_t> kDeviceHandshake = {0xFF, 0xFF, 0x00, 0x00, 0x0A, 0x0A, 0x44, 0x45, 0x56};
const std::vector<uint8_t> kHostHandshake = {0xFF, 0xFF, 0x00, 0x00, 0x0A, 0x0A, 0x48, 0x4F, 0x53, 0x54};

// Less than one smallest chunk (32 bytes) lost per cycle; what other threads
// hold for a moment when the heap is counted stays below it.
constexpr size_t kHeapSlack = 4096;

// glibc counts chunks parked in a thread's cache as in use, and keeps every
// arena it makes: ctest sets GLIBC_TUNABLES to KESTO_HEAP_TUNABLES (no cache,
// one arena) so that neither blurs the count. Under AddressSanitizer,
// LeakSanitizer checks the heap at exit instead.
bool HeapCountable() {
#if defined(__SANITIZE_ADDRESS__)
    return false;
#else
    const char* tunables = std::getenv("GLIBC_TUNABLES");
    return tunables != nullptr && std::strstr(tunables, KESTO_HEAP_TUNABLES) != nullptr;
#endif
}

size_t HeapInUse() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

// The phone sends its handshake once per enumeration, so from the second
// connection on the test plays that part; its echo application then returns
// the host's handshake as the first bytes of the stream.
void Cycle(emuphone::EmulatedPhone& phone, int number) {
    SCOPED_TRACE(testing::Message() << "cycle " << number);
    Toolkit toolkit(PluginToolkit());
    if (number > 0) {
        phone.WriteToHost(kDeviceHandshake);
    }
    ToolkitConnection& connection = toolkit.CreateConnection(At(phone));
    ASSERT_EQ(0, toolkit.Establish(connection));
    ASSERT_TRUE(RunUntilConnected(toolkit, connection));
    if (number > 0) {
        std::vector<uint8_t> echoed;
        toolkit.RunUntil([&] { return !(echoed = toolkit.Read(connection, 64).bytes).empty(); });
        ASSERT_EQ(kHostHandshake, echoed);
    }
    const EchoRun run = Echo(toolkit, connection, kBytesPerCycle);
    ASSERT_EQ(0, run.error);
    ASSERT_EQ(kBytesPerCycle, run.returned);
}

TEST(ConnectionCycles, TwoHundredGiveBackEveryDescriptorAndAllMemory) {
    emuphone::PhoneWorld world(emuphone::PhoneWorld::IoctlPath::Interposed);
    emuphone::PhoneOptions options;
    options.startInAccessoryMode = true;
    emuphone::EmulatedPhone& phone = world.AddPhone(options);

    // Once-only allocations (libusb, libudev, the dynamic loader) happen here.
    for (int i = 0; i < kWarmUpCycles; ++i) {
        ASSERT_NO_FATAL_FAILURE(Cycle(phone, i));
    }
    // The last cycle's late closes: the count is taken once it holds still.
    const int descriptors = OpenDescriptorsOnceSettled(-1);
    const size_t heap = HeapInUse();
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kCycles; ++i) {
        ASSERT_NO_FATAL_FAILURE(Cycle(phone, kWarmUpCycles + i));
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    EXPECT_EQ(descriptors, OpenDescriptorsOnceSettled(descriptors));
    std::printf("[ figure ] %d connect/transfer/destroy cycles of %llu bytes: %.2f ms each, %d descriptors\n",
                kCycles, static_cast<unsigned long long>(kBytesPerCycle), seconds * 1000 / kCycles, descriptors);
    if (HeapCountable()) {
        EXPECT_LE(HeapInUse(), heap + kHeapSlack) << "heap bytes in use before and after " << kCycles << " cycles";
        std::printf("[ figure ] heap in use: %zu bytes before the cycles, %zu after\n", heap, HeapInUse());
    } else {
        std::printf("[ note   ] heap not counted here (LeakSanitizer's, or needs GLIBC_TUNABLES=%s)\n",
                    KESTO_HEAP_TUNABLES);
    }
}

} // namespace
