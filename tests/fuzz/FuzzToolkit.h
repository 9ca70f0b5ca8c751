#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "fuzz/FuzzPhone.h"
#include "kesto/KestoBearer.h"

// The toolkit: loads the bearer through its entry point, creates one
// connection and calls its slots as the input says, answering the support
// calls. Every answer of the bearer's is checked as it comes; destroying the
// connection must give back everything it held.
class FuzzToolkit {
public:
    FuzzToolkit(FuzzPhone& phone, std::map<std::string, std::string> fields, bool connectionLog);
    ~FuzzToolkit();
    FuzzToolkit(const FuzzToolkit&) = delete;
    FuzzToolkit& operator=(const FuzzToolkit&) = delete;

    bool Alive() const { return connection != nullptr; }
    void Establish();
    void GetActivity();
    void TimerExpired();
    void Read(uint32_t capacity);
    void Write(uint32_t length);
    void GetEventHandle(bool extra);
    // Bit 7 set: a bearer property; the rest, less 8, is the number.
    void Property(uint8_t which);
    void ToggleAllocationFailure() { failAllocations = !failAllocations; }
    void Destroy();

private:
    // Checks a code from one of the slots that report the stored error.
    int Reported(int code);
    static int Code(int code);

    static FuzzToolkit* From(void* context);
    static char* AllocString(void* context, size_t size);
    static void FreeString(void* context, char* text);
    static void Log(void* context, const char* text);
    static char* GetConnectionParameter(void* context, const char* name, unsigned char flag, int* result);
    static int SetConnectionStatus(void* context, int status);
    static int SetTimer(void* context, int delayMs);

    FuzzPhone& phone;
    std::map<std::string, std::string> fields;
    KestoBearerInterface api{};
    void* bearer = nullptr;
    void* connection = nullptr;
    bool establishCalled = false;
    // The error the connection has reported for good, 0 while none.
    int failure = 0;
    int eventHandle = -1;
    int lowestFreeDescriptor;
    int lastStatus = 0;
    bool failAllocations = false;
    std::map<const char*, size_t> buffers;
    std::set<const char*> parameters;
};
