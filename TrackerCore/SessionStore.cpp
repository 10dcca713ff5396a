#include "TrackerCore/SessionStore.h"

#include "TrackerCore/Files.h"
#include "TrackerCore/Paths.h"
#include "TrackerCore/Text.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace skeldrin {

SessionStoreError::SessionStoreError(Kind kind, const std::string& description, std::string sessionId,
                                     int errorNumber)
    : std::runtime_error(description)
    , kind_(kind)
    , sessionId_(std::move(sessionId))
    , errorNumber_(errorNumber)
{
}

SessionStoreError SessionStoreError::invalidSessionId(const std::string& id)
{
    return SessionStoreError(Kind::invalidSessionId, "invalid session id: " + id, id, 0);
}

SessionStoreError SessionStoreError::lockFailed(int errorNumber)
{
    return SessionStoreError(Kind::lockFailed,
                             std::string("could not lock session store: ") + std::strerror(errorNumber), {},
                             errorNumber);
}

namespace {

// The store's one lock: an exclusive flock on ".lock", released however the update ends.
class DirectoryLock {
public:
    explicit DirectoryLock(const std::filesystem::path& directory)
    {
        const auto path = directory / ".lock";
        fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        if (fd_ < 0) throw SessionStoreError::lockFailed(errno);
        int result;
        do {
            result = ::flock(fd_, LOCK_EX);
        } while (result != 0 && errno == EINTR);
        if (result != 0) {
            const int error = errno;
            ::close(fd_);
            throw SessionStoreError::lockFailed(error);
        }
    }
    ~DirectoryLock()
    {
        ::flock(fd_, LOCK_UN);
        ::close(fd_);
    }
    DirectoryLock(const DirectoryLock&) = delete;
    DirectoryLock& operator=(const DirectoryLock&) = delete;

private:
    int fd_ = -1;
};

void createDirectory(const std::filesystem::path& directory)
{
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    if (error) throw std::filesystem::filesystem_error("cannot create the sessions directory", directory, error);
}

} // namespace

SessionStore::SessionStore(std::filesystem::path directory)
    : directory_(std::move(directory))
{
}

SessionStore SessionStore::defaultStore() { return SessionStore(paths::sessionsDirectory()); }

bool SessionStore::isValidSessionId(std::string_view id)
{
    if (id.empty()) return false;
    // Invalid UTF-8 decodes to U+FFFD, which is not alphanumeric, so it is refused too.
    for (const char32_t c : text::decodeUtf8(id))
        if (!(c == U'-' || c == U'_' || text::isAlphanumeric(c))) return false;
    return true;
}

std::filesystem::path SessionStore::fileFor(const std::string& id) const
{
    if (!isValidSessionId(id)) throw SessionStoreError::invalidSessionId(id);
    return directory_ / (id + ".json");
}

void SessionStore::update(const std::string& id, const Body& body) const
{
    const auto file = fileFor(id);
    createDirectory(directory_);
    const DirectoryLock lock(directory_);

    std::optional<Session> current;
    if (auto bytes = files::readWholeFile(file)) {
        try {
            current = decodeSession(*bytes);
        } catch (const DecodingError& e) {
            // Left as it is, for the user to see; the error says where it is.
            throw DecodingError(file.string() + " is not a session record: " + e.what());
        }
    }

    const std::optional<Session> next = body(current);
    if (next) {
        if (current && *next == *current) return;
        // Under the lock only one writer exists, so a fixed temporary name is safe; one left behind by a
        // killed writer is simply overwritten next time. Its extension is not "json", so readers skip it.
        // No fsync: Claude Code waits for every hook, and a rename over the old file is already atomic.
        const auto temporary = directory_ / ("." + id + ".json.tmp");
        files::replaceFile(file, temporary, encodeSession(*next), 0600, false);
    } else if (current) {
        if (::unlink(file.c_str()) != 0 && errno != ENOENT) files::throwFileError("cannot remove", file, errno);
    }
}

void SessionStore::remove(const std::string& id) const
{
    update(id, [](const std::optional<Session>&) { return std::optional<Session>(); });
}

SessionStore::LoadResult SessionStore::loadAll() const
{
    LoadCache uncached;
    return loadAll(uncached, Date{});
}

SessionStore::LoadResult SessionStore::loadAll(LoadCache& cache, Date now) const
{
    using namespace std::chrono;
    // File times come from a coarse kernel clock; a file modified within this margin of its read may
    // change again without any visible change of its times.
    constexpr auto kSettleMargin = seconds{1};
    const std::int64_t settledBefore = duration_cast<nanoseconds>((now - kSettleMargin).time_since_epoch()).count();

    createDirectory(directory_);
    LoadResult result;
    std::map<std::filesystem::path, LoadCache::Entry> seen;
    bool unchanged = cache.loaded;
    for (const auto& entry : std::filesystem::directory_iterator(directory_)) {
        const auto& file = entry.path();
        if (file.extension() != ".json") continue;
        std::optional<files::FileStamp> fileStamp;
        try {
            fileStamp = files::stamp(file);
        } catch (const std::exception& e) {
            // Not cached: the next load tries again.
            result.failures.push_back({file, e.what()});
            unchanged = false;
            continue;
        }
        if (!fileStamp) continue; // removed since the listing
        LoadCache::Entry stamp;
        stamp.inode = fileStamp->inode;
        stamp.size = fileStamp->size;
        stamp.modified = fileStamp->modified;
        stamp.changed = fileStamp->changed;

        const auto cached = cache.entries.find(file);
        if (cached != cache.entries.end() && cached->second.settled && cached->second.inode == stamp.inode &&
            cached->second.size == stamp.size && cached->second.modified == stamp.modified &&
            cached->second.changed == stamp.changed) {
            seen.emplace(file, std::move(cached->second));
            continue;
        }
        unchanged = false;
        try {
            const auto bytes = files::readWholeFile(file);
            if (!bytes) continue;
            stamp.session = decodeSession(*bytes);
        } catch (const std::exception& e) {
            stamp.error = e.what();
        }
        stamp.settled = std::max(stamp.modified, stamp.changed) < settledBefore;
        seen.emplace(file, std::move(stamp));
    }
    unchanged = unchanged && seen.size() == cache.entries.size();
    cache.entries = std::move(seen);
    cache.loaded = true;
    if (unchanged) {
        result.unchanged = true;
        return result;
    }
    for (const auto& [file, entry] : cache.entries) {
        if (entry.session)
            result.sessions.push_back(*entry.session);
        else
            result.failures.push_back({file, entry.error});
    }
    return result;
}

} // namespace skeldrin
