// The settings editor when the disk fails at each write point (the failure shim is linked in ahead of the
// C library): the write is refused, and the user's settings and their backup are never lost or torn.
#include "TrackerCore/HookInstaller.h"
#include "support/TempDir.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <cerrno>

extern "C" void skeldrin_fail(const char* rule);

namespace fs = std::filesystem;
namespace HookInstaller = skeldrin::HookInstaller;
using skeldrin::test::readText;

TEST(SettingsFailures, EveryWritePointKeepsTheSettingsAndTheBackupWhole)
{
    const std::string enospc = std::to_string(ENOSPC), eio = std::to_string(EIO);
    const std::tuple<const char*, std::string, bool> cases[] = {
        // write point, call:errno[:skip], whether the backup was in place before the failure
        {"backup: create", "open:" + enospc, false},
        {"backup: write", "write:" + enospc, false},
        {"backup: sync", "fsync:" + eio, false},
        {"backup: link", "link:" + eio, false},
        {"settings: create", "open:" + enospc + ":1", true},
        {"settings: write", "write:" + enospc + ":1", true},
        {"settings: sync", "fsync:" + eio + ":1", true},
        {"settings: replace", "rename:" + eio, true},
    };
    const std::string original = readText(fs::path(SKELDRIN_FIXTURES) / "settings/user-hooks.json");
    for (const auto& [writePoint, fail, backupMade] : cases) {
        SCOPED_TRACE(std::string(writePoint) + " " + fail);
        const skeldrin::test::TempDir directory("skeldrin-settings");
        const fs::path file = directory / "settings.json",
                       backup = directory / "settings.json.skeldrin-backup";
        skeldrin::test::writeText(file, original);
        const auto settings = HookInstaller::installing(HookInstaller::command("/opt/skeldrin-hook"),
                                                        HookInstaller::readSettings(file));

        skeldrin_fail(fail.c_str());
        EXPECT_THROW(HookInstaller::writeSettings(settings, file), std::filesystem::filesystem_error);
        skeldrin_fail(nullptr);

        EXPECT_EQ(readText(file), original);
        EXPECT_EQ(readText(backup), backupMade ? original : "");
        EXPECT_EQ(std::distance(fs::directory_iterator(directory.path()), {}), backupMade ? 2 : 1)
            << "a temporary file was left behind";

        // And once the disk is well again, the write goes through.
        HookInstaller::writeSettings(settings, file);
        EXPECT_EQ(HookInstaller::readSettings(file), settings);
        EXPECT_EQ(readText(backup), original);
    }
}
