#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "fuzz/FuzzPhone.h"
#include "kesto/KestoBearer.h"

// The toolkit: loads the bearer, creates one connection with the command
// string the input gives, calls its slots as the input says and answers the
// support calls. Every answer is checked as it comes; destroying the
// connection must give back everything it held.
class FuzzToolkit {
public:
    FuzzToolkit(FuzzPhone& phone, FuzzInput& in);
    ~FuzzToolkit();
    FuzzToolkit(const FuzzToolkit&) = delete;
    FuzzToolkit& operator=(const FuzzToolkit&) = delete;

    bool Alive() const { return connection != nullptr; }
    void Establish();
    void GetActivity();
    // Only once a timer has been asked for, as a toolkit's timer fires.
    void TimerExpired();
    void Read(uint32_t capacity);
    void Write(uint32_t length);
    void GetEventHandle(bool extra);
    // Bit 7: the bearer's; the number is the low bits less 8.
    void Property(uint8_t which);
    void Destroy();

private:
    // A code from a slot that reports the stored error.
    int Reported(int code);

    FuzzPhone& phone;
    std::map<std::string, std::string> fields;
    KestoBearerInterface api{};
    void* bearer = nullptr;
    void* connection = nullptr;
    bool establishCalled = false;
    bool timerAsked = false;
    int failure = 0; // the error the connection reports for good, 0 while none
    int eventHandle = -1;
    int lowestFreeDescriptor;
    int lastStatus = 0;
    // GetActivity calls in a row with the phone still and nothing for libusb to do.
    int idleCalls = 0;
    int changesSeen = -1;
    std::set<char*> parameters;
};
