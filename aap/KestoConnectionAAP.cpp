#include "aap/KestoConnectionAAP.h"

#include <algorithm>
#include <cassert>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <sstream>

#include "aap/AccessoryInterface.h"
#include "bearer/KestoBearerImpl.h"
#include "usb/LibUSBBearerConnection.h"

namespace {

// Android Open Accessory requests, vendor requests to the device on endpoint 0.
constexpr uint8_t kRequestTypeIn = 0xC0;  // device-to-host, vendor, device
constexpr uint8_t kRequestTypeOut = 0x40; // host-to-device, vendor, device
constexpr uint8_t kGetProtocol = 51;
constexpr uint8_t kSendString = 52;
constexpr uint8_t kStartAccessory = 53;
constexpr uint16_t kProtocolReplyLength = 2;
constexpr uint32_t kControlTimeoutMs = 2000;
// Each failing control step is tried once and retried this many times.
constexpr int kMaxControlRetries = 4;

// A phone in accessory mode re-enumerates with Google's vendor id and one of
// these two products (without and with the debug bridge).
constexpr uint16_t kAccessoryVendor = 0x18D1;
constexpr uint16_t kAccessoryProduct = 0x2D00;
constexpr uint16_t kAccessoryProductCount = 2;
constexpr uint8_t kAccessoryConfiguration = 1;

// Search ticks: two quick looks right after the switch, then ten a second.
constexpr int kFirstSearchDelayMs = 1;
constexpr int kSearchDelayMs = 100;
// From the 22nd search on, any accessory will do (about two seconds).
constexpr int kSerialOnlySearches = 20;
constexpr int kSerialCapacity = 256;

constexpr uint32_t kHandshakeTimeoutMs = 3000;
// A data read waits for as long as the phone is silent: it still ends when
// the device goes away, and no timer wakes an idle link.
constexpr uint32_t kDataReadTimeoutMs = 0;
constexpr uint32_t kNoTimeout = 0;
constexpr uint8_t kDeviceHandshake[] = {0xFF, 0xFF, 0x00, 0x00, 0x0A, 0x0A, 'D', 'E', 'V'};
constexpr uint8_t kHostHandshake[] = {0xFF, 0xFF, 0x00, 0x00, 0x0A, 0x0A, 'H', 'O', 'S', 'T'};
constexpr uint32_t kDeviceHandshakeLength = sizeof kDeviceHandshake;

struct IdentityString {
    const char* key;
    const char* defaultValue;
    unsigned char lookupFlag;
};

// Row number = the string index the phone expects in wIndex.
constexpr IdentityString kIdentityStrings[] = {
    {"manufacturer", "Norvane", 0},
    {"model", "AAPTest", 0},
    {"desc", "Norvane AAP Bearer", 1},
    {"version", "0.1", 0},
    {"uri", "https://norvane.example/kesto", 1},
    {"serial", "serial_number", 0},
};
constexpr uint32_t kIdentityCount = sizeof kIdentityStrings / sizeof kIdentityStrings[0];

bool IsAccessory(const libusb_device_descriptor& descriptor) {
    return descriptor.idVendor == kAccessoryVendor &&
           static_cast<uint16_t>(descriptor.idProduct - kAccessoryProduct) < kAccessoryProductCount;
}

uint16_t BusAddress(libusb_device* device) {
    return static_cast<uint16_t>(libusb_get_bus_number(device) << 8 | libusb_get_device_address(device));
}

// A command-string field, handed back to the toolkit on every path.
class Field {
public:
    Field(KestoConnectionImpl* owner, const char* name, unsigned char flag)
        : owner(owner), text(owner->GetParameter(name, flag, nullptr)) {}
    ~Field() {
        if (text != nullptr) {
            owner->FreeString(text);
        }
    }
    Field(const Field&) = delete;
    Field& operator=(const Field&) = delete;

    KestoConnectionImpl* owner;
    char* text;
};

struct ConfigDescriptorFree {
    void operator()(libusb_config_descriptor* config) const { libusb_free_config_descriptor(config); }
};

} // namespace

