// On macOS one sysctl answers for a process in about a microsecond, so the inspector is asked each time.
#include "Skeldrin/model/Seams.h"
#include "TrackerCore/ProcessInspector.h"

namespace skeldrin {
namespace {

class MacProcessTable final : public ProcessTable {
public:
    bool isAlive(const ProcessRef& process) const override { return ProcessInspector::isAlive(process); }
    std::optional<std::string> executablePath(std::int32_t pid) const override
    {
        return ProcessInspector::executablePath(pid);
    }
};

} // namespace

std::unique_ptr<ProcessTable> makeSystemProcessTable() { return std::make_unique<MacProcessTable>(); }

} // namespace skeldrin
