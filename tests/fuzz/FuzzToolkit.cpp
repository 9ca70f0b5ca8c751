#include "fuzz/FuzzToolkit.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
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

standin::Toolkit::Options Loading(FuzzInput& in, standin::ToolkitListener* listener) {
    standin::Toolkit::Options options{KestoBearerInitialize};
    options.connectionLog = (in.U8() & 1) == 0;
    options.listener = listener;
    return options;
}

standin::ToolkitConnection::Fields CommandString(FuzzInput& in) {
    standin::ToolkitConnection::Fields fields;
    const uint16_t given = in.U16();
    for (int i = 0; i < 10; i++) {
        if (given & 1 << i) {
            fields[kFields[i]] = in.Text();
        }
    }
    return fields;
}

} // namespace

FuzzToolkit::FuzzToolkit(FuzzPhone& phone, FuzzInput& in)
    : phone(phone), lowestFreeDescriptor(LowestFreeDescriptor()), toolkit(Loading(in, this)),
      connection(toolkit.AddConnection(CommandString(in))) {
    Check(toolkit.Bearer() != nullptr && toolkit.CreateConnection(connection) == 0, "a connection can be had");
}

FuzzToolkit::~FuzzToolkit() {
    Destroy();
    toolkit.Terminate();
}

void FuzzToolkit::PluginLine(const char*, const char* text) {
    Check(std::strlen(text) <= 255, "a log line is at most 255 characters");
    if (Tracing()) {
        std::fprintf(stderr, "plug-in: %s\n", text);
    }
}

void FuzzToolkit::Status(const standin::ToolkitConnection& reported, int) {
    Check(reported.Statuses() == std::vector<int>{3} || (reported.Statuses() == std::vector<int>{3, 4} && phone.Matched()),
          "connecting is reported once, then connected once, after the handshake");
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
    const int code = Code(Api().connectionEstablish(connection.Handle()));
    Check(code != 0 || connection.Statuses() == std::vector<int>{3}, "an establish under way has reported connecting");
    failure = establishCalled || failure != 0 ? failure : code; // a second establish fails alone
    establishCalled = true;
}

void FuzzToolkit::GetActivity() {
    uint32_t mask = kUntouched;
    const int before = failure;
    if (Reported(Api().connectionGetActivity(connection.Handle(), &mask)) != 0) {
        // Cleared first when the error comes up during this call.
        Check(mask == kUntouched || (before == 0 && mask == 0), "reporting a stored error leaves the mask alone");
    } else {
        Check((mask & ~3u) == 0, "the mask holds only the readable and writable bits");
        // A descriptor that hung up is seen twice, then no longer watched.
        const bool idle = phone.Changes() == changesSeen && fakeusb::Events::QueuedCompletions() == 0;
        idleCalls = idle ? idleCalls + 1 : 0;
        GetEventHandle(false);
        pollfd ready{eventHandle, POLLIN, 0};
        int readable;
        while ((readable = poll(&ready, 1, 0)) < 0 && errno == EINTR) {
            // libFuzzer's time-out alarm: a poll that finds nothing ready then fails with EINTR
        }
        Check(idleCalls < 2 || readable == 0, "with nothing to do, the event handle goes quiet: no spinning");
    }
    changesSeen = phone.Changes();
}

void FuzzToolkit::TimerExpired() {
    if (connection.TimerRequestCount() > 0) {
        Reported(Api().connectionTimerExpired(connection.Handle()));
    }
}

// The stand-in checks the length against the buffer both ways.
void FuzzToolkit::Read(uint32_t capacity) {
    const standin::Toolkit::Transfer got = toolkit.Read(connection, capacity);
    const int code = Code(got.result);
    if (code == 0 && got.length > 0) {
        phone.Delivered(got.bytes.data(), got.length);
    } else {
        Check(code == 19 || got.length == 0, "a read that delivers nothing sets the length to 0");
    }
    Check(failure == 0 || code == 19 || (code == 0 && got.length > 0) || code == failure,
          "after a failure, a read delivers what is left, then the error");
    Check(!failureRead || code == failure, "once a read has returned the failure, it delivers nothing more");
    failureRead = failureRead || (failure != 0 && code == failure);
}

// The stand-in overwrites its buffer after the call: the plug-in must have copied it.
void FuzzToolkit::Write(uint32_t length) {
    const std::vector<uint8_t> bytes = phone.WriteBytes(length);
    const standin::Toolkit::Transfer put = toolkit.Write(connection, bytes);
    const int code = Code(put.result);
    const std::optional<std::vector<uint8_t>>& sent = phone.NewWrite();
    if (code == 0 && put.length == length && (length > 0 || sent)) {
        Check(sent == bytes, "a write that returns 0 with its length has sent the bytes");
        phone.Accepted(bytes);
    } else {
        Check(put.length == 0 && !sent, "a write not taken sets the length to 0 and sends nothing");
    }
    Check(failure == 0 || code == failure, "after a failure, a write returns the error");
}

void FuzzToolkit::GetEventHandle(bool extra) {
    int handle = -2;
    intptr_t word = 1;
    Reported(Api().connectionGetEventHandle(connection.Handle(), &handle, extra ? &word : nullptr));
    Check(!extra || word == 0, "the second word is 0");
    Check(eventHandle < 0 || handle == eventHandle, "the event handle stays the same");
    if (handle >= 0) {
        Check(fcntl(handle, F_GETFD) != -1, "the event handle is open");
        eventHandle = handle;
    }
}

// The stand-in's ledger takes the text back and checks its buffer.
void FuzzToolkit::Property(uint8_t which) {
    const int number = (which & 0x7F) - 8;
    const std::optional<std::string> text =
        which & 0x80 ? toolkit.BearerProperty(number) : toolkit.ConnectionProperty(connection, number);
    Check(!text || text->size() < 64, "a property is a short text");
}

void FuzzToolkit::Destroy() {
    if (Alive()) {
        phone.CallBegins();
        toolkit.Destroy(connection);
        Check(fakeusb::Outstanding::Now() == fakeusb::Outstanding{},
              "destroy gives back every transfer, handle, context, device reference, list and configuration descriptor");
        for (const std::string& problem : toolkit.StringProblems()) {
            Problem(problem); // every command-string field handed back once, every property buffer taken
        }
        const std::vector<int>& timers = connection.TimerRequests();
        Check(std::all_of(timers.begin(), timers.end(), [](int ms) { return ms >= 1; }), "a timer is at least 1 ms");
        Check(eventHandle < 0 || fcntl(eventHandle, F_GETFD) == -1, "destroy closes the event handle");
        Check(LowestFreeDescriptor() == lowestFreeDescriptor, "destroy closes every descriptor");
    }
}
