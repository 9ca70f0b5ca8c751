// A phone is switched, found again, greeted and talked to, and every
// allocation the plug-in makes on that road is made to fail in turn, one per
// run: each run must end connected or with a specified error, never with a
// crash, a hang or anything left behind.

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <map>
#include <set>
#include <string>

#include "support/AllocationFailures.h"
#include "unit/KestoConnectionAAPFixture.h"

extern "C" {
int __lsan_do_recoverable_leak_check() __attribute__((weak));
void __sanitizer_set_death_callback(void (*callback)()) __attribute__((weak));

// libusb allocates inside these calls and reports running out through their
// results; the link routes the plug-in's calls here, so they are numbered too.
#define ALLOCATING(type, name, failed, params, args) \
    type __real_##name params;                       \
    type __wrap_##name params { return AllocationFailures::Allocating() ? failed : __real_##name args; }
ALLOCATING(int, libusb_init, LIBUSB_ERROR_NO_MEM, (libusb_context** c), (c))
ALLOCATING(ssize_t, libusb_get_device_list, ssize_t{LIBUSB_ERROR_NO_MEM},
           (libusb_context* c, libusb_device*** l), (c, l))
ALLOCATING(const libusb_pollfd**, libusb_get_pollfds, nullptr, (libusb_context* c), (c))
ALLOCATING(int, libusb_open, LIBUSB_ERROR_NO_MEM, (libusb_device* d, libusb_device_handle** h), (d, h))
ALLOCATING(int, libusb_get_config_descriptor_by_value, LIBUSB_ERROR_NO_MEM,
           (libusb_device* d, uint8_t v, libusb_config_descriptor** c), (d, v, c))
ALLOCATING(libusb_transfer*, libusb_alloc_transfer, nullptr, (int packets), (packets))
ALLOCATING(int, libusb_submit_transfer, LIBUSB_ERROR_NO_MEM, (libusb_transfer* t), (t))
}

