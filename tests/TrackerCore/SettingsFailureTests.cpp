// The settings editor when the disk fails at each of its write points: the write is refused, and the
// user's settings file and its backup are never lost or half-written. The failures come from the
// failure shim linked into this test ahead of the C library.
#include "TrackerCore/HookInstaller.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <set>

extern "C" void skeldrin_fail(const char* rule);

namespace fs = std::filesystem;
namespace HookInstaller = skeldrin::HookInstaller;
using skeldrin::test::readText;

namespace {

std::set<std::string> listing(const fs::path& directory)
{
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory))
        names.insert(entry.path().filename());
    return names;
}

} // namespace

TEST(SettingsFailures, EveryWritePointKeepsTheSettingsAndTheBackupWhole)
{
    struct Case {
        const char* writePoint;
        std::string fail; // call:errno[:skip]
        bool backupMade;  // the failure comes after the backup was in place
    };
    const std::string enospc = std::to_string(ENOSPC), eio = std::to_string(EIO);
    const Case cases[] = {
        {"backup: create", "open:" + enospc, false},
        {"backup: write", "write:" + enospc, false},
        {"backup: write", "write:" + eio, false},
        {"backup: sync", "fsync:" + eio, false},
        {"backup: link", "link:" + eio, false},
        {"settings: create", "open:" + enospc + ":1", true},
        {"settings: write", "write:" + enospc + ":1", true},
        {"settings: sync", "fsync:" + eio + ":1", true},
        {"settings: replace", "rename:" + eio, true},
        {"read-only directory", "open:" + std::to_string(EROFS), false},
    };
    const fs::path fixture = fs::path(SKELDRIN_FIXTURES) / "settings/user-hooks.json";
    const std::string original = readText(fixture);
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.writePoint) + " " + c.fail);
        char pattern[] = "/tmp/skeldrin-settings-XXXXXX";
        const fs::path directory = mkdtemp(pattern);
        const fs::path file = directory / "settings.json",
                       backup = directory / "settings.json.skeldrin-backup";
        skeldrin::test::writeText(file, original);
        const auto settings = HookInstaller::installing(HookInstaller::command("/opt/skeldrin-hook"),
                                                        HookInstaller::readSettings(file));

        skeldrin_fail(c.fail.c_str());
        EXPECT_THROW(HookInstaller::writeSettings(settings, file), std::filesystem::filesystem_error);
        skeldrin_fail(nullptr);

        EXPECT_EQ(readText(file), original);
        std::set<std::string> expected{"settings.json"};
        if (c.backupMade) {
            expected.insert(backup.filename());
            EXPECT_EQ(readText(backup), original);
        }
        EXPECT_EQ(listing(directory), expected); // no temporary file left behind

        // And once the disk is well again, the write goes through.
        HookInstaller::writeSettings(settings, file);
        EXPECT_EQ(HookInstaller::readSettings(file), settings);
        EXPECT_EQ(readText(backup), original);
        fs::remove_all(directory);
    }
}
