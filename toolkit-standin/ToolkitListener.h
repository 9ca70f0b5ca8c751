#pragma once

#include <string>

namespace standin {

class ToolkitConnection;

// What a toolkit's owner hears as it happens. Every call comes on the
// toolkit's thread, except when the plug-in itself broke that rule.
class ToolkitListener {
public:
    virtual ~ToolkitListener() = default;

    // A break of the plug-in's side of the contract, one line: wrong thread,
    // wrong context, a second "connected", impossible lengths, a reserved slot.
    // String faults are not here: they are counted up in Toolkit::StringProblems.
    virtual void Problem(const std::string& problem) = 0;
    // One of the plug-in's log lines; source is "bearer" or "connection".
    virtual void PluginLine(const char* /*source*/, const char* /*text*/) {}
    // A status the plug-in reported for a connection.
    virtual void Status(const ToolkitConnection& /*connection*/, int /*status*/) {}
    // A support call outside the data path, described; only when Traced() holds.
    virtual bool Traced() const { return false; }
    virtual void Called(const std::string& /*call*/) {}
};

} // namespace standin
