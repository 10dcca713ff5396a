#include "TrackerCore/ProcessInspector.h"

#include "TrackerCore/Text.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <vector>

#include <libproc.h>
#include <sys/param.h>
#include <sys/proc.h>
#include <sys/stat.h>
#include <sys/sysctl.h>
#include <sys/types.h>

namespace skeldrin::ProcessInspector {
namespace {

constexpr std::size_t kShortNameLimit = 16; // MAXCOMLEN: p_comm holds one more byte for the NUL
constexpr std::size_t kPathBufferSize = 4096;

std::optional<std::string> terminalPath(dev_t device)
{
    if (device == static_cast<dev_t>(-1)) return std::nullopt; // NODEV: no controlling terminal
    const char* name = ::devname(device, S_IFCHR);
    if (name == nullptr) return std::nullopt;
    std::string path = "/dev/";
    path += name;
    if (path == "/dev/??") return std::nullopt; // devname's placeholder for a device it cannot name
    return path;
}

} // namespace

std::optional<Record> lookup(Pid pid)
{
    int name[] = {CTL_KERN, KERN_PROC, KERN_PROC_PID, pid};
    struct kinfo_proc info;
    std::memset(&info, 0, sizeof info);
    std::size_t size = sizeof info;
    if (::sysctl(name, static_cast<u_int>(std::size(name)), &info, &size, nullptr, 0) != 0 || size == 0)
        return std::nullopt;

    const struct timeval& started = info.kp_proc.p_starttime;
    const char* comm = info.kp_proc.p_comm;
    const std::size_t commLength = ::strnlen(comm, std::min(sizeof info.kp_proc.p_comm, kShortNameLimit));

    Record record;
    record.pid = pid;
    record.parentPid = info.kp_eproc.e_ppid;
    record.startTime = static_cast<double>(started.tv_sec) + static_cast<double>(started.tv_usec) / 1'000'000.0;
    record.tty = terminalPath(info.kp_eproc.e_tdev);
    record.shortName = text::sanitizeUtf8(std::string_view(comm, commLength));
    return record;
}

std::optional<std::string> executablePath(Pid pid)
{
    std::vector<char> buffer(kPathBufferSize, '\0');
    const int length = ::proc_pidpath(pid, buffer.data(), static_cast<std::uint32_t>(buffer.size()));
    if (length < 1) return std::nullopt;
    return std::string(buffer.data(), ::strnlen(buffer.data(), buffer.size()));
}

std::optional<Environment> startingEnvironment(Pid pid)
{
    int argMaxName[] = {CTL_KERN, KERN_ARGMAX};
    int argMax = 0;
    std::size_t size = sizeof argMax;
    if (::sysctl(argMaxName, static_cast<u_int>(std::size(argMaxName)), &argMax, &size, nullptr, 0) != 0 ||
        argMax < 0)
        return std::nullopt;
    // A zero-sized buffer would turn the next call into a size query; there is nothing to parse anyway.
    if (argMax == 0) return parseEnvironment({});

    std::vector<char> buffer(static_cast<std::size_t>(argMax), '\0');
    int argsName[] = {CTL_KERN, KERN_PROCARGS2, pid};
    size = buffer.size();
    if (::sysctl(argsName, static_cast<u_int>(std::size(argsName)), buffer.data(), &size, nullptr, 0) != 0)
        return std::nullopt;
    return parseEnvironment(std::string_view(buffer.data(), std::min(size, buffer.size())));
}

} // namespace skeldrin::ProcessInspector
