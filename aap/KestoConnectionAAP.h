#pragma once

#include <libusb.h>

#include <cstdint>
#include <vector>

#include "bearer/KestoConnectionImpl.h"
#include "usb/LibUSBBearerObserver.h"

class LibUSBBearerConnection;

// Where a connection is on its road to the phone; the numbers appear in log lines.
enum AAPState : int32_t {
    kStateInitial = 0,
    kStateVersionQuery = 1,
    kStateIdentity = 2,
    kStateSwitchRequest = 3,
    kStateRediscover = 4,
    kStateHandshakeRead = 5,
    kStateHandshakeWrite = 6,
    kStateConnected = 7,
    kStateFailed = 8,
    kStateReserved = 9, // a number kept free in the log lines' numbering; never entered
    kStateClosing = 10,
};

// The moves a connection makes, one row per state: where EnterState may take
// it next besides staying. Every state may also move to Failed (a stray
// completion can fail any step) and to Closing (destroy). Closing is final:
// the completions that a teardown delivers change nothing.
constexpr uint32_t StateBit(AAPState state) { return 1u << state; }
constexpr uint32_t kNextStates[] = {
    /* Initial        */ StateBit(kStateVersionQuery) | StateBit(kStateHandshakeRead), // or already an accessory
    /* VersionQuery   */ StateBit(kStateIdentity),
    /* Identity       */ StateBit(kStateSwitchRequest),
    /* SwitchRequest  */ StateBit(kStateRediscover),
    /* Rediscover     */ StateBit(kStateHandshakeRead),
    /* HandshakeRead  */ StateBit(kStateHandshakeWrite),
    /* HandshakeWrite */ StateBit(kStateConnected),
    /* Connected      */ 0,
    /* Failed         */ StateBit(kStateHandshakeRead), // listening again after a failed re-setup
    /* Reserved       */ 0,
    /* Closing        */ 0,
};

// Failures, and what each leaves. A stored error, not Failed, is what stops a
// connection: from then on every slot of the toolkit's returns it, and
// nothing new starts for the toolkit. Only the search forgets one (the next
// tick simply looks again). Failed is entered as well where the step can
// neither finish nor be retried:
//   store, enter Failed   an Establish step; a control transfer, handshake read
//                         or handshake write that cannot be submitted; a control
//                         reply of the wrong length or that timed out; protocol
//                         version 0; an accessory interface that cannot be set
//                         up after the search or a silent handshake
//   store only            a control transfer that failed after its retries,
//                         stalled, overflowed or lost its device; a bulk read or
//                         write that ended in error; reads that cannot be
//                         submitted again; a write the device refused; a
//                         completion no state expects; a failed look at the
//                         bus; the transport's event failures

// One byte stream to an Android phone in accessory mode. The toolkit drives it
// through the frame's operations; the transport's completions advance it, in
// the order a connection lives: establish, switch, rediscover, set up,
// handshake, data. Everything runs on the toolkit's thread: the toolkit's
// calls, and the completions, which arrive inside the transport's
// HandleEvents (from GetActivity and TimerExpired) or Close (destroy).
class KestoConnectionAAP : public KestoConnectionImpl, public LibUSBBearerObserver {
public:
    KestoConnectionAAP(KestoBearerImpl* bearer, void* connectionContext);
    // Enters Closing, then tears the transport down: the completions that
    // its drain delivers start nothing.
    ~KestoConnectionAAP() override;

    // The toolkit's slots, with the results the public header gives them.
    // Once an error is stored (see the failure table), every slot returns it.
    int Establish() override;
    int Read(uint8_t* buffer, uint32_t* length) override;
    int Write(const uint8_t* buffer, uint32_t* length) override;
    int GetEventHandle(int* eventHandle, intptr_t* extra) override;
    int GetActivity(uint32_t* activity) override;
    char* GetProperty(int property) override;
    int TimerExpired() override;

    // The transport's reports (see LibUSBBearerObserver).
    void OnReadComplete(int status) override;
    void OnWriteComplete(int status) override;
    void OnControlComplete(int status, const uint8_t* setup, const uint8_t* data, int length) override;
    void OnTimeoutRequested(int ms) override;
    void OnLog(const char* format, va_list args) override;
    int OnTransportError(int code) override;

    // Decimal only, leading blanks skipped, trailing text ignored; 0 for a
    // text that does not start with a number (or null); saturates beyond int.
    static int ParseDecimalInt(const char* text);

private:
    // The only writers of state and error: see kNextStates and the failure
    // table above. EnterState does nothing once Closing; Keep stores code
    // (replacing any earlier one); Fail keeps code and enters Failed.
    void EnterState(AAPState next);
    void Keep(int code);
    void Fail(int code);

