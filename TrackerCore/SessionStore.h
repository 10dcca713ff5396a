#pragma once
#include "TrackerCore/Session.h"

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace skeldrin {

class SessionStoreError : public std::runtime_error {
public:
    enum class Kind { invalidSessionId, lockFailed };

    static SessionStoreError invalidSessionId(const std::string& id);
    static SessionStoreError lockFailed(int errorNumber);

    Kind kind() const { return kind_; }
    const std::string& sessionId() const { return sessionId_; } // invalidSessionId
    int errorNumber() const { return errorNumber_; }            // lockFailed

private:
    SessionStoreError(Kind kind, const std::string& description, std::string sessionId, int errorNumber);
    Kind kind_;
    std::string sessionId_;
    int errorNumber_ = 0;
};

// One JSON file per session in one directory, written under one exclusive lock for the directory.
class SessionStore {
public:
    using Body = std::function<std::optional<Session>(const std::optional<Session>&)>;

    struct Failure {
        std::filesystem::path file;
        std::string error;
    };
    struct LoadResult {
        std::vector<Session> sessions;
        std::vector<Failure> failures;
        // Set by a cached load that found every file as the previous load with that cache left it; the
        // lists are then left empty, as the caller already has them.
        bool unchanged = false;
    };
    // What the last load found in each file, so that a reader polling the directory parses only the
    // files that changed. A file is recognised as unchanged by its inode, size, and change and
    // modification times; since file times are coarse, a file written shortly before it was read is
    // read again next time.
    struct LoadCache {
        struct Entry {
            std::int64_t inode = 0, size = 0, modified = 0, changed = 0; // times in ns since 1970
            bool settled = false;
            bool operator==(const Entry&) const = default;
            std::optional<Session> session;
            std::string error;
        };
        std::map<std::filesystem::path, Entry> entries;
        bool loaded = false;
    };

    explicit SessionStore(std::filesystem::path directory);
    // The sessions directory shared by the hook and the app.
    static SessionStore defaultStore();

    const std::filesystem::path& directory() const { return directory_; }

    // Runs body on the current record (nothing when there is no file) under the store's lock and
    // stores its result: written only when it differs, removed when body returns nothing.
    void update(const std::string& id, const Body& body) const;
    void remove(const std::string& id) const;
    // Every session that could be read, and every file that could not. Takes no lock.
    LoadResult loadAll() const;
    // The same, reusing what cache holds for files that did not change since; now is the current time.
    LoadResult loadAll(LoadCache& cache, Date now) const;

    static bool isValidSessionId(std::string_view id);
    std::filesystem::path fileFor(const std::string& id) const; // throws invalidSessionId

    bool operator==(const SessionStore&) const = default;

private:
    std::filesystem::path directory_;
};

} // namespace skeldrin
