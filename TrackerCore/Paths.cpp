#include "TrackerCore/Paths.h"

#include <charconv>
#include <cstdlib>
#include <unistd.h>

namespace skeldrin::paths {

std::filesystem::path homeDirectory()
{
    if (const char* home = std::getenv("HOME"); home && *home) return home;
    if (auto home = passwordHome(static_cast<unsigned>(::getuid()))) return *home;
    return "/";
}

std::optional<std::filesystem::path> homeInPasswd(std::string_view passwd, unsigned uid)
{
    // name:password:uid:gid:comment:home:shell
    while (!passwd.empty()) {
        const auto end = std::min(passwd.find('\n'), passwd.size());
        std::string_view line = passwd.substr(0, end);
        passwd.remove_prefix(std::min(end + 1, passwd.size()));
        std::string_view fields[7];
        std::size_t count = 0;
        while (count < 7) {
            const auto colon = line.find(':');
            fields[count++] = line.substr(0, colon);
            if (colon == std::string_view::npos) break;
            line.remove_prefix(colon + 1);
        }
        if (count < 6) continue; // the shell may be missing
        unsigned found = 0;
        const auto [rest, error] =
            std::from_chars(fields[2].data(), fields[2].data() + fields[2].size(), found);
        if (error == std::errc() && rest == fields[2].data() + fields[2].size() && !fields[2].empty() &&
            found == uid && !fields[5].empty())
            return std::filesystem::path(fields[5]);
    }
    return std::nullopt;
}

} // namespace skeldrin::paths