KestoConnectionAAP::KestoConnectionAAP(KestoBearerImpl* bearer, void* connectionContext)
    : KestoConnectionImpl(bearer, connectionContext), state(kStateInitial), identityIndex(0), deviceDescriptor(),
      serial(), serialLength(0), rediscoveryAttempts(0), expectedControlLength(0), controlRetries(0),
      interfaceNumber(-1), alternateSetting(-1), inEndpoint(0), outEndpoint(0), protocolVersion(0),
      transport(nullptr), error(0), portPath(), portDepth(0), searchTimerPending(false),
      failureHandedOver(false) {}

KestoConnectionAAP::~KestoConnectionAAP() {
    // First, so the completions that the transport's teardown delivers start nothing.
    EnterState(kStateClosing);
    delete transport;
    transport = nullptr;
}

// ---- State and stored error ---------------------------------------------------

void KestoConnectionAAP::EnterState(AAPState next) {
    if (state == kStateClosing) {
        return; // the completions a teardown delivers change nothing
    }
    assert(next == state || next == kStateFailed || next == kStateClosing ||
           (kNextStates[state] & StateBit(next)) != 0);
    state = next;
}

void KestoConnectionAAP::Keep(int code) { error = code; }

void KestoConnectionAAP::Fail(int code) {
    Keep(code);
    EnterState(kStateFailed);
}

// ---- Establishment -------------------------------------------------------

int KestoConnectionAAP::Establish() {
    if (transport != nullptr) {
        return KestoBearerErrorFailed; // establishing twice would orphan the first transport
    }
    int result = EstablishSteps();
    if (result != 0) {
        // Kept, so that every later call of the toolkit's hears the same.
        Fail(result);
    }
    return result;
}

int KestoConnectionAAP::EstablishSteps() {
    int busNumber = 0;
    int deviceAddress = 0;
    {
        Field bus(this, "bus", 0);
        Field dev(this, "dev", 0);
        if (bus.text == nullptr || dev.text == nullptr) {
            Log("Error: missing bus or dev fields from command string.");
            return KestoBearerErrorInvalidParameter;
        }
        busNumber = ParseDecimalInt(bus.text);
        deviceAddress = ParseDecimalInt(dev.text);
    }
    {
        Field field(this, "interface", 0);
        if (field.text != nullptr) {
            interfaceNumber = ParseDecimalInt(field.text);
            Log("Using USB interface number %d", interfaceNumber);
        }
    }
    bool altGiven = false;
    {
        Field field(this, "altsetting", 0);
        if (field.text != nullptr) {
            alternateSetting = ParseDecimalInt(field.text);
            Log("Using USB alternate setting number %d", alternateSetting);
            altGiven = true;
        }
    }
    if (altGiven && interfaceNumber == -1) {
        Log("Error: altsetting present but interface field missing from command string.");
        return KestoBearerErrorInvalidParameter;
    }
    transport = new (std::nothrow) LibUSBBearerConnection(0, this);
    if (transport == nullptr) {
        Log("Out of memory allocating connection instance");
        return KestoBearerErrorFailed;
    }
    int result = transport->Initialise();
    if (result != 0) {
        Log("Failed to initialise LibUSBBearerConnection: libusb error %i", result);
        return KestoBearerErrorFailed;
    }
    SetStatus(KestoConnectionStatusConnecting);
    return OpenAndSwitch(busNumber, deviceAddress);
}

int KestoConnectionAAP::ParseDecimalInt(const char* text) {
    std::stringstream stream(text != nullptr ? text : "");
    if (text == nullptr) {
        stream.setstate(std::ios::badbit);
    }
    int value = 0;
    stream >> std::dec >> value;
    return value;
}

// ---- Accessory-mode switch -------------------------------------------------

