#pragma once
// Whole-file text helpers for tests.
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

namespace skeldrin::test {

inline std::string readText(const std::filesystem::path& file)
{
    std::ifstream in(file, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

inline void writeText(const std::filesystem::path& file, const std::string& text)
{
    std::ofstream(file, std::ios::binary | std::ios::trunc) << text;
}

// The names in a folder, to see that nothing was left behind.
inline std::set<std::string> namesIn(const std::filesystem::path& directory)
{
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory))
        names.insert(entry.path().filename().string());
    return names;
}

} // namespace skeldrin::test
