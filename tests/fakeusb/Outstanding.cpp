#include "fakeusb/Outstanding.h"

#include <tuple>

#include "fakeusb/World.h"

namespace fakeusb {

Outstanding Outstanding::Now() {
    return detail::Locked([](detail::World& w) {
        Outstanding o;
        for (auto& c : w.contexts) {
            o.contexts += c->live;
            for (auto& [physical, device] : c->devices) {
                o.deviceRefs += device->refs;
            }
        }
        o.deviceLists = static_cast<int>(w.deviceLists.size());
        for (auto& h : w.handles) {
            o.openHandles += h->open;
        }
        o.transfers = static_cast<int>(w.transfers.size());
        o.configDescriptors = static_cast<int>(w.configs.size());
        return o;
    });
}

bool operator==(const Outstanding& a, const Outstanding& b) {
    return std::tie(a.contexts, a.deviceLists, a.deviceRefs, a.openHandles, a.transfers, a.configDescriptors) ==
           std::tie(b.contexts, b.deviceLists, b.deviceRefs, b.openHandles, b.transfers, b.configDescriptors);
}

std::ostream& operator<<(std::ostream& out, const Outstanding& o) {
    return out << "{contexts " << o.contexts << ", device lists " << o.deviceLists << ", device refs "
               << o.deviceRefs << ", open handles " << o.openHandles << ", transfers " << o.transfers
               << ", config descriptors " << o.configDescriptors << "}";
}

} // namespace fakeusb