int KestoConnectionAAP::OpenAndSwitch(int busNumber, int deviceAddress) {
    int result = transport->OpenDevice(busNumber, deviceAddress);
    if (result != 0) {
        Log("Error: Could not open android device on bus %d at address %d (libusb error %i)", busNumber,
            deviceAddress, result);
        return KestoBearerErrorCannotOpenDevice;
    }
    libusb_device_descriptor descriptor;
    result = libusb_get_device_descriptor(transport->GetDevice(), &descriptor);
    if (result < 0) {
        Log("Unable to get device descriptor with error %d", result);
        return KestoBearerErrorFailed;
    }
    if (IsAccessory(descriptor)) {
        Log("Device already in accessory mode.");
        Log("Kesto server may need to be started manually.");
        result = DiscoverEndpoints(transport->GetDevice());
        if (result == 0) {
            result = SetUpInterface();
        }
        if (result != 0) {
            return result;
        }
        SubmitHandshakeRead();
        return error;
    }
    result = libusb_get_device_descriptor(transport->GetDevice(), &deviceDescriptor);
    if (result < 0) {
        Log("Unable to get device descriptor, error %d", result);
        return KestoBearerErrorFailed;
    }
    portDepth = std::max(0, libusb_get_port_numbers(transport->GetDevice(), portPath, sizeof portPath));
    serialLength = libusb_get_string_descriptor_ascii(transport->GetDeviceHandle(), deviceDescriptor.iSerialNumber,
                                                      serial, kSerialCapacity);
    if (serialLength < 0) {
        // Not fatal: rediscovery then falls back to the first accessory it sees.
        Log("Failed to retrieve serial number for device");
        serialLength = 0;
    }
    if (SubmitVersionQuery() != 0) {
        return KestoBearerErrorFailed;
    }
    return error;
}

int KestoConnectionAAP::SubmitVersionQuery() {
    EnterState(kStateVersionQuery);
    expectedControlLength = kProtocolReplyLength;
    int result = transport->SubmitControlTransfer(kRequestTypeIn, kGetProtocol, 0, 0, kProtocolReplyLength, nullptr,
                                                  kControlTimeoutMs);
    if (result != 0) {
        Log("Failed to submit version query control message, %d", result);
        Fail(KestoBearerErrorFailed);
        return KestoBearerErrorFailed;
    }
    return 0;
}

bool KestoConnectionAAP::CheckVersion(const uint8_t* data, int length) {
    if (data == nullptr || length < kProtocolReplyLength) {
        return false; // the length check has already failed the connection
    }
    int version = data[0] | (data[1] << 8);
    if (version == 0) {
        Log("Device does not support the Android Accessory Protocol, supports 0x%04x", version);
        Fail(KestoBearerErrorFailed);
        return false;
    }
    Log("Device supports Android Accessory Protocol version %d", version);
    protocolVersion = version;
    return true;
}

void KestoConnectionAAP::SendNextIdentityString() {
    if (identityIndex >= kIdentityCount) {
        SubmitStartRequest();
        return;
    }
    const IdentityString& row = kIdentityStrings[identityIndex];
    Field field(this, row.key, row.lookupFlag);
    const char* value = field.text != nullptr ? field.text : row.defaultValue;
    size_t length = std::min<size_t>(std::strlen(value), UINT16_MAX);
    EnterState(kStateIdentity);
    int result = transport->SubmitControlTransfer(kRequestTypeOut, kSendString, 0, static_cast<uint16_t>(identityIndex),
                                                  static_cast<uint16_t>(length),
                                                  reinterpret_cast<const uint8_t*>(value), kControlTimeoutMs);
    if (result != 0) {
        Log("Failed to submit identity string %d, %d", identityIndex, result);
        Fail(KestoBearerErrorFailed);
    }
    identityIndex++;
}

void KestoConnectionAAP::SubmitStartRequest() {
    NoteAccessoriesPresent();
    EnterState(kStateSwitchRequest);
    int result = transport->SubmitControlTransfer(kRequestTypeOut, kStartAccessory, 0, 0, 0, nullptr,
                                                  kControlTimeoutMs);
    if (result != 0) {
        Log("Failed to submit switch to AAP control message, %d", result);
        Fail(KestoBearerErrorFailed);
    }
}

