// A phone for the guest kernel's USB stack: a FunctionFS gadget behind dummy_hcd.
//   kesto-ffs-phone [--name NAME] [--serial TEXT] [--accessory] [--debug-bridge-first]
// Prints what happens on standard output; SIGUSR1 pulls the cable, SIGTERM ends it.
#include <sys/signalfd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "Phone.h"

int main(int argc, char** argv) {
    Phone::Options options;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--name") == 0 && i + 1 < argc)
            options.name = argv[++i];
        else if (std::strcmp(argv[i], "--serial") == 0 && i + 1 < argc)
            options.serial = argv[++i];
        else if (std::strcmp(argv[i], "--accessory") == 0)
            options.accessoryMode = true;
        else if (std::strcmp(argv[i], "--debug-bridge-first") == 0)
            options.debugBridgeFirst = true;
        else {
            std::fprintf(stderr, "usage: %s [--name NAME] [--serial TEXT] [--accessory] [--debug-bridge-first]\n",
                         argv[0]);
            return 2;
        }
    }
    // Blocked before any thread starts, so that only the signalfd takes them.
    sigset_t signals;
    sigemptyset(&signals);
    for (int s : {SIGUSR1, SIGTERM, SIGINT})
        sigaddset(&signals, s);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    int signalFd = signalfd(-1, &signals, SFD_CLOEXEC);
    int status;
    try {
        Phone* phone = new Phone(options);
        status = phone->Run(signalFd);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kesto-ffs-phone: %s\n", e.what());
        return 1;
    }
    // The application's thread may be blocked in endpoint I/O that only another
    // enabling would end; the kernel tidies the function when our files close.
    std::fflush(stdout);
    std::_Exit(status);
}
