#pragma once
// Small POSIX file helpers shared by the core's readers and writers.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace skeldrin::files {

// Closes a file descriptor when it goes out of scope (a negative one is no descriptor).
struct Descriptor {
    int fd = -1;
    Descriptor() = default;
    explicit Descriptor(int descriptor) : fd(descriptor) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor();
};

// The whole file, or nothing when it does not exist; other failures throw filesystem_error.
std::optional<std::string> readWholeFile(const std::filesystem::path& file);

// Writes data to temporary (created or truncated, with mode) and renames it over file. The caller
// chooses a temporary in file's directory whose name cannot be mistaken for a real file.
void replaceFile(const std::filesystem::path& file, const std::filesystem::path& temporary, std::string_view data,
                 unsigned mode, bool sync);

// What identifies one version of a file without reading it. Times are in nanoseconds since 1970.
struct FileStamp {
    std::int64_t inode = 0, size = 0, modified = 0, changed = 0;
    bool operator==(const FileStamp&) const = default;
};
// Nothing when the file does not exist; other failures throw filesystem_error.
std::optional<FileStamp> stamp(const std::filesystem::path& file);

[[noreturn]] void throwFileError(const char* what, const std::filesystem::path& file, int errorNumber);

} // namespace skeldrin::files
