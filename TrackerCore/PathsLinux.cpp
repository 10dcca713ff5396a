#include "TrackerCore/Paths.h"

#include <cstdlib>

namespace skeldrin::paths {

std::filesystem::path sessionsDirectory()
{
    // The XDG base directory rules: a relative $XDG_DATA_HOME is invalid and ignored.
    const char* dataHome = std::getenv("XDG_DATA_HOME");
    const std::filesystem::path base = dataHome && *dataHome == '/' ? std::filesystem::path(dataHome)
                                                                    : homeDirectory() / ".local/share";
    return base / "Skeldrin/sessions";
}

} // namespace skeldrin::paths
