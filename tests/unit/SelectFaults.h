#pragma once

// Makes the process's next select() calls fail with a chosen errno, so that
// the event thread's handling of a wait that goes wrong can be driven for
// real. Every other call goes through to the C library.
class SelectFaults {
public:
    // The next `count` calls fail with `error`.
    static void FailNext(int error, int count = 1);
    // Calls failed as asked since the last Reset.
    static int Failed();
    static void Reset();
};
