#pragma once

namespace fakeusb {

// The libusb functions whose failure a test can script.
enum class Function {
    Init,
    GetDeviceList,
    GetDeviceDescriptor,
    GetConfigDescriptorByValue,
    GetMaxPacketSize,
    Open,
    GetConfiguration,
    SetConfiguration,
    KernelDriverActive,
    DetachKernelDriver,
    ClaimInterface,
    AllocTransfer,  // fails by returning null
    SubmitTransfer, // the transfer stays idle and is not recorded as submitted
    // The transfer stays in flight, and a Close that drains until every
    // transfer is back would wait for ever: complete it, for instance from
    // Events::SetHandleEventsHook.
    CancelTransfer,
    GetNextTimeout, // leaves the time value untouched, as libusb does
    GetPollfds,     // no list, as when libusb runs out of memory
    HandleEvents,   // nothing is delivered
};

// Scripted failures. A failing call is still recorded in Calls, returns
// `error` and has no other effect.
class Failures {
public:
    // After `skip` more calls of `function` that behave normally, the next
    // one fails with `error`. Replaces any earlier rule for `function`.
    static void Fail(Function function, int error, int skip = 0);
};

} // namespace fakeusb
