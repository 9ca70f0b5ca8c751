#include "fakeusb/Outstanding.h"

#include "fakeusb/World.h"

namespace fakeusb {

using namespace detail;

Outstanding Outstanding::Now() {
    World& w = TheWorld();
    std::lock_guard<std::mutex> lock(w.mutex);
    Outstanding o;
    for (auto& c : w.contexts) {
        o.contexts += c->live;
    }
    o.deviceLists = static_cast<int>(w.deviceLists.size());
    for (auto& d : w.devices) {
        o.deviceRefs += d->refs;
    }
    for (auto& h : w.handles) {
        o.openHandles += h->open;
    }
    o.transfers = static_cast<int>(w.transfers.size());
    o.configDescriptors = static_cast<int>(w.configs.size());
    return o;
}

bool operator==(const Outstanding& a, const Outstanding& b) {
    return a.contexts == b.contexts && a.deviceLists == b.deviceLists && a.deviceRefs == b.deviceRefs &&
           a.openHandles == b.openHandles && a.transfers == b.transfers && a.configDescriptors == b.configDescriptors;
}

bool operator!=(const Outstanding& a, const Outstanding& b) {
    return !(a == b);
}

std::ostream& operator<<(std::ostream& out, const Outstanding& o) {
    return out << "{contexts " << o.contexts << ", device lists " << o.deviceLists << ", device refs "
               << o.deviceRefs << ", open handles " << o.openHandles << ", transfers " << o.transfers
               << ", config descriptors " << o.configDescriptors << "}";
}

} // namespace fakeusb
