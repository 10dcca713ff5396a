#include "TrackerCore/ProcessInspector.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace skeldrin::ProcessInspector {
namespace {

// KEY=VALUE split at the first '='; the value keeps any further '='.
void addEntry(Environment& environment, std::string_view entry)
{
    const auto equals = entry.find('=');
    if (equals == std::string_view::npos) return;
    environment.insert_or_assign(std::string(entry.substr(0, equals)), std::string(entry.substr(equals + 1)));
}

} // namespace

const std::set<std::string, std::less<>>& shells()
{
    static const std::set<std::string, std::less<>> names{"sh", "bash", "zsh", "dash", "fish", "env"};
    return names;
}

std::optional<ProcessRef> ref(Pid pid)
{
    const auto record = lookup(pid);
    if (!record) return std::nullopt;
    return ProcessRef{pid, record->startTime};
}

bool isAlive(const ProcessRef& process)
{
    const auto record = lookup(process.pid);
    return record && record->startTime == process.startTime;
}

std::optional<std::string> controllingTTY(Pid pid)
{
    auto record = lookup(pid);
    if (!record) return std::nullopt;
    return std::move(record->tty);
}

std::optional<ProcessRef> claude(Pid hookPid)
{
    return claude(hookPid, [](Pid pid) { return lookup(pid); });
}

std::optional<ProcessRef> claude(Pid hookPid, const Lookup& lookupProcess)
{
    if (!lookupProcess) return std::nullopt;
    const auto hook = lookupProcess(hookPid);
    if (!hook || hook->parentPid < 2) return std::nullopt;

    // A consistent process table has no cycles, but records read one by one can disagree with each
    // other when pids are reused mid-walk; never loop on that.
    std::vector<Pid> visited{hookPid};
    Pid candidate = hook->parentPid;
    for (;;) {
        const auto record = lookupProcess(candidate);
        if (!record) return std::nullopt;
        if (!shells().contains(record->shortName)) return ProcessRef{candidate, record->startTime};
        if (record->parentPid < 2) return std::nullopt;
        visited.push_back(candidate);
        candidate = record->parentPid;
        if (std::find(visited.begin(), visited.end(), candidate) != visited.end()) return std::nullopt;
    }
}

std::optional<Environment> parseEnvironment(std::string_view procArgs)
{
    if (procArgs.size() < 4) return std::nullopt;
    std::int32_t argc = 0;
    std::memcpy(&argc, procArgs.data(), sizeof argc);

    Environment environment;
    std::size_t pos = 4;
    const auto execEnd = procArgs.find('\0', pos);
    if (execEnd == std::string_view::npos) return environment;
    pos = procArgs.find_first_not_of('\0', execEnd + 1);
    if (pos == std::string_view::npos) return environment;

    for (std::int32_t i = 0; i < argc && pos < procArgs.size(); ++i) {
        const auto end = procArgs.find('\0', pos);
        pos = end == std::string_view::npos ? procArgs.size() : end + 1;
    }

    while (pos < procArgs.size()) {
        auto end = procArgs.find('\0', pos);
        if (end == std::string_view::npos) end = procArgs.size();
        const auto entry = procArgs.substr(pos, end - pos);
        if (entry.empty()) break; // the environment ends at the first empty string
        addEntry(environment, entry);
        pos = end + 1;
    }
    return environment;
}

Environment parseEnvironBlock(std::string_view block)
{
    Environment environment;
    std::size_t pos = 0;
    while (pos < block.size()) {
        auto end = block.find('\0', pos);
        if (end == std::string_view::npos) end = block.size();
        addEntry(environment, block.substr(pos, end - pos));
        pos = end + 1;
    }
    return environment;
}

} // namespace skeldrin::ProcessInspector
