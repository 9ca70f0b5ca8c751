#pragma once

namespace fakeusb {

// The libusb functions whose failure a test can script.
enum class Function {
    Init,
    GetDeviceList,
    GetDeviceDescriptor,
    GetStringDescriptorAscii,
    GetConfigDescriptorByValue,
    Open,
    GetConfiguration,
    SetConfiguration,
    KernelDriverActive,
    DetachKernelDriver,
    ClaimInterface,
    ReleaseInterface,
    SetInterfaceAltSetting,
    ClearHalt,
    GetMaxPacketSize,
    AllocTransfer,   // fails by returning null
    SubmitTransfer,  // the transfer stays idle and is not recorded as submitted
    // The transfer stays in flight, and a Close that drains until every
    // transfer is back would wait for ever: complete it, for instance from
    // Events::SetHandleEventsHook.
    CancelTransfer,
    GetNextTimeout,  // leaves the time value untouched, as libusb does
    GetPollfds,      // fails by returning null
    // libusb_handle_events_timeout(_completed): nothing is delivered. With
    // kAlways a draining Close never ends; give a count.
    HandleEvents,
};

// Scripted failures. A failing call is still recorded in Calls, returns
// `error` and has no other effect.
class Failures {
public:
    static constexpr int kAlways = -1;

    // After `skip` more calls of `function` that behave normally, the next
    // `count` calls (every one, with kAlways) fail with `error`. Replaces any
    // earlier rule for `function`.
    static void Fail(Function function, int error, int count = 1, int skip = 0);
    // Drops the rule for `function`, failing or still waiting.
    static void Clear(Function function);
};

} // namespace fakeusb
