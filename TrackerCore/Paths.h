#pragma once
#include <filesystem>
#include <optional>
#include <string_view>

namespace skeldrin::paths {

// $HOME, or the password database's home of the current user when it is unset or empty.
std::filesystem::path homeDirectory();
// The user database's home directory of uid.
std::optional<std::filesystem::path> passwordHome(unsigned uid);
// The home directory of uid in the text of an /etc/passwd file.
std::optional<std::filesystem::path> homeInPasswd(std::string_view passwd, unsigned uid);
// Where session files live: per platform, computed the same in the hook and the app.
std::filesystem::path sessionsDirectory();

} // namespace skeldrin::paths
