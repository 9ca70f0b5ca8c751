#pragma once

// fakeusb: a scriptable libusb-1.0 for unit tests. The library defines the
// libusb functions the plug-in calls, so a test executable that links the
// plug-in's objects with `fakeusb` talks to a fake bus instead of the kernel.
//
// The world it models:
//   Bus        devices plugged in and unplugged at any time, their
//              descriptors, configuration, claimed interfaces;
//   Transfers  every submission recorded; each stays in flight until the
//              test (or a responder acting as the device) completes it;
//   Events     per context, a real pipe as libusb's poll descriptor, readable
//              while completions are queued; callbacks run only inside
//              libusb_handle_events_timeout, on the thread that calls it;
//   Failures   the next N (or all) calls of a function fail with an error;
//   Calls      what was called on which device, in order;
//   Misuses    API misuse (resubmitting in flight, leaks at exit, stale
//              pointers...), each one failing the test;
//   Outstanding what the code under test still holds, for leak checks.
//
// All of it is safe to use from several threads (the test's, a phone
// thread); callbacks, the responder, the hook and pollfd notifiers are called
// without the double's lock held, so they may call back in. Only explicit
// contexts are supported: libusb_init(NULL) is a misuse.
//
// A phone that answers the accessory requests by itself and re-enumerates:
//
//   class AccessoryTest : public ::testing::Test {
//   protected:
//       void SetUp() override { fakeusb::Reset(); }
//       void TearDown() override {
//           // ... destroy the connection first, then:
//           EXPECT_EQ(fakeusb::Outstanding::Now(), fakeusb::Outstanding{});
//           fakeusb::Reset();
//       }
//   };
//
//   TEST_F(AccessoryTest, PhoneReenumeratesAfterTheStartRequest) {
//       int phone = fakeusb::Bus::Add(fakeusb::AndroidPhone(1, 5, "R58M40"));
//       fakeusb::Transfers::SetResponder([phone](const fakeusb::Submission& s) {
//           if (!s.IsControl()) {
//               return;                                 // bulk: the test answers
//           }
//           if (s.setup.request == 51) {                // protocol version 2
//               fakeusb::Transfers::Complete(s.id, LIBUSB_TRANSFER_COMPLETED, {2, 0});
//           } else {
//               fakeusb::Transfers::Complete(s.id);     // strings (52), start (53)
//           }
//           if (s.setup.request == 53) {
//               fakeusb::Bus::Unplug(phone);
//               fakeusb::Bus::Add(fakeusb::AccessoryPhone(1, 6, "R58M40"));
//           }
//       });
//       // ... Establish, then GetActivity whenever the event handle is
//       // readable, TimerExpired for the timers asked for; then the phone's
//       // handshake:
//       ASSERT_TRUE(fakeusb::Transfers::CompleteOldest(0x81, LIBUSB_TRANSFER_COMPLETED,
//                                                      {0xFF, 0xFF, 0x00, 0x00, 0x0A, 0x0A, 0x44, 0x45, 0x56}));
//       // ... GetActivity; then:
//       EXPECT_THAT(fakeusb::Calls::Named("libusb_claim_interface"),
//                   testing::ElementsAre("libusb_claim_interface(1:6, 0)"));
//       std::optional<fakeusb::Submission> answer = fakeusb::Transfers::OldestInFlight(0x01);
//       ASSERT_TRUE(answer);
//       EXPECT_THAT(answer->data, testing::ElementsAre(0xFF, 0xFF, 0x00, 0x00, 0x0A, 0x0A, 0x48, 0x4F, 0x53, 0x54));
//   }
//
// Other stories: Failures::Fail(fakeusb::Function::Open, LIBUSB_ERROR_ACCESS);
// a write that goes out in part: Transfers::CompleteOldest(0x01,
// LIBUSB_TRANSFER_COMPLETED, {}, 4); a read cancelled with data in hand:
// Transfers::SetCancelled(id, 3, {1, 2, 3}); a timer: Events::SetNextTimeout(0, 200).

#include "fakeusb/Bus.h"
#include "fakeusb/Calls.h"
#include "fakeusb/DeviceSpec.h"
#include "fakeusb/Events.h"
#include "fakeusb/Failures.h"
#include "fakeusb/Misuses.h"
#include "fakeusb/Outstanding.h"
#include "fakeusb/Transfers.h"

namespace fakeusb {

// Forgets everything: devices, libusb objects (closing the pipes), transfers,
// records, scripted failures, responder, hook and time-out. Call it with no
// code under test alive, in the fixture's SetUp and TearDown.
void Reset();

} // namespace fakeusb
