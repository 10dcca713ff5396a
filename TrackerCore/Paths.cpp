#include "TrackerCore/Paths.h"

#include <cstdlib>
#include <pwd.h>
#include <unistd.h>
#include <vector>

namespace skeldrin::paths {

std::filesystem::path homeDirectory()
{
    if (const char* home = std::getenv("HOME"); home && *home) return home;
    long size = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found && found->pw_dir)
        return found->pw_dir;
    return "/";
}

} // namespace skeldrin::paths
