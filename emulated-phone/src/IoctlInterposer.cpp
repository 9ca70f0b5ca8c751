#include "IoctlInterposer.h"

#include "InPlaceMemory.h"
#include "IoctlHooks.h"
#include "RawFstat.h"

#include <cerrno>
#include <fcntl.h>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace emuphone {
namespace {

bool CharacterDevice(int fd, dev_t& rdev)
{
    struct stat st {};
    if (!RawFstat(fd, st))
        return false;
    rdev = st.st_rdev;
    return S_ISCHR(st.st_mode);
}

} // namespace

// Never destroyed: close() keeps arriving while the process exits.
IoctlInterposer& IoctlInterposer::Instance()
{
    static IoctlInterposer* instance = new IoctlInterposer;
    return *instance;
}

void IoctlInterposer::Register(dev_t rdev, std::shared_ptr<UsbfsDevice> device)
{
    if (!emuphone_hooks_reach_libraries())
        throw std::runtime_error("emulated phone: the executable does not export ioctl() and close(); link it "
                                 "with the emulated_phone library (which adds -Wl,--export-dynamic-symbol)");
    {
        std::lock_guard<std::mutex> hold(lock_);
        byRdev_[rdev] = std::move(device);
    }
    if (!active_.exchange(true))
        emuphone_set_hooks(&IoctlInterposer::OnIoctl, &IoctlInterposer::OnClose);
}

void IoctlInterposer::Unregister(dev_t rdev)
{
    std::lock_guard<std::mutex> hold(lock_);
    byRdev_.erase(rdev);
}

std::shared_ptr<UsbfsDevice> IoctlInterposer::DeviceFor(int fd)
{
    {
        std::lock_guard<std::mutex> hold(lock_);
        auto known = byFd_.find(fd);
        if (known != byFd_.end())
            return known->second;
        if (byRdev_.empty())
            return nullptr;
    }
    dev_t rdev = 0;
    if (!CharacterDevice(fd, rdev))
        return nullptr;
    std::lock_guard<std::mutex> hold(lock_);
    auto device = byRdev_.find(rdev);
    if (device == byRdev_.end())
        return nullptr;
    byFd_[fd] = device->second;
    return device->second;
}

int IoctlInterposer::OnIoctl(int fd, unsigned long request, void* argument, int* result)
{
    std::shared_ptr<UsbfsDevice> device = Instance().DeviceFor(fd);
    if (!device)
        return 0;
    InPlaceMemory memory(argument);
    IoctlResult answer = device->Ioctl(static_cast<uint64_t>(fd), request, memory);
    if (answer.value < 0)
        errno = answer.error;
    *result = answer.value;
    return 1;
}

void IoctlInterposer::OnClose(int fd)
{
    IoctlInterposer& self = Instance();
    std::shared_ptr<UsbfsDevice> device;
    {
        std::lock_guard<std::mutex> hold(self.lock_);
        auto known = self.byFd_.find(fd);
        if (known == self.byFd_.end())
            return;
        device = std::move(known->second);
        self.byFd_.erase(known);
    }
    device->CloseFile(static_cast<uint64_t>(fd));
}

} // namespace emuphone
