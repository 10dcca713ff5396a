#pragma once
#include <filesystem>

namespace skeldrin::paths {

// $HOME, or the password database's home of the current user when it is unset or empty.
std::filesystem::path homeDirectory();
// Where session files live: per platform, computed the same in the hook and the app.
std::filesystem::path sessionsDirectory();

} // namespace skeldrin::paths
