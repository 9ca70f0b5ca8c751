#pragma once

#include "emulated-phone/PhoneReport.h"

#include <string>

namespace emuphone {

// A short human-readable account of a report, for a demo's terminal.
class PhoneReportText {
public:
    static std::string Render(const PhoneReport& report, int phoneNumber);
};

} // namespace emuphone
