#pragma once

#include <string>
#include <vector>

namespace fakeusb {

// Uses of the libusb API that real libusb would punish with a crash, a leak
// or a hang: submitting a transfer that is still in flight, freeing or closing
// under a transfer in flight, using a device without holding a reference,
// using a closed handle or an ended context, releasing twice, exiting with
// something still open. (Transfers on an unclaimed interface are only marked:
// see Submission::interfaceClaimed.)
// Each one is recorded and, unless turned off, fails the running test.
class Misuses {
public:
    static std::vector<std::string> All();
    static int Count();
    // Whether a misuse also fails the running test (ADD_FAILURE); on by
    // default and after Reset. Tests that provoke misuse on purpose turn it off.
    static void SetFailTests(bool fail);
};

} // namespace fakeusb
