#pragma once

#include "emulated-phone/PhoneOptions.h"

#include <string>
#include <vector>

namespace emuphone {

// kesto-phone's command line: the phone's knobs, then "--" and the command to
// run on the emulated bus.
class CommandLine {
public:
    // Parses argv; on failure Error() says why.
    bool Parse(int argc, char** argv);

    const PhoneOptions& Phone() const { return phone_; }
    int Phones() const { return phones_; }
    bool Quiet() const { return quiet_; }
    bool HelpWanted() const { return help_; }
    const std::vector<std::string>& Command() const { return command_; }
    const std::string& Error() const { return error_; }

    static std::string Usage();

private:
    bool Apply(const std::string& name, const std::string& value);
    bool Refuse(const std::string& why);

    PhoneOptions phone_;
    int phones_ = 1;
    bool quiet_ = false;
    bool help_ = false;
    std::vector<std::string> command_;
    std::string error_;
};

} // namespace emuphone
