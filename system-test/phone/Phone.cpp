#include "Phone.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <thread>

namespace {

// Google's ids: a phone in normal mode, and in accessory mode with the debug bridge.
constexpr uint16_t kGoogle = 0x18D1;
constexpr uint16_t kNormalProduct = 0x4EE1;
constexpr uint16_t kAccessoryProduct = 0x2D01;
// The accessory requests: protocol version, identity string, start.
constexpr uint8_t kGetProtocol = 51;
constexpr uint8_t kSendString = 52;
constexpr uint8_t kStart = 53;
constexpr uint8_t kProtocolVersion[2] = {2, 0};
// Android leaves the host time to see its start request complete.
constexpr auto kSwitchDelay = std::chrono::milliseconds(100);

void Say(const char* text) {
    std::printf("phone: %s\n", text);
    std::fflush(stdout);
}

} // namespace

Phone::Phone(const Options& options)
    : options_(options), accessory_(options.accessoryMode),
      gadget_(options.name, options.name,
              {kGoogle, options.accessoryMode ? kAccessoryProduct : kNormalProduct, options.serial}),
      function_(options.name, "/dev/ffs-" + options.name, options.debugBridgeFirst),
      app_(function_.BulkIn(), function_.BulkOut()) {}

int Phone::Run(int signalFd) {
    gadget_.Bind();
    Say(accessory_ ? "plugged in, accessory mode" : "plugged in");
    for (;;) {
        pollfd fds[2] = {{function_.ControlFd(), POLLIN, 0}, {signalFd, POLLIN, 0}};
        if (poll(fds, 2, -1) < 0)
            continue;
        if ((fds[1].revents & POLLIN) != 0 && !OnSignal(signalFd))
            return 0;
        if ((fds[0].revents & POLLIN) == 0)
            continue;
        AccessoryFunction::Event event;
        if (!function_.NextEvent(event)) {
            Say("ep0 failed");
            return 1;
        }
        if (event.type == AccessoryFunction::Event::Type::Setup)
            OnSetup(event.setup);
        else if (event.type == AccessoryFunction::Event::Type::Enable && accessory_) {
            std::printf("phone: enabled at %s\n", gadget_.Speed().c_str());
            std::fflush(stdout);
            app_.Enabled(PacketSize());
        }
        if (switchWanted_)
            SwitchToAccessory();
    }
}

bool Phone::OnSignal(int signalFd) {
    signalfd_siginfo info;
    if (read(signalFd, &info, sizeof info) != sizeof info)
        return true;
    if (info.ssi_signo == SIGUSR1) {
        gadget_.Unbind();
        std::printf("phone: cable pulled after %llu bytes echoed\n",
                    static_cast<unsigned long long>(app_.BytesEchoed()));
        std::fflush(stdout);
        return true;
    }
    gadget_.Unbind();
    Say("off");
    return false;
}

void Phone::OnSetup(const usb_ctrlrequest& setup) {
    bool vendorToDevice = (setup.bRequestType & (USB_TYPE_MASK | USB_RECIP_MASK)) == (USB_TYPE_VENDOR | USB_RECIP_DEVICE);
    bool in = (setup.bRequestType & USB_DIR_IN) != 0;
    std::string data;
    if (vendorToDevice && in && setup.bRequest == kGetProtocol) {
        function_.Answer(kProtocolVersion, sizeof kProtocolVersion);
    } else if (vendorToDevice && !in && setup.bRequest == kSendString) {
        if (function_.Take(data, setup.wLength))
            std::printf("phone: string %u: %s\n", setup.wIndex, data.c_str());
    } else if (vendorToDevice && !in && setup.bRequest == kStart) {
        function_.Take(data, 0);
        switchWanted_ = !accessory_;
        Say("start requested");
    } else {
        std::printf("phone: refused request type 0x%02x request %u\n", setup.bRequestType, setup.bRequest);
        function_.Refuse(setup);
    }
    std::fflush(stdout);
}

// As a phone does: leave the bus, come back with the accessory's ids.
void Phone::SwitchToAccessory() {
    switchWanted_ = false;
    std::this_thread::sleep_for(kSwitchDelay);
    gadget_.Unbind();
    gadget_.SetIds(kGoogle, kAccessoryProduct);
    accessory_ = true;
    gadget_.Bind();
    Say("back in accessory mode");
}

size_t Phone::PacketSize() const {
    std::string speed = gadget_.Speed();
    if (speed.rfind("super-speed", 0) == 0)
        return 1024;
    return speed == "full-speed" ? 64 : 512;
}
