#include "TrackerCore/Paths.h"
#include "TrackerCore/SessionStore.h"
#include "support/TempDir.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <numeric>
#include <set>

using namespace skeldrin;
namespace fs = std::filesystem;

namespace {

const auto make = [](const std::string& id) { return Session(id, "claude", "/w", {}, std::nullopt, Date{}); };

void retitle(const SessionStore& store, const std::string& id, const std::string& title = "")
{
    store.update(id, [&](const std::optional<Session>& current) {
        Session next = current.value_or(make(id));
        next.title = title;
        return std::optional(next);
    });
}

// Sessions as "id/title" and failures as "!file", sorted, each followed by a space.
std::string listed(const SessionStore::LoadResult& result)
{
    std::set<std::string> ids;
    for (const auto& s : result.sessions)
        ids.insert(s.id + "/" + s.title.value_or(""));
    for (const auto& f : result.failures)
        ids.insert("!" + f.file.filename().string());
    return std::accumulate(ids.begin(), ids.end(), std::string(),
                           [](auto all, auto id) { return all + id + " "; });
}

class SessionStoreTest : public ::testing::Test {
  protected:
    const test::TempDir root{"skeldrin-store"};
    const fs::path dir = root / "nested/sessions";
    const SessionStore store{dir};
};

} // namespace

TEST_F(SessionStoreTest, RefusesHostileIdsBeforeTouchingTheDisk)
{
    for (const std::string id : {"../x", "a/b", "a b", "", "x.json", "\xff\xfe"}) {
        EXPECT_FALSE(SessionStore::isValidSessionId(id)) << id;
        EXPECT_THROW(store.remove(id), SessionStoreError);
    }
    EXPECT_FALSE(fs::exists(dir));
    for (const std::string id :
         {"0b7c9e5a-1f2d-4c3b-9a8e-7d6f5e4c3b2a", "under_score", "\u00e9t\u00e9", "e\u0301"})
        EXPECT_TRUE(SessionStore::isValidSessionId(id)) << id;
}

TEST_F(SessionStoreTest, LoadsFollowEveryChangeAndSkipWhatIsNotASessionFile)
{
    EXPECT_EQ(listed(store.loadAll()), "");
    EXPECT_TRUE(fs::is_directory(dir));

    SessionStore::LoadCache cache;
    // "Now" far ahead makes every file count as settled, the case where the cache is trusted.
    const Date now =
        std::chrono::time_point_cast<std::chrono::microseconds>(std::chrono::system_clock::now());
    const Date later = now + std::chrono::hours(1);
    retitle(store, "a", "one");
    retitle(store, "b", "one");
    EXPECT_EQ(listed(store.loadAll(cache, later)), "a/one b/one ");
    EXPECT_TRUE(store.loadAll(cache, later).unchanged);
    retitle(store, "a", "two");
    store.remove("b");
    EXPECT_EQ(listed(store.loadAll(cache, later)), "a/two ");

    // A file written just before it was read is read again, even though its stamp did not change.
    SessionStore::LoadCache fresh;
    EXPECT_FALSE(store.loadAll(fresh, now).unchanged);
    EXPECT_FALSE(store.loadAll(fresh, now).unchanged);

    test::writeText(dir / "x.json", "not json");
    test::writeText(dir / "notes.txt", "hello");
    test::writeText(dir / ".a.json.tmp", "{half a file"); // left by a killed writer
    fs::create_directories(dir / "folder.json");
    EXPECT_EQ(listed(store.loadAll()), "!folder.json !x.json a/two ");
}

TEST_F(SessionStoreTest, UpdatesWriteOnlyChangesAndAFailingBodyOrCorruptFileChangesNothing)
{
    // Creates, updates, rewrites only what changed, and removes.
    store.update("s1", [](const std::optional<Session>& current) {
        EXPECT_FALSE(current);
        return std::optional(make("s1"));
    });
    const auto file = dir / "s1.json";
    EXPECT_EQ(decodeSession(test::readText(file)), make("s1"));

    // An unchanged record is not rewritten: an old stamp would show a rewrite.
    const auto old = fs::last_write_time(file) - std::chrono::hours(1);
    fs::last_write_time(file, old);
    store.update("s1", [](const std::optional<Session>& current) { return current; });
    EXPECT_EQ(fs::last_write_time(file), old);

    retitle(store, "s1", "renamed");
    EXPECT_EQ(decodeSession(test::readText(file)).title, "renamed");
    store.update("s1", [](const auto&) { return std::optional<Session>(); });
    EXPECT_FALSE(fs::exists(file));
    store.remove("s1"); // a missing session is fine

    // A failing body or a corrupt file changes nothing.
    EXPECT_THROW(
        store.update("s1", [](const auto&) -> std::optional<Session> { throw std::logic_error("no"); }),
        std::logic_error);
    EXPECT_FALSE(fs::exists(file));
    retitle(store, "s1"); // would hang if the lock were still held
    EXPECT_TRUE(fs::exists(file));

    test::writeText(dir / "bad.json", "{\"id\": \"bad\", truncated");
    EXPECT_THROW(store.remove("bad"), DecodingError);
    EXPECT_EQ(test::readText(dir / "bad.json"), "{\"id\": \"bad\", truncated");
}

TEST(Paths, HomeFromPasswdText)
{
    // The static hook's own reading of /etc/passwd, used when $HOME is unset.
    const std::string passwd =
        "root:x:0:0:root:/root:/bin/bash\nshort:x:1000\nnohome:x:1001:1001:::/bin/sh\n"
        "ann:x:10012:100:Ann,,,:/home/ann:/bin/zsh\nplus:x:+1002:1:x:/home/plus:/bin/sh\n"
        "last:x:1003:1:x:/home/last";
    const std::pair<unsigned, std::optional<std::filesystem::path>> cases[] = {
        {0, "/root"},         {10012, "/home/ann"}, {1003, "/home/last"}, {1000, std::nullopt},
        {1001, std::nullopt}, {1002, std::nullopt}, {1, std::nullopt},
    };
    for (const auto& [uid, home] : cases)
        EXPECT_EQ(skeldrin::paths::homeInPasswd(passwd, uid), home) << uid;
}
