#include "kesto-host/EchoCheck.h"

#include <dirent.h>

#include <algorithm>
#include <cstdio>

#include "kesto-host/ToolkitSession.h"

namespace {

constexpr size_t kReadBufferBytes = 16 * 1024;
// Enough queued to keep the plug-in's one write busy back to back.
constexpr size_t kQueueAhead = 4 * OutgoingBuffer::kMaxPiece;
constexpr auto kStallLimit = std::chrono::seconds(10);
constexpr auto kProgressInterval = std::chrono::seconds(1);

// The byte at a given stream offset: a stateless pattern, so that the sender
// and the checker need not share anything but the offset.
uint8_t PatternByte(uint64_t offset) {
    uint64_t z = (offset >> 3) + 0x9E3779B97F4A7C15ULL;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    z ^= z >> 31;
    return static_cast<uint8_t>(z >> ((offset & 7) * 8));
}

// The process's resident memory in kB and its open descriptors, as Linux's
// /proc tells them; -1 where it does not.
void ProcessUse(long& residentKb, int& descriptors) {
    residentKb = -1;
    descriptors = -1;
    if (FILE* status = std::fopen("/proc/self/status", "r")) {
        char line[256];
        while (std::fgets(line, sizeof line, status) != nullptr) {
            std::sscanf(line, "VmRSS: %ld kB", &residentKb);
        }
        std::fclose(status);
    }
    if (DIR* dir = opendir("/proc/self/fd")) {
        descriptors = -3; // not ".", ".." nor the directory's own
        while (readdir(dir) != nullptr) {
            ++descriptors;
        }
        closedir(dir);
    }
}

double Milliseconds(std::chrono::steady_clock::duration d) {
    return std::chrono::duration<double, std::milli>(d).count();
}

} // namespace

EchoCheck::EchoCheck(HostLog& log, uint64_t bulkBytes, int pings, size_t pingSize, uint64_t seed,
                     uint64_t progressBytes)
    : log_(log), bulkBytes_(bulkBytes), pings_(pings), pingSize_(pingSize),
      pingBytes_(pingSize * static_cast<uint64_t>(pings)), randomSizes_(seed != 0), sizes_(seed),
      progressBytes_(progressBytes), nextProgressAt_(progressBytes), readBuffer_(kReadBufferBytes),
      lastProgress_(Clock::now()) {}

void EchoCheck::Serve(ToolkitSession& session, const std::vector<pollfd>&, uint32_t activity) {
    if (!started_) {
        // Connecting may have taken long; the stall clock starts with the stream.
        started_ = true;
        lastProgress_ = Clock::now();
        streamStartedAt_ = lastProgress_;
        if (progressBytes_ != 0) {
            PrintProgress(0);
        }
        if (Total() == 0) {
            Finish(0);
        }
    }
    if ((activity & KestoBearerActivityReadable) != 0) {
        phoneMayHaveData_ = true;
    }
    if (!finished_ && Receive(session)) {
        Refill();
        if (Send(session)) {
            WatchProgress(Clock::now());
        }
    }
}

bool EchoCheck::Receive(ToolkitSession& session) {
    while (phoneMayHaveData_ && !finished_) {
        uint32_t length = 0;
        int rc = session.Read(readBuffer_, length);
        if (rc != KestoBearerErrorNone) {
            session.ReportFailure("connectionRead", rc);
            Finish(1);
            return false;
        }
        if (length == 0) {
            phoneMayHaveData_ = false;
        } else if (!Verify(readBuffer_.data(), length)) {
            Finish(kExitMismatch);
            return false;
        } else {
            NoteReturned(Clock::now());
        }
    }
    return !finished_;
}

bool EchoCheck::Verify(const uint8_t* data, size_t size) {
    if (returned_ + size > sent_) {
        log_.Error("the phone returned %llu bytes, more than the %llu sent",
                   static_cast<unsigned long long>(returned_ + size), static_cast<unsigned long long>(sent_));
        return false;
    }
    for (size_t i = 0; i < size; ++i) {
        uint8_t expected = PatternByte(returned_ + i);
        if (data[i] != expected) {
            log_.Error("byte %llu came back as 0x%02x instead of 0x%02x",
                       static_cast<unsigned long long>(returned_ + i), data[i], expected);
            return false;
        }
    }
    returned_ += size;
    return true;
}

void EchoCheck::NoteReturned(Clock::time_point now) {
    lastProgress_ = now;
    for (; progressBytes_ != 0 && returned_ >= nextProgressAt_; nextProgressAt_ += progressBytes_) {
        PrintProgress(nextProgressAt_);
    }
    if (pingInFlight_ && returned_ == sent_) {
        pingInFlight_ = false;
        roundTripsMs_.push_back(Milliseconds(now - pingSentAt_));
        ++pingsDone_;
    }
    if (returned_ == Total()) {
        if (progressBytes_ != 0 && Total() % progressBytes_ != 0) {
            PrintProgress(Total());
        }
        bulkEndedAt_ = now;
        Report();
        Finish(0);
    }
}

