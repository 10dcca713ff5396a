#include "TrackerCore/Files.h"
#include "TrackerCore/Paths.h"

namespace skeldrin::paths {

// For the statically linked hook: /etc/passwd read directly, since the C library's user database
// would need its shared name service modules at run time. Only used when $HOME is unset.
std::optional<std::filesystem::path> passwordHome(unsigned uid)
{
    try {
        if (const auto passwd = files::readWholeFile("/etc/passwd")) return homeInPasswd(*passwd, uid);
    } catch (const std::exception&) {
    }
    return std::nullopt;
}

} // namespace skeldrin::paths
