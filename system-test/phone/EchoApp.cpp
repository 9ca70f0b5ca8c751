#include "EchoApp.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

namespace {

// Android's accessory driver reads at most this much per request.
constexpr size_t kReadSize = 16384;
// FF FF 00 00 then "\n\nDEV", and the host's answer FF FF 00 00 then "\n\nHOST".
constexpr uint8_t kPhoneHandshake[] = {0xFF, 0xFF, 0x00, 0x00, 0x0A, 0x0A, 0x44, 0x45, 0x56};
constexpr uint8_t kHostHandshake[] = {0xFF, 0xFF, 0x00, 0x00, 0x0A, 0x0A, 0x48, 0x4F, 0x53, 0x54};

// FunctionFS sends a write whole or fails it.
bool WriteOnce(int fd, const uint8_t* data, size_t length) {
    ssize_t n;
    do {
        n = write(fd, data, length);
    } while (n < 0 && errno == EINTR);
    return n == static_cast<ssize_t>(length);
}

} // namespace

EchoApp::EchoApp(int bulkIn, int bulkOut) : in_(bulkIn), out_(bulkOut), thread_([this] { Run(); }) {}

EchoApp::~EchoApp() {
    // Blocked in endpoint I/O, the thread would wait for the next enabling.
    thread_.detach();
}

void EchoApp::Enabled(size_t packetSize) {
    std::lock_guard<std::mutex> lock(mutex_);
    ++enables_;
    packetSize_ = packetSize;
    changed_.notify_all();
}

void EchoApp::Run() {
    uint64_t seen = 0;
    for (;;) {
        size_t packetSize;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait(lock, [&] { return enables_ != seen; });
            seen = enables_;
            packetSize = packetSize_;
        }
        // A session ends when the endpoints are disabled under it.
        Session(packetSize);
    }
}

bool EchoApp::Session(size_t packetSize) {
    if (!Send(kPhoneHandshake, sizeof kPhoneHandshake, packetSize))
        return false;
    std::printf("phone: handshake sent\n");
    std::fflush(stdout);
    std::vector<uint8_t> buffer(kReadSize);
    size_t handshakeSeen = 0;
    for (;;) {
        ssize_t n = read(out_, buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return false;
        const uint8_t* data = buffer.data();
        size_t length = static_cast<size_t>(n);
        while (handshakeSeen < sizeof kHostHandshake && length > 0) {
            if (*data != kHostHandshake[handshakeSeen]) {
                std::printf("phone: the host's handshake differs at byte %zu\n", handshakeSeen);
                std::fflush(stdout);
                return false;
            }
            ++handshakeSeen, ++data, --length;
            if (handshakeSeen == sizeof kHostHandshake) {
                std::printf("phone: host handshake taken\n");
                std::fflush(stdout);
            }
        }
        if (length > 0 && !Send(data, length, packetSize))
            return false;
        echoed_ += length;
    }
}

bool EchoApp::Send(const uint8_t* data, size_t length, size_t packetSize) {
    if (!WriteOnce(in_, data, length))
        return false;
    // A full last packet does not end the host's read; an empty one does.
    return length % packetSize != 0 || WriteOnce(in_, data, 0);
}
