#include "bearer/KestoBearerImpl.h"

#include <cstdio>
#include <cstring>

#include "bearer/InterfaceTable.h"
#include "bearer/LogLine.h"

KestoBearerImpl::KestoBearerImpl(const char* name, void* bearerContext, KestoBearerInterface* interfaceTable,
                                 size_t interfaceSize, const KestoBearerSupportAPI* supportTable,
                                 size_t supportSize)
    : bearerContext_(bearerContext), support_(), name_(name) {
    FillInterfaceTable(interfaceTable, interfaceSize);
    std::memset(&support_, 0, sizeof support_);
    if (supportTable != nullptr) {
        std::memcpy(&support_, supportTable, WholeSlotBytes(supportSize, sizeof support_));
    }
}

KestoBearerImpl::~KestoBearerImpl() = default;

char* KestoBearerImpl::GetProperty(int property) {
    switch (property) {
    case KestoBearerPropertyName:
        return AllocPropertyString(name_.c_str());
    case KestoBearerPropertyVersion:
        return AllocPropertyString(KESTO_BEARER_VERSION);
    default:
        return nullptr;
    }
}

char* KestoBearerImpl::AllocPropertyString(const char* text) {
    if (support_.allocString == nullptr) {
        return nullptr;
    }
    size_t size = std::strlen(text) + 1;
    char* buffer = support_.allocString(bearerContext_, size);
    if (buffer != nullptr) {
        std::memcpy(buffer, text, size);
    }
    return buffer;
}

void KestoBearerImpl::Log(const char* format, ...) {
    if (support_.bearerLog == nullptr) {
        return;
    }
    va_list args;
    va_start(args, format);
    LogLine line(format, args);
    va_end(args);
    support_.bearerLog(bearerContext_, line.Text());
}
