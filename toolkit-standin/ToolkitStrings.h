#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace standin {

// The toolkit's side of string ownership across the boundary. Buffers that the
// bearer gets from allocString come back to the toolkit as property results;
// strings that getConnectionParameter hands out must come back through
// freeString exactly once. Memory is kept until destruction so that a stale
// pointer never aliases a newer string, and released text is overwritten so
// that reading it after release shows up as garbage.
class ToolkitStrings {
public:
    // allocString: a buffer of size bytes, filled with non-NUL bytes so that a
    // copy without its terminator is noticed.
    char* Allocate(size_t size);
    // getConnectionParameter: a new copy of a field's value.
    char* IssueParameter(const std::string& field, const std::string& value);
    // freeString: accepts an unreleased parameter string, records anything else.
    void Release(const char* text);
    // A property slot's result: copies and reclaims an allocString buffer.
    // Null stays empty; a pointer that is not such a buffer is recorded.
    std::optional<std::string> TakeProperty(const char* text);
    // Every fault so far and every string still out, one line each.
    std::vector<std::string> Problems() const;

private:
    enum class Kind { Buffer, Parameter };
    struct Entry {
        Kind kind;
        std::string label;
        size_t size;
        bool released;
    };

    char* Keep(Kind kind, std::string label, size_t size);

    std::vector<std::unique_ptr<char[]>> storage_;
    std::map<const char*, Entry> entries_;
    std::vector<std::string> problems_;
};

} // namespace standin
