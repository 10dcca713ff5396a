#include "TrackerCore/Files.h"

#include "TrackerCore/FileTimes.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace skeldrin::files {
Descriptor::~Descriptor()
{
    if (fd >= 0) ::close(fd);
}

std::optional<FileStamp> stamp(const std::filesystem::path& file)
{
    struct stat info {};
    if (::stat(file.c_str(), &info) != 0) {
        if (errno == ENOENT) return std::nullopt;
        throwFileError("cannot read the attributes of", file, errno);
    }
    FileStamp result{static_cast<std::int64_t>(info.st_ino), static_cast<std::int64_t>(info.st_size), 0, 0};
    statTimes(info, result.modified, result.changed);
    return result;
}

void throwFileError(const char* what, const std::filesystem::path& file, int errorNumber)
{
    throw std::filesystem::filesystem_error(what, file, std::error_code(errorNumber, std::generic_category()));
}

std::optional<std::string> readWholeFile(const std::filesystem::path& file)
{
    Descriptor d{::open(file.c_str(), O_RDONLY | O_CLOEXEC)};
    if (d.fd < 0) {
        if (errno == ENOENT) return std::nullopt;
        throwFileError("cannot open", file, errno);
    }
    struct stat info {};
    if (::fstat(d.fd, &info) != 0) throwFileError("cannot read", file, errno);
    if (S_ISDIR(info.st_mode)) throwFileError("cannot read", file, EISDIR);
    std::string data;
    data.resize(info.st_size > 0 ? static_cast<std::size_t>(info.st_size) : 0);
    std::size_t filled = 0;
    for (;;) {
        if (filled == data.size()) data.resize(data.size() + 4096 + data.size() / 2);
        const ssize_t n = ::read(d.fd, data.data() + filled, data.size() - filled);
        if (n < 0) {
            if (errno == EINTR) continue;
            throwFileError("cannot read", file, errno);
        }
        if (n == 0) break;
        filled += static_cast<std::size_t>(n);
    }
    data.resize(filled);
    return data;
}

void replaceFile(const std::filesystem::path& file, const std::filesystem::path& temporary, std::string_view data,
                 unsigned mode, bool sync)
{
    {
        Descriptor d{::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW,
                            static_cast<mode_t>(mode))};
        if (d.fd < 0) throwFileError("cannot create", temporary, errno);
        std::size_t written = 0;
        while (written < data.size()) {
            const ssize_t n = ::write(d.fd, data.data() + written, data.size() - written);
            if (n < 0) {
                if (errno == EINTR) continue;
                const int error = errno;
                ::unlink(temporary.c_str());
                throwFileError("cannot write", temporary, error);
            }
            written += static_cast<std::size_t>(n);
        }
        if (sync && ::fsync(d.fd) != 0) {
            const int error = errno;
            ::unlink(temporary.c_str());
            throwFileError("cannot write", temporary, error);
        }
    }
    if (::rename(temporary.c_str(), file.c_str()) != 0) {
        const int error = errno;
        ::unlink(temporary.c_str());
        throwFileError("cannot replace", file, error);
    }
}

} // namespace skeldrin::files
