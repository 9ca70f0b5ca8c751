#include "fuzz/FuzzToolkit.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace {

constexpr uint32_t kUntouched = 0xA5A5A5A5;
const char* const kFields[] = {"bus", "dev", "interface", "altsetting", "manufacturer",
                               "model", "desc", "version", "uri", "serial"};

int LowestFreeDescriptor() {
    const int fd = fcntl(2, F_DUPFD, 0);
    close(fd);
    return fd;
}

int Code(int code) {
    Check(code == 0 || code == 8 || code == 11 || code == 17 || code == 19, "result codes are 0, 8, 11, 17 or 19");
    return code;
}

FuzzToolkit* From(void* context) { return static_cast<FuzzToolkit*>(context); }

} // namespace

FuzzToolkit::FuzzToolkit(FuzzPhone& phone, FuzzInput& in) : phone(phone), lowestFreeDescriptor(LowestFreeDescriptor()) {
    const bool connectionLog = (in.U8() & 1) == 0;
    const uint16_t given = in.U16();
    for (int i = 0; i < 10; i++) {
        if (given & 1 << i) {
            fields[kFields[i]] = in.Text();
        }
    }
    // KESTO_FUZZ_TRACE=1 prints the plug-in's log, to follow one input's story.
    static const bool trace = std::getenv("KESTO_FUZZ_TRACE") != nullptr;
    KestoBearerLogFn log = [](void*, const char* text) {
        Check(std::strlen(text) <= 255, "a log line is at most 255 characters");
        if (trace) {
            std::fprintf(stderr, "plug-in: %s\n", text);
        }
    };
    KestoBearerSupportAPI support{
        [](void*, size_t size) { return static_cast<char*>(std::malloc(size)); },
        [](void* context, char* text) {
            Check(From(context)->parameters.erase(text) == 1, "freeString gets back only fields handed out, once");
            std::free(text);
        },
        log,
        [](void* context, const char* name, unsigned char, int*) -> char* {
            auto it = From(context)->fields.find(name);
            if (it == From(context)->fields.end()) {
                return nullptr;
            }
            return *From(context)->parameters.insert(strdup(it->second.c_str())).first;
        },
        [](void* context, int status) {
            FuzzToolkit* self = From(context);
            Check((status == 3 && self->lastStatus == 0) || (status == 4 && self->lastStatus == 3 && self->phone.Matched()),
                  "connecting is reported once, then connected once, after the handshake");
            self->lastStatus = status;
            return 0;
        },
        [](void* context, int delayMs) {
            Check(delayMs >= 1, "a timer is at least 1 ms");
            From(context)->timerAsked = true;
            return 0;
        },
        nullptr, nullptr, connectionLog ? log : nullptr};
    bearer = KestoBearerInitialize("USBAAP", this, &api, sizeof api, &support, sizeof support);
    Check(bearer != nullptr && api.bearerCreateConnection(bearer, this, &connection) == 0, "a connection can be had");
}

FuzzToolkit::~FuzzToolkit() {
    Destroy();
    api.bearerTerminate(bearer);
}

// Once failed for good, a connection says so on every call: after a failed
// establish, and in every state but the search for the switched phone.
int FuzzToolkit::Reported(int code) {
    Code(code);
    if (failure != 0) {
        Check(code == failure, "an error once reported stays reported");
    } else if (code != 0 && establishCalled && !phone.Searching()) {
        failure = code;
    }
    return code;
}

void FuzzToolkit::Establish() {
    const int code = Code(api.connectionEstablish(connection));
    Check(code != 0 || lastStatus == 3, "an establish under way has reported connecting");
    failure = establishCalled || failure != 0 ? failure : code; // a second establish fails alone
    establishCalled = true;
}

