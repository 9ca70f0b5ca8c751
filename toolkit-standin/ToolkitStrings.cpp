#include "toolkit-standin/ToolkitStrings.h"

#include <cstring>

namespace standin {

char* ToolkitStrings::Keep(Kind kind, std::string label, size_t size) {
    storage_.push_back(std::make_unique<char[]>(size));
    char* text = storage_.back().get();
    std::memset(text, '?', size);
    entries_[text] = Entry{kind, std::move(label), size, false};
    return text;
}

char* ToolkitStrings::Allocate(size_t size) {
    return Keep(Kind::Buffer, "allocString(" + std::to_string(size) + ")", size);
}

char* ToolkitStrings::IssueParameter(const std::string& field, const std::string& value) {
    char* text = Keep(Kind::Parameter, "field \"" + field + "\"", value.size() + 1);
    std::memcpy(text, value.c_str(), value.size() + 1);
    return text;
}

void ToolkitStrings::Release(const char* text) {
    auto found = entries_.find(text);
    if (text == nullptr) {
        problems_.push_back("freeString given null");
    } else if (found == entries_.end()) {
        problems_.push_back("freeString given a string the toolkit never issued");
    } else if (found->second.kind == Kind::Buffer) {
        problems_.push_back("freeString given the toolkit-owned buffer " + found->second.label);
    } else if (found->second.released) {
        problems_.push_back(found->second.label + " released twice");
    } else {
        found->second.released = true;
        std::memset(const_cast<char*>(text), '#', found->second.size - 1);
    }
}

std::optional<std::string> ToolkitStrings::TakeProperty(const char* text) {
    if (text == nullptr) {
        return std::nullopt;
    }
    auto found = entries_.find(text);
    if (found == entries_.end() || found->second.kind != Kind::Buffer || found->second.released) {
        problems_.push_back("property result is not a live allocString buffer");
        return std::string(text);
    }
    found->second.released = true;
    if (std::memchr(text, '\0', found->second.size) == nullptr) {
        problems_.push_back("property text in " + found->second.label + " lacks its terminator");
        return std::string(text, found->second.size);
    }
    return std::string(text);
}

std::vector<std::string> ToolkitStrings::Problems() const {
    std::vector<std::string> problems = problems_;
    for (const auto& [text, entry] : entries_) {
        if (!entry.released) {
            problems.push_back(entry.label + (entry.kind == Kind::Parameter ? " never released"
                                                                             : " never handed to the toolkit"));
        }
    }
    return problems;
}

} // namespace standin
