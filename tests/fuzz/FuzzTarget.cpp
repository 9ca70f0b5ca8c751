// libFuzzer's entry: one input is one story of a toolkit, one connection and
// the phones on a fake bus. The input (u16 little-endian; text a length byte
// and its bytes; seeds.py writes inputs so): flags:u8 (bit 0: no connection
// log), fields:u16 (bit i: field i's text follows; FuzzToolkit.cpp names them),
// then actions until the input ends, each op:u8 (modulo 16) and its operands:
//     0 Establish   1 GetActivity   2 TimerExpired   3 Read capacity:u16   4 Write length:u16
//     5 GetEventHandle extra:u8   6 Property which:u8 (bit 7 the bearer's, number = low bits - 8)
//     7 Answer status:u8 n:u8 and n%3 reply bytes: the phone ends the control transfer
//     8 Fail function:u8 error:u8 skip:u8: a libusb call fails (fakeusb::Function)
//     9 Plug kind:u8 bus:u8 address:u8 serial:text and what kind's flags ask for (FuzzPhone.cpp)
//     10 Unplug pick:u8   11 NextTimeout ms:u16   12 (unused)   13 Destroy
//     14 Send status:u8 mode:u8 (1 handshake first, 2 literal), then n:u8 and n%33 bytes
//        or the chunk's length:u16, made up with a pattern: the phone ends the oldest read
//     15 Take status:u8 partial:u16 (bit 15: only that many bytes taken): the phone ends the write
//   Statuses, modulo 7, are libusb's: completed, error, timed out, cancelled, stall, no device, overflow.
// The connection is destroyed at the end in any case, then the bearer terminated.
// KESTO_FUZZ_TRACE=1 prints each action's number and the plug-in's log.

#include "fuzz/FuzzToolkit.h"

namespace {

void Act(FuzzInput& in, FuzzToolkit& toolkit, FuzzPhone& phone) {
    const int action = in.U8() % 16;
    if (Tracing()) {
        std::fprintf(stderr, "action %d\n", action);
    }
    phone.CallBegins();
    switch (action) {
    case 0: toolkit.Establish(); break;
    case 1: toolkit.GetActivity(); break;
    case 2: toolkit.TimerExpired(); break;
    case 3: toolkit.Read(in.U16()); break;
    case 4: toolkit.Write(in.U16()); break;
    case 5: toolkit.GetEventHandle(in.U8() & 1); break;
    case 6: toolkit.Property(in.U8()); break;
    case 7: phone.Answer(in); break;
    case 8: phone.Fail(in); break;
    case 9: phone.Plug(in); break;
    case 10: phone.Unplug(in); break;
    case 11: phone.SetTimeout(in); break;
    case 13: toolkit.Destroy(); break;
    case 14: phone.Send(in); break;
    case 15: phone.Take(in); break;
    default: break;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool aborting = (fakeusb::AbortOnMisuse(), true);
    (void)aborting;
    FuzzInput in(data, size);
    FuzzPhone phone;
    FuzzToolkit toolkit(phone, in);
    while (!in.Empty() && toolkit.Alive()) {
        Act(in, toolkit, phone);
    }
    return 0;
}
