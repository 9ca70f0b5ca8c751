#include "kesto-host/StringLedger.h"

#include <cstdlib>
#include <cstring>

StringLedger::~StringLedger() {
    for (char* s : onLoan_) {
        std::free(s);
    }
    for (char* s : allocated_) {
        std::free(s);
    }
}

char* StringLedger::Lend(const std::string& value) {
    char* copy = static_cast<char*>(std::malloc(value.size() + 1));
    if (copy == nullptr) {
        return nullptr;
    }
    std::memcpy(copy, value.c_str(), value.size() + 1);
    onLoan_.insert(copy);
    ++lent_;
    return copy;
}

bool StringLedger::HandBack(char* string) {
    // A pointer not on loan may be freed already or belong to someone else:
    // freeing it would only turn the plug-in's mistake into a crash here.
    if (onLoan_.erase(string) == 0) {
        ++badHandBacks_;
        return false;
    }
    std::free(string);
    ++handedBack_;
    return true;
}

char* StringLedger::Allocate(size_t size) {
    if (size == 0) {
        return nullptr;
    }
    char* buffer = static_cast<char*>(std::malloc(size));
    if (buffer != nullptr) {
        allocated_.insert(buffer);
    }
    return buffer;
}

bool StringLedger::Release(char* buffer) {
    if (allocated_.erase(buffer) == 0) {
        return false;
    }
    std::free(buffer);
    return true;
}
