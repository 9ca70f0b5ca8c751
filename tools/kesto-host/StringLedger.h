#pragma once

#include <cstddef>
#include <set>
#include <string>

// Bookkeeping of the strings that cross the boundary, so that a plug-in that
// leaks or double-frees them is caught. Two kinds: strings lent to the plug-in
// by getConnectionParameter, which it must hand back through freeString; and
// buffers it asks for with allocString, which come back to the toolkit as
// property texts and which the toolkit frees. Used from the toolkit's thread.
class StringLedger {
public:
    StringLedger() = default;
    ~StringLedger();
    StringLedger(const StringLedger&) = delete;
    StringLedger& operator=(const StringLedger&) = delete;

    // A fresh copy of value for getConnectionParameter.
    char* Lend(const std::string& value);
    // freeString: false (and nothing freed) for a pointer that is not on loan.
    bool HandBack(char* string);

    // allocString: a buffer of size bytes, or null when size is 0.
    char* Allocate(size_t size);
    // The toolkit is done with a buffer from Allocate; false for any other pointer.
    bool Release(char* buffer);

    size_t Lent() const { return lent_; }
    size_t HandedBack() const { return handedBack_; }
    size_t Outstanding() const { return onLoan_.size(); }
    size_t BadHandBacks() const { return badHandBacks_; }
    size_t BuffersNotReleased() const { return allocated_.size(); }
    bool Balanced() const { return onLoan_.empty() && badHandBacks_ == 0 && allocated_.empty(); }

private:
    std::set<char*> onLoan_;
    std::set<char*> allocated_;
    size_t lent_ = 0;
    size_t handedBack_ = 0;
    size_t badHandBacks_ = 0;
};
