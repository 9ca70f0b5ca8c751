#pragma once

#include <cstdarg>

#include <chrono>
#include <mutex>
#include <string>

enum class Verbosity { Quiet, Normal, Verbose };

// Timestamped lines on stderr, in milliseconds since the tool started, so that a
// run shows how long each step of connecting took. Safe from any thread: the
// plug-in may log from a thread of its own.
class HostLog {
public:
    explicit HostLog(Verbosity verbosity);

    // A line from the plug-in's bearerLog or connectionLog; remembered as the last
    // line even when quiet, because errors quote it.
    void PluginLine(const char* source, const char* text);
    // Progress of the tool itself; not shown when quiet.
    void Note(const char* format, ...) __attribute__((format(printf, 2, 3)));
    // Every call across the boundary; shown only when verbose.
    void Trace(const char* format, ...) __attribute__((format(printf, 2, 3)));
    // Always shown.
    void Error(const char* format, ...) __attribute__((format(printf, 2, 3)));

    std::string LastPluginLine() const;
    bool Verbose() const { return verbosity_ == Verbosity::Verbose; }
    bool Quiet() const { return verbosity_ == Verbosity::Quiet; }

private:
    void EmitFormatted(const char* prefix, const char* format, va_list args);
    void Emit(const char* prefix, const char* text);

    const Verbosity verbosity_;
    const std::chrono::steady_clock::time_point start_;
    mutable std::mutex mutex_;
    std::string lastPluginLine_;
};
