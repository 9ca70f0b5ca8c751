#include "emulated-phone/PhoneReportText.h"

#include <cstdarg>
#include <cstdio>

namespace emuphone {
namespace {

const char* const kIdentityNames[PhoneReport::kIdentityStrings] = {"manufacturer", "model", "description",
                                                                   "version", "uri", "serial"};

std::string Line(const char* format, ...) __attribute__((format(printf, 1, 2)));

std::string Line(const char* format, ...)
{
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return std::string(text) + "\n";
}

std::string Hex(const std::vector<uint8_t>& bytes)
{
    if (bytes.empty())
        return "(none)";
    std::string text;
    for (uint8_t b : bytes) {
        char digits[4];
        std::snprintf(digits, sizeof digits, "%02X ", b);
        text += digits;
    }
    text.pop_back();
    return text;
}

} // namespace

std::string PhoneReportText::Render(const PhoneReport& r, int phoneNumber)
{
    std::string text = Line("phone %d (serial %s): %s", phoneNumber, r.serial ? r.serial->c_str() : "none",
                            StageName(r.stage));
    text += Line("  addresses: bus %d, normal %d, accessory %d", r.busNumber, r.normalAddress, r.accessoryAddress);
    text += Line("  requests: version %d, identity %d, start %d", r.versionQueries, r.identityRequests,
                 r.startRequests);
    for (size_t i = 0; i < PhoneReport::kIdentityStrings; ++i)
        text += Line("  %-12s %s", kIdentityNames[i], r.identity[i] ? ("\"" + *r.identity[i] + "\"").c_str() : "-");
    text += Line("  host handshake: %s (%s)", Hex(r.hostHandshake).c_str(),
                 r.Reached(PhoneStage::HandshakeDone) ? "matched" : "not matched");
    text += Line("  from host: %llu bytes in %llu transfers, hash %016llx",
                 static_cast<unsigned long long>(r.bytesFromHost), static_cast<unsigned long long>(r.transfersFromHost),
                 static_cast<unsigned long long>(r.hashFromHost));
    text += Line("  to host: %llu bytes in %llu transfers (%llu empty)", static_cast<unsigned long long>(r.bytesToHost),
                 static_cast<unsigned long long>(r.transfersToHost), static_cast<unsigned long long>(r.zeroLengthToHost));
    if (r.unclaimedSubmissions || r.discardedTransfers || r.stalledTransfers)
        text += Line("  unclaimed uses %d, discarded %d, stalled %d", r.unclaimedSubmissions, r.discardedTransfers,
                     r.stalledTransfers);
    return text;
}

} // namespace emuphone
