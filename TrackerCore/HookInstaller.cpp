#include "TrackerCore/HookInstaller.h"

#include "TrackerCore/Files.h"
#include "TrackerCore/Paths.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <set>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace skeldrin::HookInstaller {
namespace fs = std::filesystem;

namespace {

constexpr std::string_view hookExecutableName = "skeldrin-hook";
constexpr int hookTimeoutSeconds = 5;
constexpr const char* backupExtension = ".skeldrin-backup";

// Only the command decides: the user may have changed the timeout or matcher, or moved the entry.
bool isAppEntry(const Json& entry)
{
    if (!entry.is_object()) return false;
    const auto command = entry.find("command");
    return command != entry.end() && command->is_string() &&
           command->get_ref<const std::string&>().find(hookExecutableName) != std::string::npos;
}

// The "hooks" array of a group, when the group has the shape Claude Code reads.
const Json* groupEntries(const Json& group)
{
    if (!group.is_object()) return nullptr;
    const auto entries = group.find("hooks");
    return entries != group.end() && entries->is_array() ? &*entries : nullptr;
}

template <typename Visit> void forEachAppEntry(const Json& settings, Visit visit)
{
    if (!settings.is_object()) return;
    const auto hooks = settings.find("hooks");
    if (hooks == settings.end() || !hooks->is_object()) return;
    for (auto event = hooks->begin(); event != hooks->end(); ++event) {
        if (!event->is_array()) continue;
        for (const Json& group : *event) {
            const Json* entries = groupEntries(group);
            if (!entries) continue;
            for (const Json& entry : *entries)
                if (isAppEntry(entry)) visit(event.key(), entry["command"].get_ref<const std::string&>());
        }
    }
}

[[noreturn]] void cannotInstall(const std::string& what)
{
    throw UnexpectedShapeError(what + " in Claude Code's settings isn’t in the form Claude Code reads, so "
                                      "Skeldrin can't add its hooks without losing it. Correct it in "
                                      "settings.json and connect again.");
}

// ---- Files ----

using files::Descriptor;

// A temporary file that is removed unless it was renamed or linked into place.
struct Temporary {
    fs::path path;
    bool placed = false;
    ~Temporary()
    {
        if (!placed && !path.empty()) ::unlink(path.c_str());
    }
};

fs::path directoryOf(const fs::path& file)
{
    return file.has_parent_path() ? file.parent_path() : fs::path(".");
}

// Writes data to a new file beside `file` and syncs it. A fresh name per call: two writers (app and
// command line) may run at once, and a leftover from a crash must never be taken for the real file.
void writeTemporary(Temporary& temporary, const fs::path& file, std::string_view data,
                    std::optional<mode_t> mode)
{
    static std::atomic<unsigned> counter{0};
    Descriptor d;
    for (int attempt = 0; d.fd < 0; ++attempt) {
        // Appended piece by piece: GCC 12 at -O3 warns falsely (-Wrestrict) on "." + std::string.
        std::string name = ".";
        name += file.filename().string();
        name += ".skeldrin-";
        name += std::to_string(::getpid());
        name += '-';
        name += std::to_string(counter++);
        name += ".tmp";
        temporary.path = directoryOf(file) / name;
        d.fd = ::open(temporary.path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0644);
        if (d.fd < 0 && (errno != EEXIST || attempt > 100)) {
            const int error = errno;
            temporary.path.clear();
            files::throwFileError("cannot create", directoryOf(file), error);
        }
    }
    // Set explicitly: the creation mode above is cut by the umask.
    if (mode && ::fchmod(d.fd, *mode) != 0)
        files::throwFileError("cannot set the mode of", temporary.path, errno);
    std::size_t written = 0;
    while (written < data.size()) {
        const ssize_t n = ::write(d.fd, data.data() + written, data.size() - written);
        if (n < 0) {
            if (errno == EINTR) continue;
            files::throwFileError("cannot write", temporary.path, errno);
        }
        written += static_cast<std::size_t>(n);
    }
    if (::fsync(d.fd) != 0) files::throwFileError("cannot write", temporary.path, errno);
    const int fd = d.fd;
    d.fd = -1;
    if (::close(fd) != 0) files::throwFileError("cannot write", temporary.path, errno);
}

void syncDirectory(const fs::path& directory)
{
    // Makes the rename itself durable; some file systems refuse fsync on directories, which is harmless.
    Descriptor d{::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (d.fd >= 0) ::fsync(d.fd);
}

// Follows a chain of symbolic links to the file that really holds the settings (settings kept in a
// dotfiles repository): that file is replaced, the links stay. A dangling link yields its target.
fs::path linkTarget(const fs::path& file)
{
    fs::path current = file;
    for (int hops = 0; hops < 40; ++hops) {
        struct stat info {};
        if (::lstat(current.c_str(), &info) != 0) {
            if (errno == ENOENT) return current;
            files::throwFileError("cannot read the attributes of", current, errno);
        }
        if (!S_ISLNK(info.st_mode)) return current;
        const fs::path target = fs::read_symlink(current);
        current = target.is_absolute() ? target : directoryOf(current) / target;
    }
    files::throwFileError("cannot resolve", file, ELOOP);
}

// The user's settings as they were before Skeldrin first touched them. Anything already at the backup
// path that is not a file is an error rather than a reason to skip the backup.
void backUpOnce(const fs::path& settingsFile, const fs::path& target, mode_t mode)
{
    fs::path backup = settingsFile;
    backup += backupExtension;
    struct stat info {};
    if (::stat(backup.c_str(), &info) == 0) {
        if (S_ISREG(info.st_mode)) return;
        files::throwFileError("cannot make the backup", backup, S_ISDIR(info.st_mode) ? EISDIR : EEXIST);
    }
    if (errno != ENOENT) files::throwFileError("cannot make the backup", backup, errno);

    const auto original = files::readWholeFile(target);
    if (!original) return; // removed meanwhile: nothing left to keep
    Temporary temporary;
    writeTemporary(temporary, backup, *original, mode);
    // A hard link never replaces an existing file, so a backup made meanwhile by another writer is kept,
    // and a crash never leaves a half-written backup behind.
    if (::link(temporary.path.c_str(), backup.c_str()) != 0) {
        const int error = errno;
        if (error == EEXIST && ::stat(backup.c_str(), &info) == 0 && S_ISREG(info.st_mode)) return;
        if (error != EPERM && error != ENOTSUP && error != EOPNOTSUPP)
            files::throwFileError("cannot make the backup", backup, error);
        // No hard links on this file system: fall back to a rename, having checked above that nothing is
        // there.
        if (::rename(temporary.path.c_str(), backup.c_str()) != 0)
            files::throwFileError("cannot make the backup", backup, errno);
        temporary.placed = true;
    }
    syncDirectory(directoryOf(backup));
}

} // namespace

std::string_view rawValue(State state)
{
    switch (state) {
    case State::notInstalled:
        return "notInstalled";
    case State::installed:
        return "installed";
    case State::outdated:
        return "outdated";
    }
    return "notInstalled";
}

const std::array<EventRow, 11>& events()
{
    static constexpr std::array<EventRow, 11> table{{
        {"SessionStart", std::nullopt},
        {"SessionEnd", std::nullopt},
        {"UserPromptSubmit", std::nullopt},
        {"PreToolUse", "AskUserQuestion|ExitPlanMode"},
        {"PermissionRequest", std::nullopt},
        {"PermissionDenied", std::nullopt},
        {"PostToolUse", std::nullopt},
        {"PostToolUseFailure", std::nullopt},
        {"Notification", std::nullopt},
        {"Stop", std::nullopt},
        {"StopFailure", std::nullopt},
    }};
    return table;
}

CorruptFileError::CorruptFileError(const fs::path& file)
    : std::runtime_error("The file “" + file.filename().string() +
                         "” couldn’t be opened because it isn’t in the correct format.")
    , file_(file)
{
}

fs::path settingsURL()
{
    return paths::homeDirectory() / ".claude" / "settings.json";
}

std::string command(const fs::path& hookExecutable)
{
    const std::string path = hookExecutable.string();
    std::string quoted = "'";
    for (const char c : path) {
        if (c == '\'')
            quoted += "'\\''";
        else
            quoted += c;
    }
    quoted += '\'';
    return quoted;
}

State state(const Json& settings, const std::string& command)
{
    std::set<std::string> commands;
    std::set<std::string> eventsWithCommand;
    forEachAppEntry(settings, [&](const std::string& event, const std::string& found) {
        commands.insert(found);
        if (found == command) eventsWithCommand.insert(event);
    });
    if (commands.empty()) return State::notInstalled;
    std::set<std::string> expected;
    for (const EventRow& row : events())
        expected.emplace(row.event);
    if (eventsWithCommand != expected) return State::outdated;
    if (commands.size() != 1 || *commands.begin() != command) return State::outdated;
    return State::installed;
}

Json installing(const std::string& command, Json settings)
{
    settings = removing(std::move(settings));
    if (settings.is_null()) settings = Json::object();
    if (!settings.is_object()) cannotInstall("The top level");

    Json& hooks = settings["hooks"];
    if (hooks.is_null()) hooks = Json::object();
    if (!hooks.is_object()) cannotInstall("The “hooks” member");

    for (const EventRow& row : events()) {
        Json& groups = hooks[std::string(row.event)];
        if (groups.is_null()) groups = Json::array();
        if (!groups.is_array()) cannotInstall("The “" + std::string(row.event) + "” member of “hooks”");
        Json group = Json::object();
        if (row.matcher) group["matcher"] = std::string(*row.matcher);
        group["hooks"] =
            Json::array({Json{{"type", "command"}, {"command", command}, {"timeout", hookTimeoutSeconds}}});
        groups.push_back(std::move(group));
    }
    return settings;
}

Json removing(Json settings)
{
    if (!settings.is_object()) return settings;
    const auto hooks = settings.find("hooks");
    if (hooks == settings.end() || !hooks->is_object()) return settings;

    // Only what this removal empties is dropped: an empty group or event the user wrote stays.
    std::vector<std::string> emptiedEvents;
    for (auto event = hooks->begin(); event != hooks->end(); ++event) {
        if (!event->is_array()) continue;
        auto& groups = event->get_ref<Json::array_t&>();
        const auto dropped = std::erase_if(groups, [](Json& group) {
            if (!groupEntries(group)) return false;
            auto& entries = group["hooks"].get_ref<Json::array_t&>();
            return std::erase_if(entries, isAppEntry) > 0 && entries.empty();
        });
        if (dropped > 0 && groups.empty()) emptiedEvents.push_back(event.key());
    }
    for (const std::string& event : emptiedEvents)
        hooks->erase(event);
    if (!emptiedEvents.empty() && hooks->empty()) settings.erase(hooks);
    return settings;
}

Json readSettings(const fs::path& file)
{
    const auto bytes = files::readWholeFile(file);
    if (!bytes) return Json::object();
    Json settings;
    try {
        settings = Json::parse(*bytes);
    } catch (const Json::exception& e) {
        // A syntax error, or a number too large for a double. nlohmann's text starts with its own error
        // tag; the rest says where and why.
        std::string reason = e.what();
        if (const auto tag = reason.find("] ");
            reason.starts_with("[json.exception") && tag != std::string::npos)
            reason.erase(0, tag + 2);
        throw DecodingError("The file “" + file.string() + "” isn’t valid JSON (" + reason + ").");
    }
    if (!settings.is_object()) throw CorruptFileError(file);
    return settings;
}

void writeSettings(const Json& settings, const fs::path& file)
{
    if (file.has_parent_path()) fs::create_directories(file.parent_path());
    const fs::path target = linkTarget(file);
    if (target.has_parent_path()) fs::create_directories(target.parent_path());

    std::optional<mode_t> mode;
    struct stat info {};
    if (::stat(target.c_str(), &info) == 0) {
        if (!S_ISREG(info.st_mode)) files::throwFileError("cannot replace", target, EISDIR);
        mode = info.st_mode & 07777;
        backUpOnce(file, target, *mode);
    } else if (errno != ENOENT) {
        files::throwFileError("cannot read the attributes of", target, errno);
    }

    Temporary temporary;
    writeTemporary(temporary, target, encodePretty(settings), mode);
    if (::rename(temporary.path.c_str(), target.c_str()) != 0)
        files::throwFileError("cannot replace", target, errno);
    temporary.placed = true;
    syncDirectory(directoryOf(target));
}

} // namespace skeldrin::HookInstaller