void KestoConnectionAAP::OnControlComplete(int status, const uint8_t* setup, const uint8_t* data, int length) {
    switch (status) {
    case LIBUSB_TRANSFER_COMPLETED:
        if (setup != nullptr && (setup[0] & LIBUSB_ENDPOINT_IN) != 0 && length != expectedControlLength) {
            Log("Failed to get control transfer of expected length, %d of %d", length, expectedControlLength);
            Fail(KestoBearerErrorFailed);
        }
        break;
    case LIBUSB_TRANSFER_ERROR:
        controlRetries++;
        if (controlRetries <= kMaxControlRetries) {
            Log("Retrying setup transfer with status %d, state: %d, retry: %d", status, state, controlRetries);
            RetryControlStep();
            return;
        }
        Log("Setup transfer failed with status: %d, state: %d, retry: %d", status, state, controlRetries);
        Keep(KestoBearerErrorFailed);
        break;
    case LIBUSB_TRANSFER_TIMED_OUT:
        // A phone that does not answer in time is not asked again.
        Fail(KestoBearerErrorFailed);
        break;
    case LIBUSB_TRANSFER_CANCELLED:
        return;
    case LIBUSB_TRANSFER_STALL:
    case LIBUSB_TRANSFER_NO_DEVICE:
    case LIBUSB_TRANSFER_OVERFLOW:
        Log("Setup transfer failed with status: %d, state: %d", status, state);
        Keep(KestoBearerErrorFailed);
        break;
    default:
        break;
    }
    if (error != 0) {
        return;
    }
    controlRetries = 0;
    switch (state) {
    case kStateVersionQuery:
        if (CheckVersion(data, length)) {
            SendNextIdentityString();
        }
        break;
    case kStateIdentity:
        SendNextIdentityString();
        break;
    case kStateSwitchRequest:
        EnterRediscovery();
        break;
    case kStateReserved:
    case kStateClosing:
        break;
    default:
        Log("Control callback called when not expected (state = %d)", state);
        Keep(KestoBearerErrorFailed);
        break;
    }
}

void KestoConnectionAAP::RetryControlStep() {
    switch (state) {
    case kStateVersionQuery:
        SubmitVersionQuery();
        break;
    case kStateIdentity:
        identityIndex--; // it was advanced when the failed string was sent
        SendNextIdentityString();
        break;
    case kStateSwitchRequest:
        SubmitStartRequest();
        break;
    case kStateHandshakeRead:
        SubmitHandshakeRead();
        break;
    case kStateHandshakeWrite:
        SubmitHandshakeWrite();
        break;
    case kStateReserved:
        break;
    default:
        Log("Unable to retry in state %d, aborting", state);
        Keep(KestoBearerErrorFailed);
        break;
    }
}

// Accessories already on the bus before the switch are someone else's phones,
// which may well share our phone's serial number.
void KestoConnectionAAP::NoteAccessoriesPresent() {
    accessoriesBeforeSwitch.clear();
    libusb_device** list = nullptr;
    ssize_t count = libusb_get_device_list(transport->GetContext(), &list);
    if (count < 0) {
        Log("Warning: could not list the accessories present before the switch, error %d", static_cast<int>(count));
        return;
    }
    for (ssize_t i = 0; i < count; ++i) {
        libusb_device_descriptor descriptor;
        if (libusb_get_device_descriptor(list[i], &descriptor) == 0 && IsAccessory(descriptor)) {
            accessoriesBeforeSwitch.push_back(BusAddress(list[i]));
        }
    }
    libusb_free_device_list(list, 1);
}

bool KestoConnectionAAP::WasAccessoryBeforeSwitch(libusb_device* device) const {
    return std::find(accessoriesBeforeSwitch.begin(), accessoriesBeforeSwitch.end(), BusAddress(device)) !=
           accessoriesBeforeSwitch.end();
}

bool KestoConnectionAAP::OnOurPort(libusb_device* device) const {
    uint8_t ports[kMaxPortDepth];
    int depth = libusb_get_port_numbers(device, ports, sizeof ports);
    return portDepth > 0 && depth == portDepth && std::memcmp(ports, portPath, static_cast<size_t>(depth)) == 0;
}

// ---- Rediscovery and interface set-up ----------------------------------------

void KestoConnectionAAP::EnterRediscovery() {
    EnterState(kStateRediscover);
    rediscoveryAttempts = 0;
    RequestRediscoveryTimer();
}

void KestoConnectionAAP::RequestRediscoveryTimer() {
    if (!transport->ToolkitKeepsTimers()) {
        return;
    }
    RequestTimer(rediscoveryAttempts == 0 ? kFirstSearchDelayMs : kSearchDelayMs);
    searchTimerPending = true;
}

int KestoConnectionAAP::TimerExpired() {
    searchTimerPending = false;
    if (transport == nullptr) {
        return error;
    }
    if (state != kStateRediscover) {
        return PumpEvents(true);
    }
    if (rediscoveryAttempts == 0) {
        transport->Close(); // the pre-switch device has left the bus
    }
    SearchStep();
    rediscoveryAttempts++;
    return PumpEvents(true);
}

