#include "emulated-phone/PhoneStage.h"

namespace emuphone {

const char* StageName(PhoneStage stage)
{
    switch (stage) {
    case PhoneStage::Attached: return "attached";
    case PhoneStage::VersionQueried: return "version-queried";
    case PhoneStage::IdentityReceived: return "identity-received";
    case PhoneStage::StartRequested: return "start-requested";
    case PhoneStage::Detached: return "detached";
    case PhoneStage::AccessoryAttached: return "accessory-attached";
    case PhoneStage::InterfaceClaimed: return "interface-claimed";
    case PhoneStage::HandshakeSent: return "handshake-sent";
    case PhoneStage::HandshakeDone: return "handshake-done";
    case PhoneStage::HandshakeFailed: return "handshake-failed";
    case PhoneStage::Unplugged: return "unplugged";
    }
    return "unknown";
}

} // namespace emuphone
