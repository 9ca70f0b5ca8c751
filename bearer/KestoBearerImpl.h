#pragma once

#include <cstdarg>
#include <string>

#include "kesto/KestoBearer.h"

// The bearer behind the handle that KestoBearerInitialize returns. It owns the
// private copy of the toolkit's support table that every connection reaches
// through it, so it must outlive all of its connections.
class KestoBearerImpl {
public:
    // Copies the name, fills interfaceTable slot by slot as far as interfaceSize
    // reaches and copies supportTable as far as supportSize reaches; the
    // caller's tables are not kept.
    KestoBearerImpl(const char* name, void* bearerContext, KestoBearerInterface* interfaceTable,
                    size_t interfaceSize, const KestoBearerSupportAPI* supportTable, size_t supportSize);

    // Creates a connection for the toolkit's connection context and writes its
    // handle to *connectionOut; returns a result code.
    virtual int CreateConnection(void* connectionContext, void** connectionOut) = 0;
    // Returns a toolkit-owned copy of property 0 (name) or 3 (version), else null.
    virtual char* GetProperty(int property);
    virtual ~KestoBearerImpl();

    KestoBearerImpl(const KestoBearerImpl&) = delete;
    KestoBearerImpl& operator=(const KestoBearerImpl&) = delete;

    // A copy of text in a buffer from allocString, or null when that fails.
    char* AllocPropertyString(const char* text);
    // Bearer-level log line, cut to 255 characters, through bearerLog.
    void Log(const char* format, ...) __attribute__((format(printf, 2, 3)));

    void* Context() const { return bearerContext_; }
    const KestoBearerSupportAPI& Support() const { return support_; }

private:
    void* bearerContext_;
    KestoBearerSupportAPI support_;
    std::string name_;
};
