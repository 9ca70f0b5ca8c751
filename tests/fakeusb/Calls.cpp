#include "fakeusb/Calls.h"

#include "fakeusb/World.h"

namespace fakeusb {

std::vector<std::string> Calls::All() {
    return detail::Locked([](detail::World& w) { return w.calls; });
}

std::vector<std::string> Calls::Named(const std::string& function) {
    std::vector<std::string> named;
    for (std::string& call : All()) {
        if (call.compare(0, call.find('('), function) == 0) {
            named.push_back(std::move(call));
        }
    }
    return named;
}

int Calls::Count(const std::string& function) {
    return static_cast<int>(Named(function).size());
}

} // namespace fakeusb
