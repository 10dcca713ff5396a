#include "Skeldrin/model/Seams.h"

#include "TrackerCore/ProcessInspector.h"

#include <chrono>

namespace skeldrin {

Date SystemClock::now() const
{
    return std::chrono::time_point_cast<std::chrono::microseconds>(std::chrono::system_clock::now());
}

bool SystemProcessTable::isAlive(const ProcessRef& process) const { return ProcessInspector::isAlive(process); }

std::optional<std::string> SystemProcessTable::executablePath(std::int32_t pid) const
{
    return ProcessInspector::executablePath(pid);
}

} // namespace skeldrin
