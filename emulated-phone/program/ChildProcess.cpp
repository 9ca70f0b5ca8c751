#include "ChildProcess.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace emuphone {
namespace {

constexpr char kPreload[] = "libumockdev-preload.so.0";
// What a shell returns for a command it cannot run, and adds to a fatal signal.
constexpr int kNotStarted = 127;
constexpr int kSignalBase = 128;

volatile sig_atomic_t childPid = 0;

void PassOn(int signal)
{
    if (childPid > 0)
        kill(static_cast<pid_t>(childPid), signal);
}

void HandleSignals()
{
    struct sigaction pass {};
    pass.sa_handler = PassOn;
    sigemptyset(&pass.sa_mask);
    sigaction(SIGTERM, &pass, nullptr);
    sigaction(SIGHUP, &pass, nullptr);
    signal(SIGINT, SIG_IGN);
    signal(SIGQUIT, SIG_IGN);
}

bool Named(const char* entry, const char* name)
{
    size_t length = std::strlen(name);
    return std::strncmp(entry, name, length) == 0 && entry[length] == '=';
}

// The preload the command gets: the one kesto-phone was started with if it
// had to add to it, else its own (already carrying umockdev's).
std::string PreloadForCommand()
{
    const char* given = std::getenv(ChildProcess::kGivenPreload);
    const char* own = std::getenv("LD_PRELOAD");
    std::string preload = given ? given : own ? own : "";
    if (preload.find(kPreload) != std::string::npos)
        return preload;
    return preload.empty() ? kPreload : preload + ":" + kPreload;
}

std::vector<std::string> Environment()
{
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e)
        if (!Named(*e, "LD_PRELOAD") && !Named(*e, ChildProcess::kGivenPreload))
            env.emplace_back(*e);
    env.push_back("LD_PRELOAD=" + PreloadForCommand());
    return env;
}

std::vector<char*> Pointers(std::vector<std::string>& strings)
{
    std::vector<char*> pointers;
    for (std::string& s : strings)
        pointers.push_back(s.data());
    pointers.push_back(nullptr);
    return pointers;
}

int WaitFor(pid_t pid)
{
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return kNotStarted;
    }
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    return kSignalBase + WTERMSIG(status);
}

} // namespace

int ChildProcess::Run(const std::vector<std::string>& command)
{
    std::vector<std::string> env = Environment();
    std::vector<std::string> args = command;
    std::vector<char*> argv = Pointers(args);
    std::vector<char*> envp = Pointers(env);
    // The child starts with default dispositions, not our forwarding ones.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t defaults;
    sigemptyset(&defaults);
    for (int s : {SIGTERM, SIGHUP, SIGINT, SIGQUIT})
        sigaddset(&defaults, s);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    HandleSignals();
    pid_t pid = 0;
    int error = posix_spawnp(&pid, argv[0], nullptr, &attributes, argv.data(), envp.data());
    posix_spawnattr_destroy(&attributes);
    if (error != 0) {
        std::fprintf(stderr, "kesto-phone: cannot run %s: %s\n", argv[0], std::strerror(error));
        return kNotStarted;
    }
    childPid = pid;
    int status = WaitFor(pid);
    childPid = 0;
    return status;
}

} // namespace emuphone
