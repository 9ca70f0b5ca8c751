#include "EchoRun.h"

#include "emulated-phone/StreamPattern.h"

#include <chrono>

namespace emuphone {
namespace {

// How long one round of event handling may block.
constexpr int kEventSliceMs = 100;
// How long cancelled transfers get to come back.
constexpr int kCancelBudgetMs = 5000;

} // namespace

EchoRun::EchoRun(libusb_context* context, libusb_device_handle* handle, uint8_t in, uint8_t out, uint64_t total,
                 size_t chunk, int depth, unsigned int timeoutMs)
    : context_(context), total_(total), chunk_(chunk)
{
    buffers_.resize(static_cast<size_t>(2 * depth), std::vector<uint8_t>(chunk));
    for (int i = 0; i < 2 * depth; ++i) {
        libusb_transfer* t = libusb_alloc_transfer(0);
        bool write = i < depth;
        libusb_fill_bulk_transfer(t, handle, write ? out : in, buffers_[static_cast<size_t>(i)].data(),
                                  static_cast<int>(chunk), write ? &EchoRun::OnWritten : &EchoRun::OnRead, this,
                                  timeoutMs);
        (write ? writes_ : reads_).push_back(t);
    }
}

EchoRun::~EchoRun()
{
    for (libusb_transfer* t : writes_)
        libusb_free_transfer(t);
    for (libusb_transfer* t : reads_)
        libusb_free_transfer(t);
}

void EchoRun::Run(unsigned int budgetMs)
{
    for (libusb_transfer* t : reads_) {
        if (int error = libusb_submit_transfer(t))
            return Fail(error, "submitting a read");
        ++inFlight_;
    }
    for (libusb_transfer* t : writes_)
        SendNext(t);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(budgetMs);
    while (received_ < total_ && error_ == 0 && std::chrono::steady_clock::now() < deadline) {
        timeval slice{0, kEventSliceMs * 1000};
        libusb_handle_events_timeout_completed(context_, &slice, nullptr);
    }
    if (received_ < total_ && error_ == 0)
        Fail(LIBUSB_ERROR_TIMEOUT, "the echo did not finish in time");
    CancelAll();
}

void EchoRun::SendNext(libusb_transfer* t)
{
    if (sent_ >= total_ || error_ != 0)
        return;
    size_t length = static_cast<size_t>(std::min<uint64_t>(chunk_, total_ - sent_));
    StreamPattern::Fill(sent_, t->buffer, length);
    t->length = static_cast<int>(length);
    if (int error = libusb_submit_transfer(t))
        return Fail(error, "submitting a write");
    sent_ += length;
    ++inFlight_;
}

void LIBUSB_CALL EchoRun::OnWritten(libusb_transfer* t)
{
    auto* run = static_cast<EchoRun*>(t->user_data);
    --run->inFlight_;
    if (t->status == LIBUSB_TRANSFER_CANCELLED)
        return;
    if (t->status != LIBUSB_TRANSFER_COMPLETED || t->actual_length != t->length)
        return run->Fail(t->status != LIBUSB_TRANSFER_COMPLETED ? static_cast<int>(t->status) : LIBUSB_ERROR_IO,
                         "a write ended short or failed");
    run->SendNext(t);
}

void LIBUSB_CALL EchoRun::OnRead(libusb_transfer* t)
{
    auto* run = static_cast<EchoRun*>(t->user_data);
    --run->inFlight_;
    if (t->status == LIBUSB_TRANSFER_CANCELLED)
        return;
    if (t->status != LIBUSB_TRANSFER_COMPLETED)
        return run->Fail(t->status, "a read failed");
    run->Check(t->buffer, t->actual_length);
    if (run->error_ != 0 || run->received_ >= run->total_)
        return;
    if (int error = libusb_submit_transfer(t))
        return run->Fail(error, "resubmitting a read");
    ++run->inFlight_;
}

void EchoRun::Check(const uint8_t* data, int length)
{
    for (int i = 0; i < length; ++i) {
        if (data[i] != StreamPattern::ByteAt(received_ + static_cast<uint64_t>(i)))
            return Fail(LIBUSB_ERROR_OTHER, "byte " + std::to_string(received_ + static_cast<uint64_t>(i)) +
                                                " came back wrong");
    }
    received_ += static_cast<uint64_t>(length);
}

void EchoRun::Fail(int error, const std::string& problem)
{
    if (error_ != 0)
        return;
    error_ = error;
    problem_ = problem;
}

// Every transfer must be back before its memory goes; a device that never
// returns them is reported and the transfers are leaked rather than freed live.
void EchoRun::CancelAll()
{
    for (libusb_transfer* t : writes_)
        libusb_cancel_transfer(t);
    for (libusb_transfer* t : reads_)
        libusb_cancel_transfer(t);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kCancelBudgetMs);
    while (inFlight_ > 0 && std::chrono::steady_clock::now() < deadline) {
        timeval slice{0, kEventSliceMs * 1000};
        libusb_handle_events_timeout_completed(context_, &slice, nullptr);
    }
    if (inFlight_ > 0) {
        Fail(LIBUSB_ERROR_TIMEOUT, "transfers did not come back after cancelling");
        writes_.clear();
        reads_.clear();
    }
}

} // namespace emuphone
