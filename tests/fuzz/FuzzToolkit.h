#pragma once

#include <cstdint>
#include <string>

#include "fuzz/FuzzPhone.h"
#include "toolkit-standin/Toolkit.h"

// The toolkit: the stand-in loads the bearer and answers the support calls;
// this creates one connection with the command string the input gives and
// calls its slots as the input says. Every answer is checked as it comes, any
// break the stand-in sees is a finding, and destroying the connection must
// give back everything it held.
class FuzzToolkit : public standin::ToolkitListener {
public:
    FuzzToolkit(FuzzPhone& phone, FuzzInput& in);
    ~FuzzToolkit() override;

    bool Alive() const { return connection.Handle() != nullptr; }
    void Establish();
    void GetActivity();
    // Only once a timer has been asked for, as a toolkit's timer fires.
    void TimerExpired();
    void Read(uint32_t capacity);
    void Write(uint32_t length);
    void GetEventHandle(bool extra);
    void Property(uint8_t which);
    void Destroy();

    void Problem(const std::string& problem) override { Check(false, problem.c_str()); }
    void PluginLine(const char* source, const char* text) override;
    void Status(const standin::ToolkitConnection& reported, int status) override;

private:
    // A code from a slot that reports the stored error.
    int Reported(int code);
    const KestoBearerInterface& Api() const { return toolkit.Interface(); }

    FuzzPhone& phone;
    const int lowestFreeDescriptor;
    bool establishCalled = false;
    int failure = 0; // the error the connection reports for good, 0 while none
    bool failureRead = false; // a read has returned it
    int eventHandle = -1;
    // GetActivity calls in a row with the phone still and nothing for libusb to do.
    int idleCalls = 0;
    int changesSeen = -1;
    standin::Toolkit toolkit;
    standin::ToolkitConnection& connection;
};
