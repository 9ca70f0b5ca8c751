#pragma once

// fakeusb: a scriptable libusb-1.0 for unit tests. The library defines the
// libusb functions the plug-in calls, so a test executable that links the
// plug-in's objects with `fakeusb` talks to a fake bus instead of the kernel:
//
//   Bus         devices, described by a DeviceSpec, plugged in and unplugged at any time;
//   Transfers   every submission recorded; each stays in flight until the test
//               (or a responder acting as the device) completes it;
//   Events      per context, a real pipe as libusb's poll descriptor; callbacks
//               run only inside libusb_handle_events_timeout;
//   Failures    the next call of a function fails with an error;
//   Calls       what was called on which device, in order;
//   Outstanding what the code under test still holds, for leak checks.
//
// Misuse that real libusb would punish with a crash, a leak or a hang fails
// the running test: resubmitting or freeing a transfer in flight, closing a
// handle with transfers in flight, using a device without a reference, a
// closed handle or an ended context, releasing twice, exiting with something
// still open or in flight.
//
// All of it is safe to use from several threads. Callbacks, the responder,
// the hook and the removal notifier run without the double's lock held, so
// they may call back in.

#include "fakeusb/Bus.h"
#include "fakeusb/Calls.h"
#include "fakeusb/DeviceSpec.h"
#include "fakeusb/Events.h"
#include "fakeusb/Failures.h"
#include "fakeusb/Outstanding.h"
#include "fakeusb/Transfers.h"

namespace fakeusb {

// Forgets everything: devices, libusb objects (closing the pipes), transfers,
// records, scripted failures, responder, hook and time-out. Call it with no
// code under test alive, in the fixture's SetUp and TearDown.
void Reset();

// From now on a misuse prints what it was and aborts the process instead of
// failing the running test: for the fuzzer, whose crash is its report.
void AbortOnMisuse();

} // namespace fakeusb
