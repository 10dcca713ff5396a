#include "TrackerCore/Paths.h"

#include <pwd.h>
#include <unistd.h>
#include <vector>

namespace skeldrin::paths {

// The system's user database, which may be more than /etc/passwd (LDAP, systemd-homed). The static
// hook brings its own definition (PasswordHomeStatic.cpp), so that this one, and the C library's
// name service modules it would need at run time, are never linked into it.
std::optional<std::filesystem::path> passwordHome(unsigned uid)
{
    const long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwuid_r(static_cast<uid_t>(uid), &entry, buffer.data(), buffer.size(), &found) == 0 && found &&
        found->pw_dir && *found->pw_dir)
        return std::filesystem::path(found->pw_dir);
    return std::nullopt;
}

} // namespace skeldrin::paths
