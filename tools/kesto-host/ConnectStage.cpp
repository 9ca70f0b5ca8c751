#include "kesto-host/ConnectStage.h"

#include <cstring>

#include "kesto/KestoBearer.h"

void ConnectStage::EstablishReturned(int result) {
    establishReturned_ = true;
    cannotOpen_ = result == KestoBearerErrorCannotOpenDevice;
}

void ConnectStage::TimerServed(bool rearmed) {
    ++timersServed_;
    lastRearmed_ = rearmed;
}

void ConnectStage::PluginLine(const char* text) {
    // The plug-in names the moment it has the phone in accessory mode in hand:
    // found again after the switch, or already switched when opened.
    if (text != nullptr && (std::strstr(text, "Located device") != nullptr ||
                            std::strstr(text, "already in accessory mode") != nullptr)) {
        accessoryFound_ = true;
    }
}

ConnectStage::Stage ConnectStage::Current() const {
    if (connected_) {
        return Stage::Connected;
    }
    if (!establishReturned_ || cannotOpen_) {
        return Stage::Opening;
    }
    if (accessoryFound_) {
        return Stage::Handshake;
    }
    if (timersServed_ == 0) {
        return Stage::Switching;
    }
    // A plug-in that stops polling has found the phone; without a serial number
    // to match it says nothing when it does.
    return lastRearmed_ ? Stage::Returning : Stage::Handshake;
}

const char* ConnectStage::Step(Stage stage) {
    switch (stage) {
    case Stage::Opening:
        return "opening the phone at the bus and address given";
    case Stage::Switching:
        return "asking the phone to switch into accessory mode";
    case Stage::Returning:
        return "waiting for the phone to come back in accessory mode after the switch";
    case Stage::Handshake:
        return "waiting for the handshake from the phone's accessory app (the phone is in accessory mode)";
    case Stage::Connected:
        return "connected";
    }
    return "?";
}

const char* ConnectStage::UsualCause(Stage stage) {
    switch (stage) {
    case Stage::Opening:
        return "no phone at that address ('kesto-host list' shows where it is), or no permission to open it "
               "(see the udev rules)";
    case Stage::Switching:
        return "a phone that does not take accessory requests; unplug it and plug it in again";
    case Stage::Returning:
        return "the cable (one for charging only, or a hub that loses the phone) or the phone's settings "
               "(USB set to charging only, or a locked screen holding USB back)";
    case Stage::Handshake:
        return "the phone's accessory app is not running, or has not been allowed to use this accessory "
               "(start it and accept the phone's prompt)";
    case Stage::Connected:
        return "none";
    }
    return "?";
}
