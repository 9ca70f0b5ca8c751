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
    kStateReserved = 9,
    kStateClosing = 10,
};

// One byte stream to an Android phone in accessory mode. The toolkit drives it
// through the frame's operations; the transport's completions advance it, in
// the order a connection lives: establish, switch, rediscover, set up,
// handshake, data.
class KestoConnectionAAP : public KestoConnectionImpl, public LibUSBBearerObserver {
public:
    KestoConnectionAAP(KestoBearerImpl* bearer, void* connectionContext);
    ~KestoConnectionAAP() override;

    int Establish() override;
    int Read(uint8_t* buffer, uint32_t* length) override;
    int Write(const uint8_t* buffer, uint32_t* length) override;
    int GetEventHandle(int* eventHandle, intptr_t* extra) override;
    int GetActivity(uint32_t* activity) override;
    char* GetProperty(int property) override;
    int TimerExpired() override;

    void OnReadComplete(int status) override;
    void OnWriteComplete(int status) override;
    void OnControlComplete(int status, const uint8_t* setup, const uint8_t* data, int length) override;
    void OnTimeoutRequested(int ms) override;
    void OnLog(const char* format, va_list args) override;
    int OnTransportError(int code) override;

    static int ParseDecimalInt(const char* text);

private:
    // Establishment and the accessory-mode switch.
    int EstablishSteps();
    int OpenAndSwitch(int busNumber, int deviceAddress);
    int SubmitVersionQuery();
    bool CheckVersion(const uint8_t* data, int length);
    void SendNextIdentityString();
    void SubmitStartRequest();
    void NoteAccessoriesPresent();
    bool WasAccessoryBeforeSwitch(libusb_device* device) const;
    bool OnOurPort(libusb_device* device) const;
    void RetryControlStep();
    // Rediscovery and interface set-up.
    void EnterRediscovery();
    void RequestRediscoveryTimer();
    int PumpEvents();
    void SearchStep();
    int SearchBus(bool fallbackAllowed);
    int DiscoverEndpoints(libusb_device* candidate);
    int SetUpInterface();
    void ReleaseAndSetUpAgain();
    // Handshake and data phase.
    void SubmitHandshakeRead();
    bool CheckHandshake();
    void SubmitHandshakeWrite();
    void EnterDataPhase();
    int StartReads();
    int ResumeReads();
    void ReportConnected();

    int32_t state;
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
};
