#pragma once

#include <chrono>
#include <cstdint>
#include <random>
#include <vector>

#include "kesto-host/HostLog.h"
#include "kesto-host/OutgoingBuffer.h"
#include "kesto-host/StreamClient.h"

// Checks the stream end to end against the phone's echo application: small
// pings, one at a time, for round-trip times, then a bulk of pseudo-random
// bytes for throughput. Every byte must come back unchanged and in order. The
// results go to standard output. With a seed, the bulk goes as messages of
// pseudo-random lengths, each offered to connectionWrite whole; with
// progressBytes, a line on standard output marks the start, each such share
// come back and the end, with the process's memory and descriptors.
class EchoCheck : public StreamClient {
public:
    static constexpr int kExitMismatch = 3;
    static constexpr size_t kLargestPing = 64 * 1024;

    // pingSize: 1 to kLargestPing bytes; seed 0: the bulk in pieces as they fit.
    EchoCheck(HostLog& log, uint64_t bulkBytes, int pings, size_t pingSize, uint64_t seed = 0,
              uint64_t progressBytes = 0);

    void AddPollFds(std::vector<pollfd>&) override {}
    void Serve(ToolkitSession& session, const std::vector<pollfd>& fds, uint32_t activity) override;
    Clock::time_point WakeAt() const override;
    bool Finished() const override { return finished_; }
    int ExitCode() const override { return exitCode_; }

private:
    bool Receive(ToolkitSession& session);
    bool Verify(const uint8_t* data, size_t size);
    void NoteReturned(Clock::time_point now);
    void Refill();
    bool Send(ToolkitSession& session);
    int OfferMessages(ToolkitSession& session, size_t& taken);
    void WatchProgress(Clock::time_point now);
    void PrintProgress(uint64_t bytes) const;
    void Report() const;
    void Finish(int exitCode);
    uint64_t Total() const { return pingBytes_ + bulkBytes_; }

    HostLog& log_;
    const uint64_t bulkBytes_;
    const int pings_;
    const size_t pingSize_;
    const uint64_t pingBytes_;
    OutgoingBuffer toPhone_;
    const bool randomSizes_;
    std::mt19937_64 sizes_;
    std::vector<uint8_t> message_;
    size_t messageSent_ = 0;
    const uint64_t progressBytes_;
    uint64_t nextProgressAt_;
    std::vector<uint8_t> readBuffer_;
    bool started_ = false;
    bool phoneMayHaveData_ = true;
    uint64_t generated_ = 0;
    uint64_t sent_ = 0;
    uint64_t returned_ = 0;
    int pingsDone_ = 0;
    bool pingInFlight_ = false;
    Clock::time_point pingSentAt_;
    std::vector<double> roundTripsMs_;
    bool bulkStarted_ = false;
    Clock::time_point bulkStartedAt_;
    Clock::time_point bulkEndedAt_;
    Clock::time_point lastProgress_;
    Clock::time_point streamStartedAt_;
    Clock::time_point nextProgressLine_;
    uint64_t returnedAtLastLine_ = 0;
    bool finished_ = false;
    int exitCode_ = 0;
};
