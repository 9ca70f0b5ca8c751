#include "fakeusb/Failures.h"

#include "fakeusb/World.h"

namespace fakeusb {

void Failures::Fail(Function function, int error, int skip) {
    detail::Locked([&](detail::World& w) { w.failures[function] = detail::FailureRule{error, skip}; });
}

} // namespace fakeusb
