#include "TrackerCore/Files.h"
#include "TrackerCore/Paths.h"
#include "TrackerCore/SessionStore.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace skeldrin;
namespace fs = std::filesystem;

namespace {

Date SystemClockNow()
{
    return std::chrono::time_point_cast<std::chrono::microseconds>(std::chrono::system_clock::now());
}

Date at(int s) { return Date{std::chrono::sys_days{std::chrono::year{2026} / 3 / 14}} + std::chrono::seconds{s}; }

class SessionStoreTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/skeldrin-store-XXXXXX";
        root = mkdtemp(pattern);
        dir = root / "nested/sessions";
    }
    void TearDown() override { fs::remove_all(root); }

    static std::optional<Session> make(const std::string& id, int t = 0)
    {
        return Session(id, "claude", "/w", {}, std::nullopt, at(t));
    }
    std::string bytes(const std::string& id) const { return files::readWholeFile(dir / (id + ".json")).value(); }
    void write(const std::string& name, const std::string& content) const
    {
        fs::create_directories(dir);
        std::ofstream(dir / name) << content;
    }

    fs::path root, dir;
};

} // namespace

TEST_F(SessionStoreTest, RejectsHostileIdsBeforeTouchingTheDisk)
{
    const SessionStore store(dir);
    for (const std::string id : {"../x", "a/b", "a b", "", "x.json", "a\nb", "\xff\xfe", "id;rm"}) {
        try {
            store.update(id, [](const auto&) { return make("x"); });
            ADD_FAILURE() << "accepted " << id;
        } catch (const SessionStoreError& e) {
            EXPECT_EQ(e.kind(), SessionStoreError::Kind::invalidSessionId);
            EXPECT_EQ(std::string(e.what()), "invalid session id: " + id);
        }
        EXPECT_THROW(store.remove(id), SessionStoreError);
    }
    EXPECT_FALSE(fs::exists(dir));
    for (const std::string id : {"0b7c9e5a-1f2d-4c3b-9a8e-7d6f5e4c3b2a", "under_score", "\u00e9t\u00e9",
                                 "\u4f1a\u8bdd", "e\u0301"})
        EXPECT_TRUE(SessionStore::isValidSessionId(id)) << id;
}

