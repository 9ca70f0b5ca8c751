#include "ReadinessPty.h"
#include "RawFstat.h"

#include <csignal>
#include <fcntl.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <termios.h>
#include <unistd.h>

namespace emuphone {
namespace {

int RawOpen(const char* path)
{
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_NOCTTY | O_CLOEXEC));
}

void RawClose(int fd)
{
    if (fd >= 0)
        syscall(SYS_close, fd);
}

long RawIoctl(int fd, unsigned long request, long argument)
{
    return syscall(SYS_ioctl, fd, request, argument);
}

dev_t RawRdev(int fd)
{
    struct stat st {};
    return RawFstat(fd, st) ? st.st_rdev : 0;
}

// A session leader without a terminal that opens the slave the way libusb does
// (without O_NOCTTY) makes it its controlling terminal, and the hang-up of an
// unplug then sends it SIGHUP. By default that would kill a test; a handler the
// program installed stays.
void IgnoreHangUpSignal()
{
    struct sigaction current {};
    if (sigaction(SIGHUP, nullptr, &current) == 0 && current.sa_handler == SIG_DFL)
        signal(SIGHUP, SIG_IGN);
}

} // namespace

ReadinessPty::ReadinessPty()
{
    IgnoreHangUpSignal();
    master_ = RawOpen("/dev/ptmx");
    if (master_ < 0)
        throw std::runtime_error("emulated phone: cannot open /dev/ptmx");
    int unlock = 0;
    unsigned int number = 0;
    if (RawIoctl(master_, TIOCSPTLCK, reinterpret_cast<long>(&unlock)) != 0 ||
        RawIoctl(master_, TIOCGPTN, reinterpret_cast<long>(&number)) != 0) {
        RawClose(master_);
        throw std::runtime_error("emulated phone: cannot unlock a pty");
    }
    slavePath_ = "/dev/pts/" + std::to_string(number);
    slave_ = RawOpen(slavePath_.c_str());
    if (slave_ < 0) {
        RawClose(master_);
        throw std::runtime_error("emulated phone: cannot open " + slavePath_);
    }
    rdev_ = RawRdev(slave_);
    RawIoctl(slave_, TCXONC, TCOOFF);
}

ReadinessPty::~ReadinessPty()
{
    RawClose(slave_);
    RawClose(master_);
}

void ReadinessPty::SetReady(bool ready)
{
    if (ready == ready_ || master_ < 0)
        return;
    ready_ = ready;
    RawIoctl(slave_, TCXONC, ready ? TCOON : TCOOFF);
}

void ReadinessPty::HangUp()
{
    RawClose(master_);
    master_ = -1;
}

} // namespace emuphone
