#include "TrackerCore/HookInstaller.h"
#include "support/TempDir.h"
#include "support/TestFiles.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <sys/stat.h>

// The failure shim is linked in ahead of the C library.
extern "C" void skeldrin_fail(const char* rule);

namespace fs = std::filesystem;
using skeldrin::test::readText;
using testing::HasSubstr;
namespace HookInstaller = skeldrin::HookInstaller;
using HookInstaller::State;
using skeldrin::Json;

namespace {

const fs::path fixtures = fs::path(SKELDRIN_FIXTURES) / "settings";
const std::string current = HookInstaller::command("/opt/Skeldrin/bin/skeldrin-hook");

Json fixture(const char* name)
{
    return HookInstaller::readSettings(fixtures / name);
}

Json appGroup(const std::string& command)
{
    return {{"hooks", {{{"type", "command"}, {"command", command}, {"timeout", 5}}}}};
}

std::ptrdiff_t entries(const fs::path& folder)
{
    return std::distance(fs::directory_iterator(folder), {});
}

} // namespace

TEST(HookInstallerCommand, ShellReadsBackTheExactPath)
{
    const std::string awkward = "/Users/o'neil/My Apps/$HOME `id` \"x\"/skeldrin-hook";
    FILE* shell = ::popen(("printf '%s' " + HookInstaller::command(awkward)).c_str(), "r");
    ASSERT_NE(shell, nullptr);
    char echoed[128] = {};
    std::fread(echoed, 1, sizeof echoed - 1, shell);
    EXPECT_EQ(::pclose(shell), 0);
    EXPECT_EQ(echoed, awkward);
}

TEST(HookState, InstalledOnlyWhenEveryEventHasTheCurrentCommand)
{
    const Json installed = HookInstaller::installing(current, fixture("user-hooks.json"));
    const auto edited = [&](const std::function<void(Json&)>& edit) {
        Json settings = installed;
        edit(settings["hooks"]);
        return settings;
    };
    const std::tuple<const char*, Json, State> cases[] = {
        {"only the user's hooks", fixture("user-hooks.json"), State::notInstalled},
        {"beside the user's hooks", installed, State::installed},
        {"no matcher", edited([](Json& hooks) { hooks["PreToolUse"][1].erase("matcher"); }),
         State::installed},
        {"an event missing", edited([](Json& hooks) { hooks.erase("StopFailure"); }), State::outdated},
        {"an earlier command left over",
         edited([](Json& hooks) { hooks["Stop"].push_back(appGroup("'/old/skeldrin-hook'")); }),
         State::outdated},
        {"only an earlier install", fixture("earlier-install.json"), State::outdated},
    };
    for (const auto& [name, settings, state] : cases)
        EXPECT_EQ(HookInstaller::state(settings, current), state) << name;
}

TEST(Installing, AddsItsGroupsAfterTheUsersAndRemovingGivesTheOriginalBack)
{
    const Json original = fixture("user-hooks.json");
    const Json installed = HookInstaller::installing(current, original);
    const Json& hooks = installed.at("hooks");
    EXPECT_EQ(hooks.at("Stop"), Json::array({original["hooks"]["Stop"][0], appGroup(current)}));
    Json matched = appGroup(current);
    matched["matcher"] = "AskUserQuestion|ExitPlanMode";
    EXPECT_EQ(hooks.at("PreToolUse"), Json::array({original["hooks"]["PreToolUse"][0], matched}));

    std::string events;
    for (const auto& [event, groups] : hooks.items())
        events += event + " ";
    EXPECT_EQ(events, "Notification PermissionDenied PermissionRequest PostToolUse PostToolUseFailure "
                      "PreToolUse SessionEnd SessionStart Stop StopFailure UserPromptSubmit ");

    EXPECT_EQ(HookInstaller::installing(current, installed), installed);
    EXPECT_EQ(HookInstaller::removing(installed), original);
}

TEST(Removing, DropsOnlyWhatItEmptiesAndOtherShapesAreNeverOverwritten)
{
    const Json model = {{"model", "sonnet"}};
    EXPECT_EQ(HookInstaller::removing(HookInstaller::installing(current, model)), model);

    const Json odd = fixture("odd-shapes.json");
    EXPECT_EQ(HookInstaller::state(odd, "'/opt/skeldrin/skeldrin-hook'"), State::outdated);
    Json expected = odd;
    expected["hooks"]["PreToolUse"][2]["hooks"].erase(2); // the one well-formed entry of the app
    EXPECT_EQ(HookInstaller::removing(odd), expected);

    const Json installed = HookInstaller::installing(current, odd);
    EXPECT_EQ(HookInstaller::state(installed, current), State::installed);
    expected["hooks"].erase("Stop"); // held only the app's group, so removing empties it
    EXPECT_EQ(HookInstaller::removing(installed), expected);

    // Installing refuses what it would have to overwrite.
    for (const char* text : {"[]", R"({"hooks": "echo stop"})",
                             R"({"hooks": {"Stop": {"hooks": [{"type": "command", "command": "echo"}]}}})"}) {
        const Json settings = Json::parse(text);
        EXPECT_THROW(HookInstaller::installing(current, settings), HookInstaller::UnexpectedShapeError)
            << text;
        EXPECT_EQ(HookInstaller::removing(settings), settings);
    }
}

