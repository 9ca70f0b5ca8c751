#include "fakeusb/Misuses.h"

#include "fakeusb/World.h"

namespace fakeusb {

using namespace detail;

std::vector<std::string> Misuses::All() {
    World& w = TheWorld();
    std::lock_guard<std::mutex> lock(w.mutex);
    return w.misuses;
}

int Misuses::Count() {
    return static_cast<int>(All().size());
}

void Misuses::SetFailTests(bool fail) {
    World& w = TheWorld();
    std::lock_guard<std::mutex> lock(w.mutex);
    w.misusesFailTests = fail;
}

} // namespace fakeusb