void FuzzToolkit::GetActivity() {
    uint32_t mask = kUntouched;
    const int before = failure;
    if (Reported(api.connectionGetActivity(connection, &mask)) != 0) {
        // Cleared first when the error comes up during this call.
        Check(mask == kUntouched || (before == 0 && mask == 0), "reporting a stored error leaves the mask alone");
    } else {
        Check((mask & ~3u) == 0, "the mask holds only the readable and writable bits");
        // A descriptor that hung up is seen twice, then no longer watched.
        const bool idle = phone.Changes() == changesSeen && fakeusb::Events::QueuedCompletions() == 0;
        idleCalls = idle ? idleCalls + 1 : 0;
        int handle = -1;
        api.connectionGetEventHandle(connection, &handle, nullptr);
        pollfd ready{handle, POLLIN, 0};
        int readable;
        while ((readable = poll(&ready, 1, 0)) < 0 && errno == EINTR) {
            // libFuzzer's time-out alarm: a poll that finds nothing ready then fails with EINTR
        }
        Check(idleCalls < 2 || readable == 0, "with nothing to do, the event handle goes quiet: no spinning");
    }
    changesSeen = phone.Changes();
}

void FuzzToolkit::TimerExpired() {
    if (timerAsked) {
        Reported(api.connectionTimerExpired(connection));
    }
}

void FuzzToolkit::Read(uint32_t capacity) {
    std::vector<uint8_t> buffer(capacity);
    uint32_t length = capacity;
    const int code = Code(api.connectionRead(connection, buffer.data(), &length));
    if (code == 19) {
        Check(length > capacity, "19 only for a block larger than the buffer");
    } else if (code == 0 && length > 0) {
        Check(length <= capacity, "a read delivers no more than the buffer holds");
        phone.Delivered(buffer.data(), length);
    } else {
        Check(length == 0, "a read that delivers bytes returns 0");
    }
    Check(failure == 0 || code == 19 || (code == 0 && length > 0) || code == failure,
          "after a failure, a read delivers what is left, then the error");
}

void FuzzToolkit::Write(uint32_t length) {
    const std::vector<uint8_t> bytes = phone.WriteBytes(length);
    const int writes = phone.Writes();
    uint32_t taken = length;
    const int code = Code(api.connectionWrite(connection, bytes.data(), &taken));
    const bool sent = phone.Writes() > writes;
    if (code == 0 && taken == length && (length > 0 || sent)) {
        Check(sent && phone.LastWrite() == bytes, "a write that returns 0 with its length has sent the bytes");
        phone.Accepted(bytes);
    } else {
        Check(taken == 0 && !sent, "a write not taken sets the length to 0 and sends nothing");
    }
    Check(failure == 0 || code == failure, "after a failure, a write returns the error");
}

void FuzzToolkit::GetEventHandle(bool extra) {
    int handle = -2;
    intptr_t word = 1;
    Reported(api.connectionGetEventHandle(connection, &handle, extra ? &word : nullptr));
    Check(!extra || word == 0, "the second word is 0");
    Check(eventHandle < 0 || handle == eventHandle, "the event handle stays the same");
    if (handle >= 0) {
        Check(fcntl(handle, F_GETFD) != -1, "the event handle is open");
        eventHandle = handle;
    }
}

void FuzzToolkit::Property(uint8_t which) {
    const int number = (which & 0x7F) - 8;
    if (char* text = which & 0x80 ? api.bearerGetProperty(bearer, number) : api.connectionGetProperty(connection, number)) {
        Check(std::strlen(text) < 64, "a property is a short text"); // ASan: within its allocString buffer
        std::free(text);
    }
}

void FuzzToolkit::Destroy() {
    if (connection != nullptr) {
        phone.CallBegins();
        api.connectionDestroy(connection);
        connection = nullptr;
        Check(fakeusb::Outstanding::Now() == fakeusb::Outstanding{},
              "destroy gives back every transfer, handle, context, device reference, list and configuration descriptor");
        Check(parameters.empty(), "every command-string field is handed back");
        Check(eventHandle < 0 || fcntl(eventHandle, F_GETFD) == -1, "destroy closes the event handle");
        Check(LowestFreeDescriptor() == lowestFreeDescriptor, "destroy closes every descriptor");
    }
}
