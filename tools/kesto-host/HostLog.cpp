#include "kesto-host/HostLog.h"

#include <cstdarg>
#include <cstdio>

namespace {

std::string Format(const char* format, va_list args) {
    char text[512];
    std::vsnprintf(text, sizeof text, format, args);
    return text;
}

// Plug-in messages may carry their own newline; the log adds one per line.
std::string WithoutTrailingNewlines(const char* text) {
    std::string line = text != nullptr ? text : "(null)";
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
        line.pop_back();
    }
    return line;
}

} // namespace

HostLog::HostLog(Verbosity verbosity) : verbosity_(verbosity), start_(std::chrono::steady_clock::now()) {}

void HostLog::PluginLine(const char* source, const char* text) {
    std::string line = WithoutTrailingNewlines(text);
    std::lock_guard<std::mutex> lock(mutex_);
    lastPluginLine_ = line;
    if (!Quiet()) {
        std::string prefix = std::string(source) + ": ";
        Emit(prefix.c_str(), line.c_str());
    }
}

void HostLog::Note(const char* format, ...) {
    if (Quiet()) {
        return;
    }
    va_list args;
    va_start(args, format);
    EmitFormatted("", format, args);
    va_end(args);
}

void HostLog::Trace(const char* format, ...) {
    if (!Verbose()) {
        return;
    }
    va_list args;
    va_start(args, format);
    EmitFormatted("trace: ", format, args);
    va_end(args);
}

void HostLog::Error(const char* format, ...) {
    va_list args;
    va_start(args, format);
    EmitFormatted("error: ", format, args);
    va_end(args);
}

void HostLog::EmitFormatted(const char* prefix, const char* format, va_list args) {
    std::string text = Format(format, args);
    std::lock_guard<std::mutex> lock(mutex_);
    Emit(prefix, text.c_str());
}

std::string HostLog::LastPluginLine() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lastPluginLine_;
}

void HostLog::Emit(const char* prefix, const char* text) {
    double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start_).count();
    std::fprintf(stderr, "[%10.3f ms] %s%s\n", ms, prefix, text);
}