// Lets libusb deliver its completions and returns the stored error. While
// searching it forgets the error first, so a failed look at the bus is tried
// again on the next tick; everywhere else the error stays until destroy: a
// dead link must not look healthy to a toolkit that only asks.
int KestoConnectionAAP::PumpEvents(bool fromTimer) {
    if (state == kStateRediscover) {
        error = 0;
    }
    transport->HandleEvents(fromTimer);
    return error;
}

void KestoConnectionAAP::SearchStep() {
    int result = SearchBus(rediscoveryAttempts > kSerialOnlySearches);
    if (result != 0) {
        Log("Failed to rediscover device");
        Keep(result);
        RequestRediscoveryTimer(); // no transfer is in flight to wake the toolkit otherwise
        return;
    }
    if (transport->GetDevice() == nullptr) {
        RequestRediscoveryTimer();
        return;
    }
    result = DiscoverEndpoints(transport->GetDevice());
    if (result == 0) {
        result = SetUpInterface();
    }
    if (result != 0) {
        Fail(result);
        return;
    }
    SubmitHandshakeRead();
}

int KestoConnectionAAP::SearchBus(bool fallbackAllowed) {
    libusb_device** list = nullptr;
    ssize_t count = libusb_get_device_list(transport->GetContext(), &list);
    if (count < 0) {
        Log("Failed to retrieve device list when reading descriptors, error %d", static_cast<int>(count));
        return KestoBearerErrorFailed;
    }
    // Better reasons win; among equals, the first in the list.
    enum { kNone, kFallback, kSerialMatch, kSerialOnOurPort } chosenBy = kNone;
    libusb_device* chosen = nullptr;
    for (ssize_t i = 0; i < count; ++i) {
        libusb_device_descriptor descriptor;
        if (libusb_get_device_descriptor(list[i], &descriptor) < 0 || !IsAccessory(descriptor) ||
            WasAccessoryBeforeSwitch(list[i])) {
            continue;
        }
        unsigned char found[kSerialCapacity];
        int foundLength = 0;
        if (transport->OpenDevice(list[i]) == 0) {
            foundLength = libusb_get_string_descriptor_ascii(transport->GetDeviceHandle(),
                                                             descriptor.iSerialNumber, found, kSerialCapacity);
            transport->Close();
        }
        bool serialMatches =
            foundLength > 0 && foundLength == serialLength && std::memcmp(found, serial, serialLength) == 0;
        auto reason = !serialMatches ? kFallback : OnOurPort(list[i]) ? kSerialOnOurPort : kSerialMatch;
        if (serialMatches && reason > chosenBy) {
            Log("Located device with matching serial number");
            chosen = list[i];
            chosenBy = reason;
        } else if (chosenBy == kNone && fallbackAllowed) {
            chosen = list[i];
            chosenBy = kFallback;
        }
    }
    if (chosen == nullptr) {
        libusb_free_device_list(list, 1);
        return 0;
    }
    libusb_ref_device(chosen); // keep it past the list
    libusb_free_device_list(list, 1);
    int result = transport->OpenDevice(chosen);
    libusb_unref_device(chosen);
    if (result != 0) {
        Log("Failed to open desired device with error %d", result);
        return KestoBearerErrorFailed;
    }
    return 0;
}

int KestoConnectionAAP::DiscoverEndpoints(libusb_device* candidate) {
    libusb_config_descriptor* raw = nullptr;
    if (libusb_get_config_descriptor_by_value(candidate, kAccessoryConfiguration, &raw) != 0 || raw == nullptr) {
        Log("Error getting config descriptor for device when finding endpoints.");
        return KestoBearerErrorFailed;
    }
    std::unique_ptr<libusb_config_descriptor, ConfigDescriptorFree> config(raw);
    const AccessoryInterface chosen = AccessoryInterface::Choose(*config, interfaceNumber, alternateSetting);
    switch (chosen.outcome) {
    case AccessoryInterface::Outcome::kChosen:
        break;
    case AccessoryInterface::Outcome::kNoInterfaces:
        Log("No interfaces on attached device.");
        return KestoBearerErrorFailed;
    case AccessoryInterface::Outcome::kTooFewEndpoints:
        Log("There are less than 2 endpoints exposed by the android device.");
        return KestoBearerErrorFailed;
    case AccessoryInterface::Outcome::kNoSuitableInterface:
        Log("Failed to find suitable interface for AAP from device.");
        return KestoBearerErrorFailed;
    case AccessoryInterface::Outcome::kNoBulkPair:
        Log("Error: interface %d lacks a bulk IN and a bulk OUT endpoint", chosen.number);
        return KestoBearerErrorFailed;
    }
    interfaceNumber = chosen.number;
    alternateSetting = chosen.alternateSetting;
    inEndpoint = chosen.inEndpoint;
    outEndpoint = chosen.outEndpoint;
    return 0;
}

