#include "TrackerCore/Paths.h"

namespace skeldrin::paths {

std::filesystem::path sessionsDirectory()
{
    return homeDirectory() / "Library/Application Support/Skeldrin/sessions";
}

} // namespace skeldrin::paths