TEST_F(SessionStoreTest, CreatesUpdatesAndRemoves)
{
    const SessionStore store(dir);
    store.update("s1", [](const std::optional<Session>& current) {
        EXPECT_FALSE(current);
        return make("s1");
    });
    EXPECT_EQ(decodeSession(bytes("s1")), *make("s1"));
    struct stat info {};
    ASSERT_EQ(::stat((dir / ".lock").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0644u);

    store.update("s1", [](const std::optional<Session>& current) {
        EXPECT_TRUE(current);
        Session next = *current;
        next.title = "renamed";
        return std::optional(next);
    });
    EXPECT_EQ(decodeSession(bytes("s1")).title, "renamed");

    store.remove("s1");
    EXPECT_FALSE(fs::exists(dir / "s1.json"));
    store.remove("s1"); // a missing session is fine
    store.update("ghost", [](const auto&) { return std::optional<Session>(); });
    EXPECT_FALSE(fs::exists(dir / "ghost.json"));
}

TEST_F(SessionStoreTest, UnchangedRecordIsNotRewritten)
{
    const SessionStore store(dir);
    store.update("s1", [](const auto&) { return make("s1"); });
    const auto file = dir / "s1.json";
    // Make the file look old, so a rewrite would show in its modification time.
    const auto old = fs::last_write_time(file) - std::chrono::hours(1);
    fs::last_write_time(file, old);
    const std::string before = bytes("s1");
    store.update("s1", [](const std::optional<Session>& current) { return current; });
    EXPECT_EQ(fs::last_write_time(file), old);
    EXPECT_EQ(bytes("s1"), before);
}

TEST_F(SessionStoreTest, CorruptFileIsNeverOverwritten)
{
    const SessionStore store(dir);
    write("bad.json", "{\"id\": \"bad\", truncated");
    bool bodyRan = false;
    EXPECT_THROW(store.update("bad", [&](const auto&) {
        bodyRan = true;
        return make("bad");
    }),
                 DecodingError);
    EXPECT_FALSE(bodyRan);
    EXPECT_EQ(bytes("bad"), "{\"id\": \"bad\", truncated");
    EXPECT_THROW(store.remove("bad"), DecodingError);
    EXPECT_TRUE(fs::exists(dir / "bad.json"));
}

TEST_F(SessionStoreTest, BodyErrorsPassThroughAndReleaseTheLock)
{
    const SessionStore store(dir);
    EXPECT_THROW(store.update("s1", [](const auto&) -> std::optional<Session> { throw std::logic_error("no"); }),
                 std::logic_error);
    EXPECT_FALSE(fs::exists(dir / "s1.json"));
    store.update("s1", [](const auto&) { return make("s1"); }); // would hang if the lock were still held
    EXPECT_TRUE(fs::exists(dir / "s1.json"));
}

TEST_F(SessionStoreTest, LoadAllCollectsFailuresAndSkipsOtherFiles)
{
    const SessionStore store(dir);
    auto empty = store.loadAll();
    EXPECT_TRUE(empty.sessions.empty() && empty.failures.empty());
    EXPECT_TRUE(fs::is_directory(dir));

    store.update("a", [](const auto&) { return make("a"); });
    store.update("b", [](const auto&) { return make("b", 5); });
    write("x.json", "not json");
    write("y.json", "{\"id\": 3}");
    write("notes.txt", "hello");
    write(".a.json.tmp", "{half a file"); // left by a killed writer
    fs::create_directories(dir / "folder.json");

    auto loaded = store.loadAll();
    std::vector<std::string> ids;
    for (const auto& s : loaded.sessions) ids.push_back(s.id);
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(ids, (std::vector<std::string>{"a", "b"}));
    std::vector<std::string> failed;
    for (const auto& f : loaded.failures) {
        failed.push_back(f.file.filename());
        EXPECT_FALSE(f.error.empty());
    }
    std::sort(failed.begin(), failed.end());
    EXPECT_EQ(failed, (std::vector<std::string>{"folder.json", "x.json", "y.json"}));
}

TEST_F(SessionStoreTest, ConcurrentWritersLoseNoUpdate)
{
    const SessionStore store(dir);
    constexpr int kProcesses = 8, kUpdates = 25;
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p) {
        const pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            for (int i = 0; i < kUpdates; ++i) {
                // Half the writers share one session, the others each have their own.
                for (const std::string& id : {std::string("shared"), "own" + std::to_string(p)})
                    store.update(id, [&](const std::optional<Session>& current) {
                        Session next = current ? *current : *make(id);
                        next.approvalsThisTurn += 1;
                        return std::optional(next);
                    });
            }
            _exit(0);
        }
        children.push_back(pid);
    }
    for (const pid_t pid : children) {
        int status = 0;
        waitpid(pid, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    EXPECT_EQ(decodeSession(bytes("shared")).approvalsThisTurn, kProcesses * kUpdates);
    for (int p = 0; p < kProcesses; ++p)
        EXPECT_EQ(decodeSession(bytes("own" + std::to_string(p))).approvalsThisTurn, kUpdates);
}

TEST_F(SessionStoreTest, WriterKilledWhileHoldingTheLockLeavesTheStoreUsable)
{
    const SessionStore store(dir);
    store.update("s1", [](const auto&) { return make("s1"); });
    const std::string before = bytes("s1");

    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        store.update("s1", [&](const auto&) -> std::optional<Session> {
            (void)!::write(ready[1], "x", 1);
            for (;;) pause(); // killed here, inside the lock
        });
        _exit(0);
    }
    char c;
    ASSERT_EQ(::read(ready[0], &c, 1), 1);
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    close(ready[0]);
    close(ready[1]);

    EXPECT_EQ(bytes("s1"), before);
    store.update("s1", [](const std::optional<Session>& current) {
        Session next = *current;
        next.title = "after";
        return std::optional(next);
    });
    EXPECT_EQ(decodeSession(bytes("s1")).title, "after");
}

