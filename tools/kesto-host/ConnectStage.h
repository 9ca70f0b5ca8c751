#pragma once

#include <atomic>

// How far connecting has come, as far as a toolkit can tell from outside the
// plug-in: what connectionEstablish returned, whether the plug-in keeps asking
// for timers (it polls the bus while the phone is away), and its log lines.
// Used to say where a connection that did not complete stopped, and what
// usually stops one there.
class ConnectStage {
public:
    enum class Stage { Opening, Switching, Returning, Handshake, Connected };

    void EstablishReturned(int result);
    // A connectionTimerExpired call; rearmed when the plug-in asked for a new
    // timer inside it.
    void TimerServed(bool rearmed);
    // One of the plug-in's log lines, as the toolkit's log function received it.
    void PluginLine(const char* text);
    void Connected() { connected_ = true; }

    Stage Current() const;
    // "while ..." for the stage, and the usual cause of a stop there.
    static const char* Step(Stage stage);
    static const char* UsualCause(Stage stage);

private:
    bool establishReturned_ = false;
    bool cannotOpen_ = false;
    int timersServed_ = 0;
    bool lastRearmed_ = false;
    bool connected_ = false;
    std::atomic<bool> accessoryFound_{false};
};
