// A stand-in for the plug-in that echoes in memory, so that the host tool's
// event loop, bridge and echo check can run end to end without USB. It keeps
// the contract the tool relies on: the event handle is a pipe made readable
// when work waits, one write is in flight at a time, connecting finishes on a
// timer, blocks are delivered whole (19 when the buffer is too small).
// KESTO_LOOPBACK_MODE selects a variation: "corrupt" changes one echoed byte,
// "no-connect" never reports connected, "leak" keeps a parameter string,
// "fail-open" refuses the device as a phone that is not there, and
// "timer-events" completes writes only inside TimerExpired without making the
// handle readable, as work done on a USB time-out does.

#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "kesto/KestoBearer.h"

namespace {

KestoBearerSupportAPI gSupport;
void* gBearerContext;

// The echo comes back in blocks of these sizes in turn; the large ones do not
// fit the tool's first read buffer.
constexpr size_t kBlockSizes[] = {1000, 20000, 512, 1, 40000, 7000};
constexpr uint64_t kCorruptOffset = 5000;

struct Connection {
    void* context;
    std::string mode;
    int pipe[2] = {-1, -1};
    bool connected = false;
    std::vector<uint8_t> inFlight;
    std::deque<uint8_t> held;
    std::deque<std::vector<uint8_t>> blocks;
    size_t nextBlockSize = 0;
    uint64_t echoed = 0;
};

void Wake(Connection* c) {
    char byte = 0;
    (void)!write(c->pipe[1], &byte, 1);
}

void Log(Connection* c, const char* text) { gSupport.connectionLog(c->context, text); }

char* Property(const char* text) {
    char* s = gSupport.allocString(gBearerContext, std::strlen(text) + 1);
    if (s != nullptr) {
        std::strcpy(s, text);
    }
    return s;
}

// Fetches a field the way the real plug-in does, handing the string back unless leaking.
bool Field(Connection* c, const char* name, unsigned char flag) {
    char* value = gSupport.getConnectionParameter(c->context, name, flag, nullptr);
    if (value == nullptr) {
        return false;
    }
    if (!(c->mode == "leak" && std::strcmp(name, "model") == 0)) {
        gSupport.freeString(gBearerContext, value);
    }
    return true;
}

// Completes the write in flight: its bytes join those not yet handed out, and
// whole blocks are cut from them, so a block may span writes. With no write in
// flight the rest goes out as one block.
void CompleteWrite(Connection* c, bool flushAll) {
    bool wrote = !c->inFlight.empty() && !flushAll;
    for (uint8_t byte : c->inFlight) {
        c->held.push_back(c->mode == "corrupt" && c->echoed == kCorruptOffset ? byte ^ 0x20 : byte);
        ++c->echoed;
    }
    c->inFlight.clear();
    for (;;) {
        size_t size = kBlockSizes[c->nextBlockSize];
        if (c->held.empty() || (wrote && c->held.size() < size)) {
            break;
        }
        size = std::min(size, c->held.size());
        c->blocks.emplace_back(c->held.begin(), c->held.begin() + static_cast<std::ptrdiff_t>(size));
        c->held.erase(c->held.begin(), c->held.begin() + static_cast<std::ptrdiff_t>(size));
        c->nextBlockSize = (c->nextBlockSize + 1) % (sizeof kBlockSizes / sizeof kBlockSizes[0]);
    }
    if (!c->held.empty()) {
        Wake(c); // the rest goes out at the next GetActivity unless more arrives
    }
}

void Terminate(void*) {}

char* BearerProperty(void*, int property) {
    const char* texts[] = {"USBAAP", "Loopback stand-in", "Echoes in memory", "0.0.0.1"};
    return property >= 0 && property < 4 ? Property(texts[property]) : nullptr;
}

int Create(void*, void* context, void** out) {
    auto* c = new Connection;
    c->context = context;
    const char* mode = std::getenv("KESTO_LOOPBACK_MODE");
    c->mode = mode != nullptr ? mode : "";
    *out = c;
    return KestoBearerErrorNone;
}

int Establish(void* connection) {
    auto* c = static_cast<Connection*>(connection);
    if (!Field(c, "bus", 0) || !Field(c, "dev", 0)) {
        Log(c, "Error: missing bus or dev fields from command string.");
        return KestoBearerErrorInvalidParameter;
    }
    const char* identity[] = {"manufacturer", "model", "desc", "version", "uri", "serial"};
    for (const char* name : identity) {
        Field(c, name, std::strcmp(name, "desc") == 0 || std::strcmp(name, "uri") == 0 ? 1 : 0);
    }
    if (c->mode == "fail-open") {
        Log(c, "Error: Could not open android device on bus 1 at address 2 (libusb error -5)");
        return KestoBearerErrorCannotOpenDevice;
    }
    if (pipe(c->pipe) != 0) {
        return KestoBearerErrorFailed;
    }
    fcntl(c->pipe[0], F_SETFL, O_NONBLOCK);
    fcntl(c->pipe[1], F_SETFL, O_NONBLOCK);
    gSupport.setConnectionStatus(c->context, KestoConnectionStatusConnecting);
    gSupport.setTimer(c->context, 20);
    return KestoBearerErrorNone;
}

void Destroy(void* connection) {
    auto* c = static_cast<Connection*>(connection);
    if (c == nullptr) {
        return;
    }
    for (int fd : c->pipe) {
        if (fd >= 0) {
            close(fd);
        }
    }
    delete c;
}

int Read(void* connection, uint8_t* buffer, uint32_t* length) {
    auto* c = static_cast<Connection*>(connection);
    if (c->blocks.empty()) {
        *length = 0;
        return KestoBearerErrorNone;
    }
    const std::vector<uint8_t>& block = c->blocks.front();
    if (block.size() > *length) {
        *length = static_cast<uint32_t>(block.size());
        return KestoBearerErrorBufferTooSmall;
    }
    std::memcpy(buffer, block.data(), block.size());
    *length = static_cast<uint32_t>(block.size());
    c->blocks.pop_front();
    return KestoBearerErrorNone;
}

int Write(void* connection, const uint8_t* buffer, uint32_t* length) {
    auto* c = static_cast<Connection*>(connection);
    if (!c->inFlight.empty()) {
        *length = 0;
        return KestoBearerErrorNone;
    }
    c->inFlight.assign(buffer, buffer + *length);
    if (c->mode == "timer-events") {
        gSupport.setTimer(c->context, 1);
    } else {
        Wake(c);
    }
    return KestoBearerErrorNone;
}

int GetEventHandle(void* connection, int* handle, intptr_t* extra) {
    *handle = static_cast<Connection*>(connection)->pipe[0];
    if (extra != nullptr) {
        *extra = 0;
    }
    return KestoBearerErrorNone;
}

int GetActivity(void* connection, uint32_t* activity) {
    auto* c = static_cast<Connection*>(connection);
    char drain[16];
    while (read(c->pipe[0], drain, sizeof drain) > 0) {
    }
    CompleteWrite(c, false);
    *activity = KestoBearerActivityWritable | (c->blocks.empty() ? 0 : KestoBearerActivityReadable);
    return KestoBearerErrorNone;
}

char* ConnectionProperty(void*, int property) {
    return property == KestoConnectionPropertyTransport || property == KestoConnectionPropertyMedium
               ? Property("USB")
               : nullptr;
}

int TimerExpired(void* connection) {
    auto* c = static_cast<Connection*>(connection);
    if (c->mode == "no-connect") {
        gSupport.setTimer(c->context, 100);
    } else if (c->connected) {
        CompleteWrite(c, c->mode == "timer-events");
    } else {
        c->connected = true;
        Log(c, "Loopback connected\n");
        gSupport.setConnectionStatus(c->context, KestoConnectionStatusConnected);
    }
    return KestoBearerErrorNone;
}

} // namespace

extern "C" KESTO_BEARER_EXPORT void* KestoBearerInitialize(const char*, void* bearerContext,
                                                           KestoBearerInterface* table, size_t,
                                                           const KestoBearerSupportAPI* support, size_t) {
    gSupport = *support;
    gBearerContext = bearerContext;
    *table = {Terminate, Create, BearerProperty, Establish, Destroy, Read, Write,
              GetEventHandle, GetActivity, ConnectionProperty, TimerExpired};
    static int bearer;
    return &bearer;
}