TEST_F(SessionStoreTest, LockFailureIsReported)
{
    fs::create_directories(dir / ".lock"); // a directory cannot be opened for writing
    const SessionStore store(dir);
    try {
        store.update("s1", [](const auto&) { return make("s1"); });
        ADD_FAILURE() << "no error";
    } catch (const SessionStoreError& e) {
        EXPECT_EQ(e.kind(), SessionStoreError::Kind::lockFailed);
        EXPECT_EQ(e.errorNumber(), EISDIR);
        EXPECT_EQ(std::string(e.what()), std::string("could not lock session store: ") + std::strerror(EISDIR));
    }
}

TEST_F(SessionStoreTest, CachedLoadsFollowEveryChange)
{
    const SessionStore store(dir);
    SessionStore::LoadCache cache;
    const auto sortedIds = [](const SessionStore::LoadResult& r) {
        std::vector<std::string> ids;
        for (const auto& s : r.sessions) ids.push_back(s.id + "/" + s.title.value_or(""));
        for (const auto& f : r.failures) ids.push_back("!" + f.file.filename().string());
        std::sort(ids.begin(), ids.end());
        return ids;
    };
    const auto retitle = [&](const std::string& id, const std::string& title) {
        store.update(id, [&](const std::optional<Session>& current) {
            Session next = current ? *current : *make(id);
            next.title = title;
            return std::optional(next);
        });
    };
    // "Now" far ahead makes every file count as settled, the case where the cache is trusted.
    const Date later = SystemClockNow() + std::chrono::hours(1);
    retitle("a", "one");
    retitle("b", "one");
    EXPECT_EQ(sortedIds(store.loadAll(cache, later)), sortedIds(store.loadAll()));
    const auto again = store.loadAll(cache, later);
    EXPECT_TRUE(again.unchanged);
    EXPECT_TRUE(again.sessions.empty());
    retitle("a", "two");
    write("c.json", "garbage");
    EXPECT_EQ(sortedIds(store.loadAll(cache, later)), (std::vector<std::string>{"!c.json", "a/two", "b/one"}));
    store.remove("b");
    write("c.json", encodeSession(*make("c")));
    EXPECT_EQ(sortedIds(store.loadAll(cache, later)), (std::vector<std::string>{"a/two", "c/"}));
    EXPECT_EQ(cache.entries.size(), 2u);
    store.remove("c");
    EXPECT_EQ(sortedIds(store.loadAll(cache, later)), (std::vector<std::string>{"a/two"}));

    // A file written just before it was read is read again, even though its stamp did not change.
    SessionStore::LoadCache fresh;
    EXPECT_FALSE(store.loadAll(fresh, SystemClockNow()).unchanged);
    EXPECT_FALSE(store.loadAll(fresh, SystemClockNow()).unchanged);
}

TEST(Paths, HomeFromPasswdText)
{
    // The static hook's own reading of /etc/passwd, used when $HOME is unset.
    const std::string passwd = "root:x:0:0:root:/root:/bin/bash\n"
                               "# a comment\n\n"
                               "broken line\n"
                               "short:x:1000\n"
                               "nohome:x:1001:1001:::/bin/sh\n"
                               "ann:x:10012:100:Ann,,,:/home/ann:/bin/zsh\n"
                               "plus:x:+1002:1:x:/home/plus:/bin/sh\n"
                               "last:x:1003:1:x:/home/last";
    const std::pair<unsigned, std::optional<std::filesystem::path>> cases[] = {
        {0, "/root"},         {10012, "/home/ann"}, {1003, "/home/last"}, {1000, std::nullopt},
        {1001, std::nullopt}, {1002, std::nullopt}, {1, std::nullopt},
    };
    for (const auto& [uid, home] : cases)
        EXPECT_EQ(skeldrin::paths::homeInPasswd(passwd, uid), home) << uid;
}