void EchoCheck::Refill() {
    uint8_t chunk[kLargestPing];
    if (pingsDone_ < pings_) {
        // One ping at a time: the next goes out once the last has come back.
        if (generated_ == returned_) {
            for (size_t i = 0; i < pingSize_; ++i) {
                chunk[i] = PatternByte(generated_ + i);
            }
            toPhone_.Append(chunk, pingSize_);
            generated_ += pingSize_;
        }
        return;
    }
    while (!randomSizes_ && toPhone_.Size() < kQueueAhead && generated_ < Total()) {
        size_t n = static_cast<size_t>(std::min<uint64_t>(sizeof chunk, Total() - generated_));
        for (size_t i = 0; i < n; ++i) {
            chunk[i] = PatternByte(generated_ + i);
        }
        toPhone_.Append(chunk, n);
        generated_ += n;
    }
}

bool EchoCheck::Send(ToolkitSession& session) {
    size_t taken = 0;
    int rc = randomSizes_ && pingsDone_ == pings_
                 ? OfferMessages(session, taken)
                 : toPhone_.OfferTo(
                       [&session](const uint8_t* data, uint32_t& length) { return session.Write(data, length); },
                       &taken);
    if (rc != KestoBearerErrorNone) {
        session.ReportFailure("connectionWrite", rc);
        Finish(1);
        return false;
    }
    if (taken == 0) {
        return true;
    }
    Clock::time_point now = Clock::now();
    if (pingsDone_ < pings_) {
        pingInFlight_ = true;
        pingSentAt_ = now;
    } else if (!bulkStarted_) {
        bulkStarted_ = true;
        bulkStartedAt_ = now;
        nextProgressLine_ = now + kProgressInterval;
    }
    sent_ += taken;
    return true;
}

int EchoCheck::OfferMessages(ToolkitSession& session, size_t& taken) {
    // A quarter of the messages are whole packets (multiples of 512 bytes up to
    // 64 KiB), the rest any length from 1 byte to 64 KiB.
    std::uniform_int_distribution<size_t> anyLength(1, kLargestPing);
    std::uniform_int_distribution<size_t> packets(1, kLargestPing / 512);
    while (messageSent_ < message_.size() || generated_ < Total()) {
        if (messageSent_ == message_.size()) {
            const size_t wanted = sizes_() % 4 == 0 ? 512 * packets(sizes_) : anyLength(sizes_);
            message_.resize(static_cast<size_t>(std::min<uint64_t>(wanted, Total() - generated_)));
            for (uint8_t& byte : message_) {
                byte = PatternByte(generated_++);
            }
            messageSent_ = 0;
        }
        uint32_t length = static_cast<uint32_t>(message_.size() - messageSent_);
        int rc = session.Write(message_.data() + messageSent_, length);
        if (rc != KestoBearerErrorNone || length == 0) {
            return rc;
        }
        messageSent_ += length;
        taken += length;
    }
    return KestoBearerErrorNone;
}

void EchoCheck::PrintProgress(uint64_t bytes) const {
    long residentKb = 0;
    int descriptors = 0;
    ProcessUse(residentKb, descriptors);
    std::printf("echo: %llu bytes back after %.1f s, VmRSS %ld kB, %d descriptors\n",
                static_cast<unsigned long long>(bytes), Milliseconds(Clock::now() - streamStartedAt_) / 1000,
                residentKb, descriptors);
    std::fflush(stdout);
}

void EchoCheck::WatchProgress(Clock::time_point now) {
    if (now - lastProgress_ > kStallLimit) {
        log_.Error("nothing came back for %lld s: %llu of %llu bytes returned",
                   static_cast<long long>(std::chrono::duration_cast<std::chrono::seconds>(kStallLimit).count()),
                   static_cast<unsigned long long>(returned_), static_cast<unsigned long long>(Total()));
        Finish(1);
        return;
    }
    if (bulkStarted_ && now >= nextProgressLine_) {
        double seconds = std::chrono::duration<double>(kProgressInterval + (now - nextProgressLine_)).count();
        log_.Note("echo: %.1f of %.1f MiB back, %.2f MB/s", returned_ / 1048576.0, Total() / 1048576.0,
                  (returned_ - returnedAtLastLine_) / 1e6 / seconds);
        returnedAtLastLine_ = returned_;
        nextProgressLine_ = now + kProgressInterval;
    }
}

EchoCheck::Clock::time_point EchoCheck::WakeAt() const {
    Clock::time_point wake = lastProgress_ + kStallLimit;
    return bulkStarted_ ? std::min(wake, nextProgressLine_) : wake;
}

void EchoCheck::Report() const {
    if (!roundTripsMs_.empty()) {
        std::vector<double> sorted = roundTripsMs_;
        std::sort(sorted.begin(), sorted.end());
        size_t middle = sorted.size() / 2;
        double median = sorted.size() % 2 != 0 ? sorted[middle] : (sorted[middle - 1] + sorted[middle]) / 2;
        std::printf("round trip, %zu pings of %llu bytes: min %.3f ms, median %.3f ms, max %.3f ms\n",
                    sorted.size(), static_cast<unsigned long long>(pingSize_), sorted.front(), median, sorted.back());
    }
    if (bulkBytes_ > 0) {
        double seconds = std::chrono::duration<double>(bulkEndedAt_ - bulkStartedAt_).count();
        std::printf("%llu bytes echoed in %.3f s: %.2f MB/s each way\n", static_cast<unsigned long long>(bulkBytes_),
                    seconds, seconds > 0 ? bulkBytes_ / 1e6 / seconds : 0.0);
    }
    std::fflush(stdout);
}

void EchoCheck::Finish(int exitCode) {
    finished_ = true;
    exitCode_ = exitCode;
}