    // Establishment and the accessory-mode switch. Steps that return a code
    // return 0 or the toolkit's error code; the others store their failure.
    // Reads the command string, creates the transport and starts the road.
    int EstablishSteps();
    // Opens the phone; already an accessory: sets it up and reads the
    // handshake (state 5); else records its serial and port and asks for its
    // protocol version (state 1).
    int OpenAndSwitch(int busNumber, int deviceAddress);
    // State 1, the version request submitted; Fail on refusal (returns 11).
    int SubmitVersionQuery();
    // True for a version the phone supports; version 0 fails the connection.
    bool CheckVersion(const uint8_t* data, int length);
    // State 2 with the next identity string submitted, or the start request
    // once all are sent; Fail on refusal.
    void SendNextIdentityString();
    // Notes the accessories already present, then state 3 with the start
    // request submitted; Fail on refusal.
    void SubmitStartRequest();
    void NoteAccessoriesPresent();
    bool WasAccessoryBeforeSwitch(libusb_device* device) const;
    // True when device sits on the port path the phone had before the switch.
    bool OnOurPort(libusb_device* device) const;
    // Submits the current control step again after a transfer error.
    void RetryControlStep();

    // Rediscovery and interface set-up.
    // State 4, first search tick requested.
    void EnterRediscovery();
    // Asks the toolkit for the next search tick unless the transport's
    // compositor keeps timers; marks it pending.
    void RequestRediscoveryTimer();
    // Lets the transport deliver completions; returns the stored error, which
    // it forgets first while searching (state 4). From the timer, whatever it
    // delivers leaves the event handle readable: the toolkit hears of news
    // only there.
    int PumpEvents(bool fromTimer = false);
    // One search tick: the phone found and set up leaves state 5; not found,
    // the next tick is requested; a set-up failure Fails.
    void SearchStep();
    // Opens the best accessory on the bus, if any (none open is not an
    // error): serial on our port, then serial, then, when fallbackAllowed,
    // the first new accessory. Accessories present before the switch never.
    int SearchBus(bool fallbackAllowed);
    // Chooses the interface and endpoints (AccessoryInterface) and keeps
    // them; logs the reason and returns 11 when there is none.
    int DiscoverEndpoints(libusb_device* candidate);
    // Configuration 1 if needed, claim, endpoints; logs and returns 11 on failure.
    int SetUpInterface();
    // Releases and sets the interface up again; Fail on failure.
    void ReleaseAndSetUpAgain();

    // Handshake and data phase.
    // State 5 with one handshake read (3000 ms) submitted; Fail on refusal.
    void SubmitHandshakeRead();
    // Takes the phone's handshake from the read queue: true when it matched
    // (bytes after it stay queued for the first Read); false after logging
    // what came, and discarding what followed it.
    bool CheckHandshake();
    // State 6 with the host's handshake submitted; Fail on refusal.
    void SubmitHandshakeWrite();
    // State 7 with every read slot submitted and Connected reported.
    void EnterDataPhase();
    // Submits reads on every idle slot; 11 (logged) when closing or refused.
    int StartReads();
    // In state 7 with no error stored only (a failed link takes in nothing
    // new): StartReads, keeping its failure.
    int ResumeReads();
    // Sets the Connected status once, in state 7.
    void ReportConnected();

    AAPState state;
    uint32_t identityIndex;
    libusb_device_descriptor deviceDescriptor;
    unsigned char serial[256];
    int32_t serialLength;
    int32_t rediscoveryAttempts;
    int32_t expectedControlLength;
    int32_t controlRetries;
    int32_t interfaceNumber;
    int32_t alternateSetting;
    int32_t inEndpoint;
    int32_t outEndpoint;
    int32_t protocolVersion;
    LibUSBBearerConnection* transport;
    int32_t error;
    // USB allows at most seven tiers of hubs below the root.
    static constexpr int kMaxPortDepth = 7;
    uint8_t portPath[kMaxPortDepth];
    int32_t portDepth;
    // Bus number and address (bus << 8 | address) of each accessory seen just
    // before the start request.
    std::vector<uint16_t> accessoriesBeforeSwitch;
    // A search tick has been asked of the toolkit and has not come yet.
    bool searchTimerPending;
    // Read has handed a failure that stays to the toolkit: it hands over no
    // byte after that.
    bool failureHandedOver;
};
