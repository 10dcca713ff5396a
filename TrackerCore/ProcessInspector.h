#pragma once
#include "TrackerCore/Origin.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>

// Questions about running processes by process id. Every failure gives an absent result; nothing
// here throws, logs, or signals a process.
namespace skeldrin::ProcessInspector {

using Pid = std::int32_t;

// What the inspector needs of one process's kernel record.
struct Record {
    Pid pid = 0;
    Pid parentPid = 0;
    double startTime = 0;           // seconds since 1970, as ProcessRef keeps it
    std::optional<std::string> tty; // controlling terminal's device path, already checked
    std::string shortName;          // the kernel's short command name, UTF-8 with bad bytes replaced

    bool operator==(const Record&) const = default;
};
using Lookup = std::function<std::optional<Record>(Pid)>;

// The platform's process table (ProcessInspectorLinux.cpp / ProcessInspectorDarwin.cpp).
std::optional<Record> lookup(Pid pid);
std::optional<std::string> executablePath(Pid pid);
std::optional<Environment> startingEnvironment(Pid pid);

// Shell wrappers looked through when searching for the session process.
const std::set<std::string, std::less<>>& shells();

std::optional<ProcessRef> ref(Pid pid);
bool isAlive(const ProcessRef& process);
std::optional<std::string> controllingTTY(Pid pid);

// The Claude Code process that ran the hook whose own pid is given: the first ancestor that is not a
// shell wrapper. The lookup can be replaced to walk a made-up process table.
std::optional<ProcessRef> claude(Pid hookPid);
std::optional<ProcessRef> claude(Pid hookPid, const Lookup& lookup);

// The environment part of a KERN_PROCARGS2 argument area (macOS layout).
std::optional<Environment> parseEnvironment(std::string_view procArgs);
// The NUL-separated KEY=VALUE strings of /proc/<pid>/environ (Linux layout).
Environment parseEnvironBlock(std::string_view environ);

} // namespace skeldrin::ProcessInspector
