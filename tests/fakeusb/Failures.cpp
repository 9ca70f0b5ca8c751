#include "fakeusb/Failures.h"

#include "fakeusb/World.h"

namespace fakeusb {

using namespace detail;

void Failures::Fail(Function function, int error, int count, int skip) {
    World& w = TheWorld();
    std::lock_guard<std::mutex> lock(w.mutex);
    w.failures[function] = FailureRule{error, count, skip};
}

void Failures::Clear(Function function) {
    World& w = TheWorld();
    std::lock_guard<std::mutex> lock(w.mutex);
    w.failures.erase(function);
}

} // namespace fakeusb
