#include "bearer/KestoConnectionImpl.h"

#include "bearer/KestoBearerImpl.h"
#include "bearer/LogLine.h"

// Support slots beyond the end of a short support table are null; calls to
// them are skipped rather than made through a null pointer.

KestoConnectionImpl::KestoConnectionImpl(KestoBearerImpl* bearer, void* connectionContext)
    : bearer_(bearer), connectionContext_(connectionContext), status_(0) {}

KestoConnectionImpl::~KestoConnectionImpl() = default;

const KestoBearerSupportAPI& KestoConnectionImpl::Support() const { return bearer_->Support(); }

char* KestoConnectionImpl::GetProperty(int) { return nullptr; }

int KestoConnectionImpl::TimerExpired() { return KestoBearerErrorNone; }

KestoBearerImpl* KestoConnectionImpl::GetBearer() { return bearer_; }

char* KestoConnectionImpl::GetParameter(const char* name, unsigned char flag, int* result) {
    if (Support().getConnectionParameter == nullptr) {
        return nullptr;
    }
    return Support().getConnectionParameter(connectionContext_, name, flag, result);
}

int KestoConnectionImpl::SetStatus(int status) {
    status_ = status;
    if (Support().setConnectionStatus == nullptr) {
        return 0;
    }
    return Support().setConnectionStatus(connectionContext_, status);
}

void KestoConnectionImpl::FreeString(char* string) {
    if (Support().freeString != nullptr) {
        Support().freeString(bearer_->Context(), string);
    }
}

void KestoConnectionImpl::RequestTimer(int delayMs) {
    if (Support().setTimer != nullptr) {
        Support().setTimer(connectionContext_, delayMs);
    }
}

int KestoConnectionImpl::Reserved6(intptr_t a, intptr_t b, bool* flagOut) {
    int word = 0;
    int result = Support().reserved6 != nullptr ? Support().reserved6(connectionContext_, a, b, &word) : 0;
    if (result != 0) {
        return result;
    }
    *flagOut = word != 0;
    return 0;
}

intptr_t KestoConnectionImpl::Reserved7(intptr_t a, intptr_t b) {
    return Support().reserved7 != nullptr ? Support().reserved7(connectionContext_, a, b) : 0;
}

void KestoConnectionImpl::Log(const char* format, ...) {
    va_list args;
    va_start(args, format);
    LogV(format, args);
    va_end(args);
}

void KestoConnectionImpl::LogV(const char* format, va_list args) {
    LogLine line(format, args);
    if (Support().connectionLog != nullptr) {
        Support().connectionLog(connectionContext_, line.Text());
    } else if (Support().bearerLog != nullptr) {
        Support().bearerLog(bearer_->Context(), line.Text());
    }
}
