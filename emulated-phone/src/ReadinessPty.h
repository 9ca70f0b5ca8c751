#pragma once

#include <string>
#include <sys/types.h>

namespace emuphone {

// The thing a device node points at, so that poll() on it behaves like usbfs.
//
// umockdev's nodes are plain files, which always poll ready: libusb's event
// loop would spin and never see an unplug. The node is instead a symlink to the
// slave of a pty held here (umockdev's preload treats symlinks into /dev as
// emulated character devices). Stopping the slave's output clears POLLOUT,
// starting it sets POLLOUT: "a URB is reapable", as usbfs reports it. Closing
// the master hangs the slave up: POLLERR|POLLHUP, as usbfs reports an unplug.
//
// Descriptors are opened and closed with raw system calls so that neither the
// preload nor our own interposed close() keeps track of them.
class ReadinessPty {
public:
    ReadinessPty();
    ~ReadinessPty();
    ReadinessPty(const ReadinessPty&) = delete;
    ReadinessPty& operator=(const ReadinessPty&) = delete;

    const std::string& SlavePath() const { return slavePath_; }
    // The slave's device number: how an open descriptor is recognised as ours.
    dev_t Rdev() const { return rdev_; }

    void SetReady(bool ready);
    void HangUp();

private:
    int master_ = -1;
    int slave_ = -1;
    std::string slavePath_;
    dev_t rdev_ = 0;
    bool ready_ = false;
};

} // namespace emuphone