class SettingsFile : public ::testing::Test {
  protected:
    SettingsFile() { fs::create_directories(settings.parent_path()); }

    skeldrin::test::TempDir root{"skeldrin-settings"};
    fs::path settings = root / ".claude" / "settings.json";
    fs::path backup = root / ".claude" / "settings.json.skeldrin-backup";
};

TEST_F(SettingsFile, ReadFailuresAreThrownAndNameTheFile)
{
    fs::create_directory(settings);
    EXPECT_THROW(HookInstaller::readSettings(settings), fs::filesystem_error);
    fs::remove(settings);
    const auto reading = [&](const char* fixture) {
        fs::copy_file(fixtures / fixture, settings, fs::copy_options::overwrite_existing);
        return [&] { HookInstaller::readSettings(settings); };
    };
    EXPECT_THAT(reading("trailing-comma.json"),
                testing::ThrowsMessage<skeldrin::DecodingError>(
                    testing::AllOf(HasSubstr(settings.string()), HasSubstr("line 5"))));
    EXPECT_THAT(reading("top-level-array.json"),
                testing::ThrowsMessage<HookInstaller::CorruptFileError>(testing::StrEq(
                    "The file “settings.json” couldn’t be opened because it isn’t in the correct format.")));
}

TEST_F(SettingsFile, WritesThroughSymlinksKeepingTheModeAndTheFirstBackup)
{
    // ~/.claude/settings.json -> dotfiles/current.json -> claude/settings.json (relative), not there yet
    const fs::path dotfiles = root / "dotfiles", real = dotfiles / "claude" / "settings.json";
    fs::create_directories(dotfiles);
    fs::create_symlink("claude/settings.json", dotfiles / "current.json");
    fs::create_symlink(dotfiles / "current.json", settings);
    EXPECT_EQ(HookInstaller::readSettings(settings), Json::object());

    const Json user = fixture("user-hooks.json");
    HookInstaller::writeSettings(user, settings);
    EXPECT_FALSE(fs::exists(fs::symlink_status(backup))) << "there was nothing to back up";
    const mode_t mask = ::umask(0);
    ::umask(mask);
    EXPECT_EQ(fs::status(real).permissions(), fs::perms(0644 & ~mask));
    EXPECT_TRUE(readText(real).starts_with(
        "{\n  \"$schema\": \"https://json.schemastore.org/claude-code-settings.json\",\n"));

    ::chmod(real.c_str(), 0640);
    const std::string original = readText(real);
    HookInstaller::writeSettings(HookInstaller::installing(current, user), settings);
    HookInstaller::writeSettings(user, settings);
    EXPECT_EQ(fs::read_symlink(settings), dotfiles / "current.json");
    EXPECT_EQ(fs::read_symlink(dotfiles / "current.json"), "claude/settings.json");
    EXPECT_EQ(HookInstaller::readSettings(real), user);
    EXPECT_EQ(readText(backup), original);
    EXPECT_EQ(fs::status(real).permissions(), fs::perms(0640));
    EXPECT_EQ(fs::status(backup).permissions(), fs::perms(0640));
    EXPECT_EQ(entries(settings.parent_path()), 2) << "a temporary file was left behind";
    EXPECT_EQ(entries(real.parent_path()), 1) << "a temporary file was left behind";
}

// A write refused at any point leaves the user's settings and their backup whole.
TEST_F(SettingsFile, EveryWritePointKeepsTheSettingsAndTheBackupWhole)
{
    const auto e = [](int error) { return ":" + std::to_string(error); };
    const std::tuple<std::string, bool> cases[] = {
        // call:errno[:skip], whether the backup was in place before the failure
        {"open" + e(ENOSPC), false},       {"write" + e(ENOSPC), false},
        {"fsync" + e(EIO), false},         {"link" + e(EIO), false},
        {"open" + e(ENOSPC) + ":1", true}, {"write" + e(ENOSPC) + ":1", true},
        {"fsync" + e(EIO) + ":1", true},   {"rename" + e(EIO), true},
    };
    const std::string original = readText(fixtures / "user-hooks.json");
    const Json installed = HookInstaller::installing(current, fixture("user-hooks.json"));
    for (const auto& [fail, backupMade] : cases) {
        SCOPED_TRACE(fail);
        fs::remove(backup);
        skeldrin::test::writeText(settings, original);
        skeldrin_fail(fail.c_str());
        EXPECT_THROW(HookInstaller::writeSettings(installed, settings), fs::filesystem_error);
        skeldrin_fail(nullptr);
        EXPECT_EQ(readText(settings), original);
        EXPECT_EQ(readText(backup), backupMade ? original : "");
        EXPECT_EQ(entries(settings.parent_path()), backupMade ? 2 : 1) << "a temporary file was left behind";

        // And once the disk is well again, the write goes through.
        HookInstaller::writeSettings(installed, settings);
        EXPECT_EQ(HookInstaller::readSettings(settings), installed);
        EXPECT_EQ(readText(backup), original);
    }
}
