#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

#include <unistd.h>

#include "kesto-host/HostLog.h"
#include "kesto-host/OutgoingBuffer.h"
#include "kesto-host/StreamClient.h"

// Copies standard input to the phone and the phone's stream to standard output,
// like netcat. Input is read only while little waits to be sent and the stream
// only while little waits for output, so a slow side holds the other back
// instead of filling memory. Ends when input has ended, everything has been
// sent and, with a linger time, the phone has been quiet that long.
class Bridge : public StreamClient {
public:
    Bridge(HostLog& log, std::chrono::milliseconds linger, int inFd = STDIN_FILENO, int outFd = STDOUT_FILENO);

    void AddPollFds(std::vector<pollfd>& fds) override;
    void Serve(ToolkitSession& session, const std::vector<pollfd>& fds, uint32_t activity) override;
    Clock::time_point WakeAt() const override;
    bool Finished() const override { return finished_; }
    int ExitCode() const override { return exitCode_; }

private:
    void TakeInput(short revents);
    void FlushOutput(short revents);
    bool ReceiveFromPhone(ToolkitSession& session);
    bool SendToPhone(ToolkitSession& session);
    void CheckDone();
    Clock::time_point QuietUntil() const;
    void Finish(int exitCode);
    size_t OutputPending() const { return output_.size() - outputHead_; }

    HostLog& log_;
    const std::chrono::milliseconds linger_;
    const int inFd_;
    const int outFd_;
    size_t outputChunk_;
    int inIndex_ = -1;
    int outIndex_ = -1;
    OutgoingBuffer toPhone_;
    std::vector<uint8_t> output_;
    size_t outputHead_ = 0;
    std::vector<uint8_t> readBuffer_;
    bool inputOpen_ = true;
    bool phoneMayHaveData_ = true;
    bool writeOutstanding_ = false;
    std::optional<Clock::time_point> allSentAt_;
    Clock::time_point lastReceived_;
    uint64_t bytesSent_ = 0;
    uint64_t bytesReceived_ = 0;
    bool finished_ = false;
    int exitCode_ = 0;
};
