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
using Clock = std::chrono::steady_clock;

volatile sig_atomic_t current = 0;

// A refused connection is one way for the road to end; every other break of
// the plug-in's contract fails the test.
class Listener : public standin::ToolkitListener {
public:
    void Problem(const std::string& problem) override {
        if (std::sscanf(problem.c_str(), "bearerCreateConnection returned %d", &refused) != 1) {
            ADD_FAILURE() << "allocation " << current << ": " << problem;
        }
    }
    int refused = 0;
};

struct Journey {
    std::string ending; // "whole road", or the step and the code it ended with
    int allocations;
    std::string failedSite;
};

class Road {
public:
    // One phone at 1:5 that switches to 1:6 when asked.
    Road() {
        fakeusb::Reset();
        phone = fakeusb::Bus::Add(fakeusb::AndroidPhone(1, 5, kSerial));
        Transfers::SetResponder([this](const Submission& s) {
            if (s.IsControl()) {
                Transfers::Complete(s.id, kCompleted, s.setup.request == 51 ? Bytes{2, 0} : Bytes{});
                if (s.setup.request == 53) {
                    fakeusb::Bus::Unplug(phone);
                    fakeusb::Bus::Add(fakeusb::AccessoryPhone(1, 6, kSerial));
                }
            }
        });
    }

    // The road with the plug-in's n-th allocation failing (none for 0).
    Journey Travel(int n) {
        current = n;
        alarm(30);
        Listener listener;
        AllocationFailures::Sweep(n);
        std::string ending;
        {
            standin::Toolkit::Options options{KestoBearerInitialize};
            options.listener = &listener;
            standin::Toolkit toolkit(options);
            ending = Drive(toolkit, listener);
            toolkit.Terminate();
            EXPECT_THAT(toolkit.StringProblems(), testing::IsEmpty()) << "allocation " << n;
        }
        const Journey run{ending, AllocationFailures::SweepSeen(), AllocationFailures::FailedSite()};
        AllocationFailures::Reset();
        alarm(0);
        EXPECT_EQ(fakeusb::Outstanding{}, fakeusb::Outstanding::Now()) << "allocation " << n;
        fakeusb::Reset();
        if (__lsan_do_recoverable_leak_check != nullptr) {
            EXPECT_EQ(0, __lsan_do_recoverable_leak_check()) << "allocation " << n << " leaks";
        }
        return run;
    }

private:
    std::string Drive(standin::Toolkit& toolkit, const Listener& listener) {
        if (toolkit.Bearer() == nullptr) {
            return "initialise: no bearer";
        }
        ToolkitConnection& connection = toolkit.CreateConnection({{"bus", "1"}, {"dev", "5"}});
        if (connection.Handle() == nullptr) {
            return Ended("create", listener.refused);
        }
        if (const int result = toolkit.Establish(connection)) {
            return Ended("establish", result);
        }
        // Runs the toolkit until done() holds; false when the connection failed or stalled.
        const auto await = [&](const std::function<bool()>& done) {
            for (const auto end = Clock::now() + 2s; !done() && connection.Failure() == 0 && Clock::now() < end;) {
                toolkit.RunOnce(10ms);
            }
            return done();
        };
        const auto stopped = [&](const std::string& where) {
            if (connection.Failure() != 0) {
                return Ended(where + " (" + connection.FailedCall() + ")", connection.Failure());
            }
            uint32_t activity = 0; // stalled: what does asking say?
            return Ended(where + ", stalled", toolkit.Interface().connectionGetActivity(connection.Handle(), &activity));
        };
        // A bit of the activity that a connectionGetActivity made from now on reports.
        const auto shows = [&](uint32_t bit) {
            return [&connection, bit, calls = connection.ActivityCalls()] {
                return connection.ActivityCalls() > calls && (connection.Activity() & bit) != 0;
            };
        };
        const auto reading = [] { return Transfers::OldestInFlight(kIn).has_value(); };
        const auto writing = [] { return Transfers::OldestInFlight(kOut).has_value(); };
        if (!await(reading)) {
            return stopped("switch and rediscovery");
        }
        Transfers::CompleteOldest(kIn, kCompleted, kDeviceHandshake);
        if (!await(writing)) {
            return stopped("handshake read");
        }
        EXPECT_EQ(kHostHandshake, Transfers::OldestInFlight(kOut)->data);
        Transfers::CompleteOldest(kOut);
        if (!await([&] { return connection.Connected(); })) {
            return stopped("handshake write");
        }
        for (const std::string word : {"one", "two", "three"}) {
            if (!await(reading)) {
                return stopped("phone's " + word);
            }
            Transfers::CompleteOldest(kIn, kCompleted, Text("ping " + word));
            if (!await(shows(KestoBearerActivityReadable))) {
                return stopped("delivery of " + word);
            }
            const standin::Toolkit::Transfer got = toolkit.Read(connection, 64);
            if (got.result != KestoBearerErrorNone) {
                return Ended("read of " + word, got.result);
            }
            EXPECT_EQ(Text("ping " + word), got.bytes) << "allocation " << current;
            const standin::Toolkit::Transfer put = toolkit.Write(connection, Text("pong " + word));
            if (put.result != KestoBearerErrorNone) {
                return Ended("write of " + word, put.result);
            }
            if (!await(writing)) {
                return stopped("toolkit's " + word);
            }
            EXPECT_EQ(Text("pong " + word), Transfers::OldestInFlight(kOut)->data) << "allocation " << current;
            Transfers::CompleteOldest(kOut);
            if (!await(shows(KestoBearerActivityWritable))) {
                return stopped("write of " + word + " done");
            }
        }
        return "whole road";
    }

    static std::string Ended(const std::string& where, int code) {
        static const std::set<int> specified{KestoBearerErrorInvalidParameter, KestoBearerErrorFailed,
                                             KestoBearerErrorCannotOpenDevice, KestoBearerErrorBufferTooSmall};
        EXPECT_TRUE(specified.count(code)) << "allocation " << current << ": " << where << " ended with " << code;
        return where + ": " + std::to_string(code);
    }

    int phone = -1;
};

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
    Road().Travel(0); // once first: the C library allocates for a process's first thread only
    const Journey full = Road().Travel(0);
    ASSERT_EQ("whole road", full.ending);
    std::map<std::string, std::string> bySite; // each site's runs and how they ended
    for (int n = 1; n <= full.allocations; ++n) {
        const Journey run = Road().Travel(n);
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