namespace {

using namespace aap;
using namespace std::chrono_literals;

volatile sig_atomic_t current = 0;

struct Journey {
    std::string ending; // "whole road", or the step and the code it ended with
    int allocations;
    std::string failedSite;
};

// A step that failed ends the road there, with a specified error: thrown as the ending.
void Step(const std::string& where, int code) {
    static const std::set<int> specified{KestoBearerErrorInvalidParameter, KestoBearerErrorFailed,
                                         KestoBearerErrorCannotOpenDevice, KestoBearerErrorBufferTooSmall};
    if (code != KestoBearerErrorNone) {
        EXPECT_TRUE(specified.count(code)) << where << " ended with " << code;
        throw where + ": " + std::to_string(code);
    }
}

// One phone at 1:5 that switches to 1:6 when asked.
void PlugPhone() {
    const int phone = fakeusb::Bus::Add(fakeusb::AndroidPhone(1, 5, kSerial));
    Transfers::SetResponder([phone](const Submission& s) {
        if (s.IsControl()) {
            Transfers::Complete(s.id, kCompleted, s.setup.request == 51 ? Bytes{2, 0} : Bytes{});
            if (s.setup.request == 53) {
                fakeusb::Bus::Unplug(phone);
                fakeusb::Bus::Add(fakeusb::AccessoryPhone(1, 6, kSerial));
            }
        }
    });
}

// The toolkit switches the phone, greets it and trades three words each way.
void Drive(Toolkit& toolkit) {
    if (toolkit.Bearer() == nullptr) {
        throw std::string("initialise: no bearer");
    }
    ToolkitConnection& connection = toolkit.AddConnection({{"bus", "1"}, {"dev", "5"}});
    Step("create", toolkit.CreateConnection(connection));
    Step("establish", toolkit.Establish(connection));
    // Runs the toolkit until done() holds; a stall fails the run, a failed connection ends it.
    const auto await = [&](const std::string& where, const std::function<bool()>& done) {
        if (!toolkit.RunUntil([&] { return connection.Failure() != 0 || done(); }, 2s)) {
            throw where + ", stalled";
        }
        Step(where + " (" + connection.FailedCall() + ")", connection.Failure());
    };
    // A bit of the activity that a connectionGetActivity made from now on reports.
    const auto shows = [&](uint32_t bit) {
        return [&connection, bit, calls = connection.ActivityCalls()] {
            return connection.ActivityCalls() > calls && (connection.Activity() & bit) != 0;
        };
    };
    const auto reading = [] { return Transfers::OldestInFlight(kIn).has_value(); };
    const auto writing = [] { return Transfers::OldestInFlight(kOut).has_value(); };
    await("switch and rediscovery", reading);
    Transfers::CompleteOldest(kIn, kCompleted, kDeviceHandshake);
    await("handshake read", writing);
    EXPECT_EQ(kHostHandshake, Transfers::OldestInFlight(kOut)->data);
    Transfers::CompleteOldest(kOut);
    await("handshake write", [&] { return connection.Connected(); });
    for (const std::string word : {"one", "two", "three"}) {
        await("phone's " + word, reading);
        Transfers::CompleteOldest(kIn, kCompleted, Text("ping " + word));
        await("delivery of " + word, shows(KestoBearerActivityReadable));
        const standin::Toolkit::Transfer got = toolkit.Read(connection, 64);
        Step("read of " + word, got.result);
        EXPECT_EQ(Text("ping " + word), got.bytes);
        Step("write of " + word, toolkit.Write(connection, Text("pong " + word)).result);
        await("toolkit's " + word, writing);
        EXPECT_EQ(Text("pong " + word), Transfers::OldestInFlight(kOut)->data);
        Transfers::CompleteOldest(kOut);
        await("write of " + word + " done", shows(KestoBearerActivityWritable));
    }
}

// The road with the plug-in's n-th allocation failing (none for 0). The
// toolkit fails the run for any break of the contract and any string not
// handed back; a connection it could not create is one way for the road to end.
Journey Travel(int n) {
    current = n;
    alarm(30);
    SCOPED_TRACE("allocation " + std::to_string(n));
    fakeusb::Reset();
    PlugPhone();
    AllocationFailures::Sweep(n);
    std::string ending = "whole road";
    try {
        Toolkit toolkit({KestoBearerInitialize});
        Drive(toolkit);
    } catch (const std::string& early) { // the toolkit is gone, its strings checked
        ending = early;
    }
    const Journey run{ending, AllocationFailures::SweepSeen(), AllocationFailures::FailedSite()};
    AllocationFailures::Reset();
    alarm(0);
    EXPECT_EQ(fakeusb::Outstanding{}, fakeusb::Outstanding::Now());
    fakeusb::Reset();
    if (__lsan_do_recoverable_leak_check != nullptr) {
        EXPECT_EQ(0, __lsan_do_recoverable_leak_check()) << "leaks";
    }
    return run;
}

TEST(AllocationSweep, EveryPluginAllocationOnTheWholeRoadFailsCleanly) {
    signal(SIGALRM, [](int) {
        char line[64];
        (void)!write(2, line, std::snprintf(line, sizeof line, "allocation %d: the road hangs\n", int(current)));
        abort();
    });
    if (__sanitizer_set_death_callback != nullptr) { // a sanitizer's report names the run it ends
        __sanitizer_set_death_callback(+[] { std::fprintf(stderr, "allocation %d: the road broke\n", int(current)); });
    }
    const int descriptors = OpenDescriptors();
    Travel(0); // once first: the C library allocates for a process's first thread only
    const Journey full = Travel(0);
    ASSERT_EQ("whole road", full.ending);
    std::map<std::string, std::string> bySite; // each site's runs and how they ended
    for (int n = 1; n <= full.allocations; ++n) {
        const Journey run = Travel(n);
        EXPECT_FALSE(run.failedSite.empty()) << "allocation " << n << " was not made";
        bySite[run.failedSite] += "\n    " + std::to_string(n) + " " + run.ending;
    }
    EXPECT_EQ(descriptors, OpenDescriptors());
    std::printf("allocation sweep: %d allocations by the plug-in on the whole road, from %zu sites, %zu of them failed\n",
                full.allocations, AllocationFailures::Sites().size(), bySite.size());
    for (const auto& [site, runs] : bySite) {
        std::printf("  %s%s\n", site.c_str(), runs.c_str());
    }
    for (const std::string& site : AllocationFailures::Sites()) {
        if (bySite.count(site) == 0) {
            std::printf("  %s: reached, never failed\n", site.c_str());
        }
    }
}

} // namespace
