#include "PhoneApp.h"

#include "emulated-phone/StreamPattern.h"

#include <algorithm>

namespace emuphone {
namespace {

// The bytes the host writes after reading the phone's: FF FF 00 00 then "\n\nHOST".
const std::vector<uint8_t> kHostHandshake = {0xFF, 0xFF, 0x00, 0x00, 0x0A, 0x0A, 0x48, 0x4F, 0x53, 0x54};

} // namespace

PhoneApp::PhoneApp(const PhoneOptions& options, BulkInPipe& in, BulkOutPipe& out, PhoneAppObserver& observer)
    : options_(options), in_(in), out_(out), observer_(observer)
{
}

void PhoneApp::Start()
{
    if (started_)
        return;
    started_ = true;
    if (options_.sendHandshake)
        WriteHandshake();
    Read();
}

void PhoneApp::Inject(std::vector<uint8_t> bytes)
{
    size_t length = bytes.size();
    in_.Write(std::move(bytes), [this, length] { observer_.OnBytesToHost(length); });
}

void PhoneApp::WriteHandshake()
{
    for (int i = 0; i < options_.zeroLengthBeforeHandshake; ++i)
        in_.Write({}, nullptr);
    WriteInChunks(options_.handshake, options_.handshakeChunk, [this] { observer_.OnHandshakeTaken(); });
}

void PhoneApp::Read()
{
    out_.Read([this](std::vector<uint8_t> bytes) { OnRead(std::move(bytes)); });
}

void PhoneApp::OnRead(std::vector<uint8_t> bytes)
{
    if (phase_ == Phase::Handshake)
        TakeHostHandshake(bytes);
    if (phase_ == Phase::Running && !bytes.empty())
        RunApplication(std::move(bytes));
    else
        Read();
}

// The host's handshake may arrive in pieces; what follows it in the same read
// is already application data.
void PhoneApp::TakeHostHandshake(std::vector<uint8_t>& bytes)
{
    size_t wanted = kHostHandshake.size() - hostHandshake_.size();
    size_t n = std::min(wanted, bytes.size());
    hostHandshake_.insert(hostHandshake_.end(), bytes.begin(), bytes.begin() + static_cast<long>(n));
    bytes.erase(bytes.begin(), bytes.begin() + static_cast<long>(n));
    if (hostHandshake_.size() < kHostHandshake.size())
        return;
    bool matched = hostHandshake_ == kHostHandshake;
    phase_ = matched ? Phase::Running : Phase::Refused;
    observer_.OnHostHandshake(hostHandshake_, matched);
    if (matched && options_.application == PhoneOptions::Application::Source)
        SourceNext();
}

void PhoneApp::RunApplication(std::vector<uint8_t> bytes)
{
    observer_.OnBytesFromHost(bytes.data(), bytes.size());
    if (options_.application != PhoneOptions::Application::Echo) {
        Read();
        return;
    }
    // An app that echoes writes everything back before it reads again.
    WriteInChunks(std::move(bytes), options_.writeChunk, [this] { Read(); });
}

void PhoneApp::WriteInChunks(std::vector<uint8_t> bytes, size_t chunk, std::function<void()> done)
{
    if (chunk == 0 || bytes.size() <= chunk) {
        size_t length = bytes.size();
        in_.Write(std::move(bytes), [this, length, done, counted = phase_ == Phase::Running] {
            if (counted)
                observer_.OnBytesToHost(length);
            if (done)
                done();
        });
        return;
    }
    for (size_t offset = 0; offset < bytes.size(); offset += chunk) {
        size_t end = std::min(bytes.size(), offset + chunk);
        std::vector<uint8_t> piece(bytes.begin() + static_cast<long>(offset), bytes.begin() + static_cast<long>(end));
        WriteInChunks(std::move(piece), 0, end == bytes.size() ? done : nullptr);
    }
}

void PhoneApp::SourceNext()
{
    uint64_t left = options_.sourceBytes ? options_.sourceBytes - sourced_ : options_.sourceChunk;
    size_t length = static_cast<size_t>(std::min<uint64_t>(left, options_.sourceChunk));
    if (length == 0)
        return;
    std::vector<uint8_t> bytes(length);
    StreamPattern::Fill(sourced_, bytes.data(), length);
    sourced_ += length;
    in_.Write(std::move(bytes), [this, length] {
        observer_.OnBytesToHost(length);
        SourceNext();
    });
}

} // namespace emuphone
