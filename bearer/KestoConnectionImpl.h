#pragma once

#include <cstdarg>
#include <cstdint>

#include "kesto/KestoBearer.h"

class KestoBearerImpl;

// The object behind a connection handle. The toolkit reaches its first seven
// operations through the interface table's fenced entry points; connection code
// reaches the toolkit through the wrappers below. Runs on the toolkit's thread.
class KestoConnectionImpl {
public:
    KestoConnectionImpl(KestoBearerImpl* bearer, void* connectionContext);

    // Begins connecting; 0 means under way, anything else failed at once.
    virtual int Establish() = 0;
    // Delivers the oldest received block; *length is capacity in, bytes out.
    virtual int Read(uint8_t* buffer, uint32_t* length) = 0;
    // Takes the whole buffer, or sets *length to 0 while a write is in flight.
    virtual int Write(const uint8_t* buffer, uint32_t* length) = 0;
    // Writes the descriptor to wait on; returns the pending error.
    virtual int GetEventHandle(int* eventHandle, intptr_t* extra) = 0;
    // Advances the connection and writes the activity bits; returns the pending error.
    virtual int GetActivity(uint32_t* activity) = 0;
    // A toolkit-owned property string, or null (the default).
    virtual char* GetProperty(int property);
    // A delay asked for with RequestTimer has passed; the default does nothing.
    virtual int TimerExpired();
    virtual KestoBearerImpl* GetBearer();
    // A command-string field as a string to hand back with FreeString, or null when absent.
    virtual char* GetParameter(const char* name, unsigned char flag, int* result);
    // Records status, then reports it; returns the toolkit's answer.
    virtual int SetStatus(int status);
    virtual ~KestoConnectionImpl();

    KestoConnectionImpl(const KestoConnectionImpl&) = delete;
    KestoConnectionImpl& operator=(const KestoConnectionImpl&) = delete;

    void FreeString(char* string);
    void RequestTimer(int delayMs);
    // The toolkit's two reserved support functions, wrapped like the others so that
    // a bearer needing them has them; this one never calls them. A null one answers 0.
    int Reserved6(intptr_t a, intptr_t b, bool* flagOut);
    intptr_t Reserved7(intptr_t a, intptr_t b);

    // Connection log line, cut to 255 characters; falls back to bearerLog.
    void Log(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void LogV(const char* format, va_list args);

    int Status() const { return status_; }

private:
    const KestoBearerSupportAPI& Support() const;

    KestoBearerImpl* bearer_;
    void* connectionContext_;
    int status_;
};
