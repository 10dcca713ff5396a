#pragma once
// A fresh folder for one test, removed with everything in it.
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace skeldrin::test {

class TempDir {
  public:
    explicit TempDir(const std::string& prefix = "skeldrin")
    {
        std::string pattern = (std::filesystem::temp_directory_path() / (prefix + "-XXXXXX")).string();
        if (!::mkdtemp(pattern.data())) throw std::runtime_error("cannot make a folder like " + pattern);
        path_ = pattern;
    }
    ~TempDir()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::filesystem::path& name) const { return path_ / name; }

  private:
    std::filesystem::path path_;
};

} // namespace skeldrin::test
