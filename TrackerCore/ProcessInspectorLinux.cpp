#include "TrackerCore/ProcessInspectorLinux.h"

#include "TrackerCore/Files.h"
#include "TrackerCore/Text.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace skeldrin::ProcessInspector {
namespace {

template <typename T>
std::optional<T> number(std::string_view digits)
{
    T value{};
    const auto* end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, value);
    if (error != std::errc{} || stop != end || digits.empty()) return std::nullopt;
    return value;
}

std::optional<std::string> readAll(int fd, std::size_t limit)
{
    std::string content;
    std::array<char, 16384> buffer;
    for (;;) {
        const auto count = ::read(fd, buffer.data(), buffer.size());
        if (count < 0) {
            if (errno == EINTR) continue;
            return std::nullopt;
        }
        if (count == 0) return content;
        content.append(buffer.data(), static_cast<std::size_t>(count));
        if (content.size() > limit) return std::nullopt;
    }
}

std::optional<std::string> readFile(const char* path, std::size_t limit)
{
    const files::Descriptor file(::open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (file.fd < 0) return std::nullopt;
    return readAll(file.fd, limit);
}

// "/proc/<pid>/<entry>" without going through the allocator for the number.
std::string procPath(Pid pid, std::string_view entry)
{
    std::array<char, 16> digits;
    const auto [end, error] = std::to_chars(digits.data(), digits.data() + digits.size(), pid);
    std::string path = "/proc/";
    path.append(digits.data(), error == std::errc{} ? end : digits.data());
    path += '/';
    path += entry;
    return path;
}

bool writeAll(int fd, std::string_view content)
{
    while (!content.empty()) {
        const auto count = ::write(fd, content.data(), content.size());
        if (count < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        content.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

enum class AnchorState { missing, valid, replaceable, untrusted };
struct AnchorRead {
    AnchorState state;
    std::int64_t btime = 0;
};

// The file is trusted only as a regular file of our own that nobody else can write: in /tmp anyone
// could have put it there first.
AnchorRead readAnchor(const std::filesystem::path& file, std::string_view bootId)
{
    // O_NONBLOCK keeps a planted FIFO from blocking the open.
    const files::Descriptor fd(::open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    if (fd.fd < 0) return {errno == ENOENT ? AnchorState::missing : AnchorState::untrusted};
    struct stat info {};
    if (::fstat(fd.fd, &info) != 0 || !S_ISREG(info.st_mode) || info.st_uid != ::geteuid() ||
        (info.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        return {AnchorState::untrusted};

    const auto content = readAll(fd.fd, 256);
    if (!content) return {AnchorState::untrusted};
    // "<boot id> <btime>\n"; anything else (another boot, a torn or foreign format) is replaced.
    std::string_view line = *content;
    if (line.size() < bootId.size() + 3 || line.substr(0, bootId.size()) != bootId ||
        line[bootId.size()] != ' ' || line.back() != '\n')
        return {AnchorState::replaceable};
    line = line.substr(bootId.size() + 1);
    line.remove_suffix(1);
    const auto btime = number<std::int64_t>(line);
    if (!btime) return {AnchorState::replaceable};
    return {AnchorState::valid, *btime};
}

// Writes the whole file under a temporary name first so that no reader ever sees it half written.
// A new file is linked into place, which fails if someone else got there first; a stale one is
// renamed over.
bool publishAnchor(const std::filesystem::path& file, std::string_view content, bool replace)
{
    std::string temporary = file.string() + ".XXXXXX";
    const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) return false;
    const bool written = writeAll(fd, content);
    const bool closed = ::close(fd) == 0;
    bool placed = false;
    if (written && closed) {
        if (replace)
            placed = ::rename(temporary.c_str(), file.c_str()) == 0;
        else
            placed = ::link(temporary.c_str(), file.c_str()) == 0 || errno == EEXIST;
    }
    if (!(replace && placed)) ::unlink(temporary.c_str());
    return placed;
}

std::optional<std::string> readBootId()
{
    auto content = readFile("/proc/sys/kernel/random/boot_id", 256);
    if (!content) return std::nullopt;
    while (!content->empty() && (content->back() == '\n' || content->back() == ' ')) content->pop_back();
    if (content->empty()) return std::nullopt;
    return content;
}

std::optional<std::int64_t> currentBootTime()
{
    const auto content = readFile("/proc/stat", std::size_t{16} << 20);
    if (!content) return std::nullopt;
    return procfs::bootTime(*content);
}

// Read once per process: the hook looks up several processes in one run.
std::optional<std::int64_t> anchoredBootTime()
{
    static const std::optional<std::int64_t> anchor = [] {
        const auto bootId = readBootId();
        if (!bootId) return currentBootTime();
        return procfs::bootAnchor(procfs::anchorFilePath(), *bootId, currentBootTime);
    }();
    return anchor;
}

long ticksPerSecond()
{
    static const long ticks = ::sysconf(_SC_CLK_TCK);
    return ticks;
}

} // namespace

namespace procfs {

std::optional<Stat> parseStat(std::string_view line)
{
    // comm may itself hold spaces and parentheses, so it runs from the first '(' to the last ')'.
    const auto open = line.find('(');
    const auto close = line.rfind(')');
    if (open == std::string_view::npos || close == std::string_view::npos || close < open) return std::nullopt;

    // After comm: state ppid pgrp session tty_nr tpgid flags minflt cminflt majflt cmajflt utime stime
    // cutime cstime priority nice num_threads itrealvalue starttime ...
    constexpr std::size_t ppidField = 1, ttyField = 4, startField = 19;
    std::array<std::string_view, startField + 1> fields;
    std::size_t count = 0;
    std::size_t pos = close + 1;
    while (count < fields.size()) {
        pos = line.find_first_not_of(" \n", pos);
        if (pos == std::string_view::npos) break;
        auto end = line.find_first_of(" \n", pos);
        if (end == std::string_view::npos) end = line.size();
        fields[count++] = line.substr(pos, end - pos);
        pos = end;
    }
    if (count < fields.size()) return std::nullopt;

    const auto parentPid = number<Pid>(fields[ppidField]);
    const auto ttyNr = number<std::int64_t>(fields[ttyField]);
    const auto startTicks = number<std::uint64_t>(fields[startField]);
    if (!parentPid || !ttyNr || !startTicks) return std::nullopt;
    return Stat{*parentPid, *ttyNr, *startTicks, text::sanitizeUtf8(line.substr(open + 1, close - open - 1))};
}

std::optional<std::string> ttyPath(std::int64_t ttyNr)
{
    // The kernel prints the 32-bit encoded device number as a signed int.
    const auto device = static_cast<std::uint32_t>(ttyNr);
    if (device == 0) return std::nullopt;
    const std::uint32_t major = (device >> 8) & 0xfff;
    const std::uint32_t minor = (device & 0xff) | ((device >> 12) & 0xfff00);
    if (major >= 136 && major <= 143) return "/dev/pts/" + std::to_string((major - 136) * 256 + minor);
    if (major == 4) return minor < 64 ? "/dev/tty" + std::to_string(minor) : "/dev/ttyS" + std::to_string(minor - 64);
    return std::nullopt;
}

std::optional<std::int64_t> bootTime(std::string_view procStat)
{
    constexpr std::string_view key = "btime ";
    std::size_t pos = 0;
    while (pos < procStat.size()) {
        auto end = procStat.find('\n', pos);
        if (end == std::string_view::npos) end = procStat.size();
        const auto line = procStat.substr(pos, end - pos);
        if (line.substr(0, key.size()) == key) {
            auto value = line.substr(key.size());
            const auto first = value.find_first_not_of(' ');
            if (first == std::string_view::npos) return std::nullopt;
            value = value.substr(first);
            const auto last = value.find_last_not_of(' ');
            return number<std::int64_t>(value.substr(0, last + 1));
        }
        pos = end + 1;
    }
    return std::nullopt;
}

std::optional<std::int64_t> bootAnchor(const std::filesystem::path& anchorFile, std::string_view bootId,
                                        const std::function<std::optional<std::int64_t>()>& currentBtime)
{
    if (!currentBtime) return std::nullopt;
    if (bootId.empty() || bootId.find_first_of(std::string_view(" \n\0", 3)) != std::string_view::npos)
        return currentBtime();

    const auto found = readAnchor(anchorFile, bootId);
    if (found.state == AnchorState::valid) return found.btime;
    const auto current = currentBtime();
    if (!current || found.state == AnchorState::untrusted) return current;

    std::string content(bootId);
    content += ' ';
    content += std::to_string(*current);
    content += '\n';
    if (!publishAnchor(anchorFile, content, found.state == AnchorState::replaceable)) return current;
    // Whoever placed the file first decides; we may have lost that race.
    const auto settled = readAnchor(anchorFile, bootId);
    return settled.state == AnchorState::valid ? settled.btime : *current;
}

std::filesystem::path anchorFilePath()
{
    const auto uid = std::to_string(::geteuid());
    const std::string runtime = "/run/user/" + uid;
    struct stat info {};
    if (::stat(runtime.c_str(), &info) == 0 && S_ISDIR(info.st_mode) &&
        ::faccessat(AT_FDCWD, runtime.c_str(), W_OK, AT_EACCESS) == 0)
        return std::filesystem::path(runtime) / "skeldrin-boot";
    return std::filesystem::path("/tmp/skeldrin-boot-" + uid);
}

double startTime(std::int64_t anchor, std::uint64_t startTicks, long ticksPerSecond)
{
    const auto hz = static_cast<std::uint64_t>(ticksPerSecond > 0 ? ticksPerSecond : 100);
    const auto seconds = anchor + static_cast<std::int64_t>(startTicks / hz);
    const auto microseconds = (startTicks % hz) * 1'000'000 / hz;
    return static_cast<double>(seconds) + static_cast<double>(microseconds) / 1'000'000.0;
}

} // namespace procfs

std::optional<Record> lookup(Pid pid)
{
    if (pid <= 0) return std::nullopt;
    const auto content = readFile(procPath(pid, "stat").c_str(), 4096);
    if (!content) return std::nullopt;
    auto stat = procfs::parseStat(*content);
    if (!stat) return std::nullopt;
    const auto anchor = anchoredBootTime();
    if (!anchor) return std::nullopt;

    Record record;
    record.pid = pid;
    record.parentPid = stat->parentPid;
    record.startTime = procfs::startTime(*anchor, stat->startTicks, ticksPerSecond());
    record.tty = procfs::ttyPath(stat->ttyNr);
    record.shortName = std::move(stat->shortName);
    return record;
}

std::optional<std::string> executablePath(Pid pid)
{
    if (pid <= 0) return std::nullopt;
    std::array<char, 4097> target;
    const auto length = ::readlink(procPath(pid, "exe").c_str(), target.data(), target.size());
    if (length <= 0 || static_cast<std::size_t>(length) >= target.size()) return std::nullopt;
    return std::string(target.data(), static_cast<std::size_t>(length));
}

std::optional<Environment> startingEnvironment(Pid pid)
{
    if (pid <= 0) return std::nullopt;
    const auto content = readFile(procPath(pid, "environ").c_str(), std::size_t{64} << 20);
    if (!content) return std::nullopt;
    return parseEnvironBlock(*content);
}

} // namespace skeldrin::ProcessInspector