int KestoConnectionAAP::SetUpInterface() {
    libusb_device_handle* handle = transport->GetDeviceHandle();
    int configuration = 0;
    int result = libusb_get_configuration(handle, &configuration);
    if (result != 0) {
        Log("Error getting current configuration: %d", result);
    } else if (configuration != kAccessoryConfiguration) {
        // Only when needed: setting it again resets the phone's endpoints.
        result = libusb_set_configuration(handle, kAccessoryConfiguration);
        if (result != 0) {
            Log("Error setting configuration: %d, in configuration %d", result, configuration);
            return KestoBearerErrorFailed;
        }
    }
    result = transport->ClaimInterface(interfaceNumber, alternateSetting, false);
    if (result != 0) {
        Log("Error claiming USB interface: %d", result);
        return KestoBearerErrorFailed;
    }
    result = transport->SetEndpoints(static_cast<uint8_t>(inEndpoint), static_cast<uint8_t>(outEndpoint));
    if (result != 0) {
        Log("Error initialising endpoints: %d", result);
        return KestoBearerErrorFailed;
    }
    return 0;
}

void KestoConnectionAAP::ReleaseAndSetUpAgain() {
    int result = transport->ReleaseInterface(interfaceNumber);
    if (result != 0) {
        Log("Failed to release interface (error %d), connection might fail", result);
    }
    result = DiscoverEndpoints(transport->GetDevice());
    if (result == 0) {
        result = SetUpInterface();
    }
    if (result != 0) {
        Fail(result);
    }
}

// ---- Handshake ----------------------------------------------------------------

void KestoConnectionAAP::SubmitHandshakeRead() {
    EnterState(kStateHandshakeRead);
    int result = transport->SubmitReads(kHandshakeTimeoutMs, 1);
    if (result != 0) {
        Log("Failed to submit handshake read, %d", result);
        Fail(KestoBearerErrorFailed);
    }
}

bool KestoConnectionAAP::CheckHandshake() {
    uint8_t taken[kDeviceHandshakeLength];
    uint32_t count;
    if (transport->PeekReadLength() >= kDeviceHandshakeLength) {
        count = transport->ReadData(taken, kDeviceHandshakeLength);
        if (count == kDeviceHandshakeLength && std::memcmp(taken, kDeviceHandshake, count) == 0) {
            return true; // anything after it stays queued for the first Read
        }
    } else {
        count = transport->ReadData(taken, transport->PeekReadLength());
    }
    char dump[kDeviceHandshakeLength * 5 + 1] = "";
    for (uint32_t i = 0; i < count; ++i) {
        std::snprintf(dump + 5 * i, 6, " 0x%02x", taken[i]);
    }
    Log("Device handshake wasn't as expected:%s", dump);
    if (count == kDeviceHandshakeLength) {
        // Whatever followed a wrong handshake is not application data.
        uint8_t discard[kDeviceHandshakeLength];
        while (transport->ReadData(discard, std::min(transport->PeekReadLength(), kDeviceHandshakeLength)) ==
               kDeviceHandshakeLength) {
        }
    }
    return false;
}

void KestoConnectionAAP::SubmitHandshakeWrite() {
    EnterState(kStateHandshakeWrite);
    int result = transport->SubmitWrite(kHostHandshake, sizeof kHostHandshake, kNoTimeout);
    if (result != 0) {
        Log("Failed to submit handshake write, %d", result);
        Fail(KestoBearerErrorFailed);
    }
}

// ---- Data phase -----------------------------------------------------------------

void KestoConnectionAAP::EnterDataPhase() {
    EnterState(kStateConnected);
    int result = StartReads();
    if (result != 0) {
        Keep(result);
        return;
    }
    ReportConnected();
}

