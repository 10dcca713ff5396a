#pragma once
// Whole-file text helpers for tests.
#include <filesystem>
#include <fstream>
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

} // namespace skeldrin::test
