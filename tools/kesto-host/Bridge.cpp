#include "kesto-host/Bridge.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include <sys/stat.h>

#include "kesto-host/ToolkitSession.h"

namespace {

// Reads from the plug-in start with this much room and grow when told.
constexpr size_t kReadBufferBytes = 16 * 1024;
// Standard input is not read while this much waits for the phone...
constexpr size_t kMaxWaitingForPhone = 256 * 1024;
// ...and the phone's stream is not read while this much waits for output.
constexpr size_t kMaxWaitingForOutput = 256 * 1024;
constexpr size_t kInputChunk = 64 * 1024;

} // namespace

Bridge::Bridge(HostLog& log, std::chrono::milliseconds linger, int inFd, int outFd)
    : log_(log), linger_(linger), inFd_(inFd), outFd_(outFd), readBuffer_(kReadBufferBytes) {
    // Output stays blocking; after POLLOUT a pipe or terminal takes PIPE_BUF bytes
    // without blocking, while a regular file never blocks at all.
    struct stat info {};
    bool regularFile = fstat(outFd_, &info) == 0 && S_ISREG(info.st_mode);
    outputChunk_ = regularFile ? SIZE_MAX : PIPE_BUF;
}

void Bridge::AddPollFds(std::vector<pollfd>& fds) {
    inIndex_ = -1;
    outIndex_ = -1;
    if (inputOpen_ && toPhone_.Size() < kMaxWaitingForPhone) {
        inIndex_ = static_cast<int>(fds.size());
        fds.push_back({inFd_, POLLIN, 0});
    }
    if (OutputPending() > 0) {
        outIndex_ = static_cast<int>(fds.size());
        fds.push_back({outFd_, POLLOUT, 0});
    }
}

void Bridge::Serve(ToolkitSession& session, const std::vector<pollfd>& fds, uint32_t activity) {
    if (inIndex_ >= 0 && static_cast<size_t>(inIndex_) < fds.size()) {
        TakeInput(fds[static_cast<size_t>(inIndex_)].revents);
    }
    if (outIndex_ >= 0 && static_cast<size_t>(outIndex_) < fds.size()) {
        FlushOutput(fds[static_cast<size_t>(outIndex_)].revents);
    }
    if ((activity & KestoBearerActivityWritable) != 0) {
        writeOutstanding_ = false;
    }
    if ((activity & KestoBearerActivityReadable) != 0) {
        phoneMayHaveData_ = true;
    }
    if (!finished_ && ReceiveFromPhone(session) && SendToPhone(session)) {
        CheckDone();
    }
}

void Bridge::TakeInput(short revents) {
    if (revents == 0) {
        return;
    }
    uint8_t chunk[kInputChunk];
    ssize_t n = (revents & POLLNVAL) != 0 ? 0 : read(inFd_, chunk, sizeof chunk);
    if (n > 0) {
        toPhone_.Append(chunk, static_cast<size_t>(n));
    } else if (n == 0) {
        inputOpen_ = false;
        log_.Note("end of input; %zu bytes still to send", toPhone_.Size());
    } else if (errno != EINTR && errno != EAGAIN) {
        log_.Error("reading standard input: %s", std::strerror(errno));
        Finish(1);
    }
}

void Bridge::FlushOutput(short revents) {
    if (revents == 0) {
        return;
    }
    size_t length = std::min(OutputPending(), outputChunk_);
    ssize_t n = write(outFd_, output_.data() + outputHead_, length);
    if (n > 0) {
        outputHead_ += static_cast<size_t>(n);
        if (outputHead_ == output_.size()) {
            output_.clear();
            outputHead_ = 0;
        }
    } else if (n < 0 && errno == EPIPE) {
        log_.Note("standard output closed");
        Finish(0);
    } else if (n < 0 && errno != EINTR && errno != EAGAIN) {
        log_.Error("writing standard output: %s", std::strerror(errno));
        Finish(1);
    }
}

bool Bridge::ReceiveFromPhone(ToolkitSession& session) {
    while (phoneMayHaveData_ && OutputPending() < kMaxWaitingForOutput) {
        uint32_t length = 0;
        int rc = session.Read(readBuffer_, length);
        if (rc != KestoBearerErrorNone) {
            session.ReportFailure("connectionRead", rc);
            Finish(1);
            return false;
        }
        if (length == 0) {
            phoneMayHaveData_ = false;
            break;
        }
        output_.insert(output_.end(), readBuffer_.begin(), readBuffer_.begin() + length);
        bytesReceived_ += length;
        lastReceived_ = Clock::now();
    }
    return true;
}

bool Bridge::SendToPhone(ToolkitSession& session) {
    size_t taken = 0;
    int rc = toPhone_.OfferTo(
        [&session](const uint8_t* data, uint32_t& length) { return session.Write(data, length); }, &taken);
    if (rc != KestoBearerErrorNone) {
        session.ReportFailure("connectionWrite", rc);
        Finish(1);
        return false;
    }
    if (taken > 0) {
        writeOutstanding_ = true;
        bytesSent_ += taken;
    }
    return true;
}

void Bridge::CheckDone() {
    if (inputOpen_ || !toPhone_.Empty() || writeOutstanding_) {
        return;
    }
    Clock::time_point now = Clock::now();
    if (!allSentAt_) {
        allSentAt_ = now;
        log_.Note("all %llu bytes of input sent", static_cast<unsigned long long>(bytesSent_));
    }
    if (now >= QuietUntil() && OutputPending() == 0) {
        log_.Note("received %llu bytes", static_cast<unsigned long long>(bytesReceived_));
        Finish(0);
    }
}

void Bridge::Finish(int exitCode) {
    finished_ = true;
    exitCode_ = exitCode;
}

// When the phone will have been quiet long enough, once everything is sent.
Bridge::Clock::time_point Bridge::QuietUntil() const {
    return allSentAt_ ? std::max(*allSentAt_, lastReceived_) + linger_ : Clock::time_point::max();
}

Bridge::Clock::time_point Bridge::WakeAt() const {
    Clock::time_point quiet = QuietUntil();
    // Past that point only output is awaited, and its descriptor wakes the loop.
    return quiet <= Clock::now() && OutputPending() > 0 ? Clock::time_point::max() : quiet;
}
