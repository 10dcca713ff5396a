#include "TrackerCore/Files.h"

#include <cerrno>
#include <sys/stat.h>

namespace skeldrin::files {

std::optional<FileStamp> stamp(const std::filesystem::path& file)
{
    struct stat info {};
    if (::stat(file.c_str(), &info) != 0) {
        if (errno == ENOENT) return std::nullopt;
        throwFileError("cannot read the attributes of", file, errno);
    }
    return FileStamp{static_cast<std::int64_t>(info.st_ino), static_cast<std::int64_t>(info.st_size),
                     info.st_mtim.tv_sec * 1'000'000'000LL + info.st_mtim.tv_nsec,
                     info.st_ctim.tv_sec * 1'000'000'000LL + info.st_ctim.tv_nsec};
}

} // namespace skeldrin::files
