// kesto-phone: runs a command on an emulated USB bus with Android phones on it.
#include "ChildProcess.h"
#include "CommandLine.h"

#include "emulated-phone/PhoneReportText.h"
#include "emulated-phone/PhoneWorld.h"

#include <cstdio>
#include <dlfcn.h>
#include <cstdlib>
#include <cerrno>
#include <cstring>
#include <exception>
#include <string>
#include <unistd.h>
#include <vector>

using namespace emuphone;

namespace {

// Exit status for a command line that makes no sense, as getopt-based tools use.
constexpr int kUsageError = 2;
constexpr int kWorldFailed = 1;
constexpr char kPreload[] = "libumockdev-preload.so.0";

std::vector<EmulatedPhone*> AddPhones(PhoneWorld& world, const CommandLine& line)
{
    std::vector<EmulatedPhone*> phones;
    for (int i = 1; i <= line.Phones(); ++i) {
        PhoneOptions options = line.Phone();
        if (line.Phones() > 1 && options.serial)
            *options.serial += "-" + std::to_string(i);
        phones.push_back(&world.AddPhone(options));
    }
    return phones;
}

void Announce(const std::vector<EmulatedPhone*>& phones, const CommandLine& line)
{
    for (size_t i = 0; i < phones.size(); ++i) {
        PhoneReport report = phones[i]->Report();
        std::fprintf(stderr, "kesto-phone: phone %zu (serial %s) on bus %d at address %d\n", i + 1,
                     report.serial ? report.serial->c_str() : "none", phones[i]->BusNumber(), phones[i]->Address());
    }
    std::fprintf(stderr, "kesto-phone: running %s\n", line.Command().front().c_str());
}

// A sanitizer runtime this program was built with must stay first in
// LD_PRELOAD, ahead of umockdev's preload.
std::string SanitizerRuntime()
{
    for (const char* entry : {"__asan_init", "__tsan_init"}) {
        Dl_info info{};
        void* symbol = dlsym(RTLD_DEFAULT, entry);
        if (symbol && dladdr(symbol, &info) && info.dli_fname && std::strstr(info.dli_fname, ".so"))
            return info.dli_fname;
    }
    return {};
}

// umockdev announces devices through libudev, which must see the testbed's
// sysfs as /sys: this process runs under the preload too, as umockdev-run
// does. The command gets the LD_PRELOAD it was given, not our sanitizer's.
void RunUnderPreload(char** argv)
{
    if (PhoneWorld::PreloadActive())
        return;
    std::string preload = SanitizerRuntime();
    const char* existing = std::getenv("LD_PRELOAD");
    setenv(ChildProcess::kGivenPreload, existing ? existing : "", 1);
    if (existing && *existing)
        preload += (preload.empty() ? "" : ":") + std::string(existing);
    preload += (preload.empty() ? "" : ":") + std::string(kPreload);
    setenv("LD_PRELOAD", preload.c_str(), 1);
    execv("/proc/self/exe", argv);
    std::fprintf(stderr, "kesto-phone: cannot restart under %s: %s\n", kPreload, std::strerror(errno));
    std::exit(kWorldFailed);
}

} // namespace

int main(int argc, char** argv)
{
    CommandLine line;
    if (!line.Parse(argc, argv)) {
        std::fprintf(stderr, "kesto-phone: %s (see kesto-phone --help)\n", line.Error().c_str());
        return kUsageError;
    }
    if (line.HelpWanted()) {
        std::printf("%s", CommandLine::Usage().c_str());
        return 0;
    }
    RunUnderPreload(argv);
    try {
        PhoneWorld world(PhoneWorld::IoctlPath::Socket);
        std::vector<EmulatedPhone*> phones = AddPhones(world, line);
        if (!line.Quiet())
            Announce(phones, line);
        int status = ChildProcess::Run(line.Command());
        if (!line.Quiet())
            for (size_t i = 0; i < phones.size(); ++i)
                std::fprintf(stderr, "%s", PhoneReportText::Render(phones[i]->Report(), static_cast<int>(i + 1)).c_str());
        return status;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kesto-phone: %s\n", e.what());
        return kWorldFailed;
    }
}
