// Liveness through pidfds: the live model asks about every session's process every two seconds.
// Reading /proc for each costs tens of microseconds; once a process has been found alive (by pid and
// exact start time), a pidfd refers to that very process, so later checks are one poll() that no
// reuse of its pid can fool.
#include "Skeldrin/model/Seams.h"
#include "TrackerCore/ProcessInspector.h"

#include <map>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace skeldrin {
namespace {

class LinuxProcessTable final : public ProcessTable {
public:
    ~LinuxProcessTable() override
    {
        for (const auto& [key, fd] : watched_) ::close(fd);
    }

    bool isAlive(const ProcessRef& process) const override
    {
        const Key key{process.pid, process.startTime};
        if (const auto it = watched_.find(key); it != watched_.end()) {
            pollfd p{it->second, POLLIN, 0};
            if (::poll(&p, 1, 0) == 0) return true;
            ::close(it->second); // readable (or broken): the process has exited
            watched_.erase(it);
            return false;
        }
        if (!ProcessInspector::isAlive(process)) return false;
        const int fd = static_cast<int>(::syscall(SYS_pidfd_open, process.pid, 0)); // close-on-exec
        if (fd < 0) return true; // no pidfds here: the next check reads /proc again
        // The pid may have changed hands between the check and the open; check the opened one.
        if (!ProcessInspector::isAlive(process)) {
            ::close(fd);
            return false;
        }
        watched_.emplace(key, fd);
        return true;
    }

    std::optional<std::string> executablePath(std::int32_t pid) const override
    {
        return ProcessInspector::executablePath(pid);
    }

private:
    using Key = std::pair<std::int32_t, double>;
    mutable std::map<Key, int> watched_;
};

} // namespace

std::unique_ptr<ProcessTable> makeSystemProcessTable() { return std::make_unique<LinuxProcessTable>(); }

} // namespace skeldrin