int KestoConnectionAAP::StartReads() {
    if (state == kStateClosing) {
        Log("Closing so not starting new read");
        return KestoBearerErrorFailed;
    }
    if (transport->SubmitReads(kDataReadTimeoutMs, -1) != 0) {
        Log("Failed to submit libusb transfer for read");
        return KestoBearerErrorFailed;
    }
    return 0;
}

void KestoConnectionAAP::ReportConnected() {
    if (!transport->ToolkitKeepsTimers()) {
        return;
    }
    if (state == kStateConnected && Status() != KestoConnectionStatusConnected) {
        SetStatus(KestoConnectionStatusConnected);
    }
}

void KestoConnectionAAP::OnReadComplete(int status) {
    switch (status) {
    case LIBUSB_TRANSFER_COMPLETED:
        if (transport->PeekReadLength() == 0) {
            Log("Completed read of length 0");
            if (state == kStateHandshakeRead) {
                // Still waiting for the handshake: data reads now would take
                // the phone's first bytes while our handshake is in flight.
                SubmitHandshakeRead();
                return;
            }
            int result = StartReads();
            if (result != 0 && error == 0) {
                Log("Attempt to re-read, returning error %d", result);
                Keep(result);
            }
        }
        break;
    case LIBUSB_TRANSFER_ERROR:
    case LIBUSB_TRANSFER_STALL:
    case LIBUSB_TRANSFER_NO_DEVICE:
    case LIBUSB_TRANSFER_OVERFLOW:
        Log("Error in read completion status %d", status);
        Keep(KestoBearerErrorFailed);
        if (state != kStateConnected) {
            // Bytes a failed handshake read brought are not the phone's application data.
            transport->DiscardReadData();
        }
        return;
    case LIBUSB_TRANSFER_TIMED_OUT:
        if (transport->PeekReadLength() != 0) {
            break;
        }
        if (state == kStateHandshakeRead) {
            // A phone that stays silent may have missed our claim: claim again and
            // listen, even after a failed set-up, whose stored error stops the rest.
            ReleaseAndSetUpAgain();
            SubmitHandshakeRead();
        } else if (int result = StartReads(); result != 0) {
            Log("Read resubmit on error, returned error %d", result);
            Keep(result);
        }
        return;
    case LIBUSB_TRANSFER_CANCELLED:
        Log("Pending read cancelled");
        // Only Close cancels; a read that libusb ended so unasked in the data
        // phase is submitted again, or the link would fall silent.
        if (state == kStateConnected && transport->PeekReadLength() == 0) {
            ResumeReads();
        }
        break;
    default:
        break;
    }
    switch (state) {
    case kStateConnected:
    case kStateClosing:
        break; // the data waits for Read
    case kStateHandshakeRead:
        if (CheckHandshake()) {
            SubmitHandshakeWrite();
        } else {
            SubmitHandshakeRead();
        }
        break;
    default:
        Log("Bulk read callback called when not expected (state = %d)", state);
        Keep(KestoBearerErrorFailed);
        break;
    }
}

void KestoConnectionAAP::OnWriteComplete(int status) {
    switch (status) {
    case LIBUSB_TRANSFER_CANCELLED:
        if (state == kStateClosing) {
            break;
        }
        // Only Close cancels: a write that libusb ended so unasked lost bytes the toolkit gave.
        [[fallthrough]];
    case LIBUSB_TRANSFER_ERROR:
    case LIBUSB_TRANSFER_TIMED_OUT:
    case LIBUSB_TRANSFER_STALL:
    case LIBUSB_TRANSFER_NO_DEVICE:
    case LIBUSB_TRANSFER_OVERFLOW:
        Log("Write failed with status: %d", status);
        Keep(KestoBearerErrorFailed);
        break;
    default:
        break;
    }
    switch (state) {
    case kStateConnected:
    case kStateClosing:
        break;
    case kStateHandshakeWrite:
        // Even after a failed handshake write: its stored error reaches the toolkit.
        EnterDataPhase();
        break;
    default:
        Log("Bulk write callback called when not expected (state = %d)", state);
        Keep(KestoBearerErrorFailed);
        break;
    }
}

int KestoConnectionAAP::Read(uint8_t* buffer, uint32_t* length) {
    if (transport == nullptr) {
        *length = 0;
        return error != 0 ? error : KestoBearerErrorFailed;
    }
    // Bytes the phone sent before a failure are still handed over, in the
    // data phase those that libusb holds but no pass has collected included;
    // after them, the failure is, and nothing more.
    uint32_t pending = transport->PeekReadLength();
    if (error != 0 && state != kStateRediscover) {
        if (pending == 0 && !failureHandedOver && state == kStateConnected) {
            transport->HandleEvents();
            pending = transport->PeekReadLength();
        }
        if (pending == 0 || failureHandedOver) {
            failureHandedOver = true;
            *length = 0;
            return error;
        }
    }
    if (pending == 0) {
        *length = 0;
        return error != 0 ? error : ResumeReads();
    }
    if (pending > *length) {
        *length = pending; // nothing taken: the toolkit retries with a buffer this big
        return KestoBearerErrorBufferTooSmall;
    }
    *length = transport->ReadData(buffer, pending);
    // The bytes are the toolkit's now, whatever follows; a failure to read on
    // is stored and reported by the next GetActivity.
    ResumeReads();
    return KestoBearerErrorNone;
}

// Refills the idle read slots in the data phase only: before it, the
// handshake owns the reads, and a data read would take the phone's first bytes.
int KestoConnectionAAP::ResumeReads() {
    if (state != kStateConnected || error != 0) {
        return KestoBearerErrorNone;
    }
    int result = StartReads();
    if (result != 0) {
        Keep(result);
    }
    return result;
}

int KestoConnectionAAP::Write(const uint8_t* buffer, uint32_t* length) {
    if (transport == nullptr || error != 0) {
        *length = 0;
        return error != 0 ? error : KestoBearerErrorFailed;
    }
    // Before the data phase the bulk endpoints belong to the handshake: nothing is taken yet.
    if (state != kStateConnected || transport->IsWriteInProgress()) {
        *length = 0;
        return KestoBearerErrorNone;
    }
    if (int result = transport->SubmitWrite(buffer, *length, kNoTimeout); result != 0) {
        Log("Failed to submit libusb transfer for write");
        *length = 0; // nothing was taken
        // A write the device refuses means the link is gone, and with every
        // read slot full of unread data nothing else would tell the next
        // GetActivity. One too big for memory leaves the link as it was.
        if (result != LIBUSB_ERROR_NO_MEM) {
            Keep(KestoBearerErrorFailed);
        }
        return KestoBearerErrorFailed;
    }
    return KestoBearerErrorNone;
}

int KestoConnectionAAP::GetEventHandle(int* eventHandle, intptr_t* extra) {
    if (transport == nullptr) {
        *eventHandle = -1;
        if (extra != nullptr) {
            *extra = 0;
        }
        return error;
    }
    *eventHandle = transport->GetEventHandle(extra);
    return error;
}

int KestoConnectionAAP::GetActivity(uint32_t* activity) {
    if (error != 0) {
        return error;
    }
    if (transport == nullptr) {
        return KestoBearerErrorFailed; // never established
    }
    *activity = 0;
    int result = PumpEvents();
    if (result != 0) {
        return result;
    }
    if (state == kStateRediscover && !searchTimerPending) {
        // Only when none is due: each request replaces the last, and a toolkit
        // that asks more often than the search ticks would put it off for ever.
        RequestRediscoveryTimer();
    }
    ReportConnected();
    if (!transport->IsWriteInProgress()) {
        *activity |= KestoBearerActivityWritable;
    }
    if (transport->PeekReadLength() != 0) {
        *activity |= KestoBearerActivityReadable;
    }
    return error;
}

char* KestoConnectionAAP::GetProperty(int property) {
    if (property == KestoConnectionPropertyTransport || property == KestoConnectionPropertyMedium) {
        return GetBearer()->AllocPropertyString("USB");
    }
    return nullptr;
}

// ---- Transport plumbing --------------------------------------------------------------

// The toolkit keeps one timer: from now on it serves libusb, not the search.
void KestoConnectionAAP::OnTimeoutRequested(int ms) {
    searchTimerPending = false;
    RequestTimer(ms);
}

void KestoConnectionAAP::OnLog(const char* format, va_list args) { LogV(format, args); }

int KestoConnectionAAP::OnTransportError(int code) {
    Keep(code);
    return 0;
}
