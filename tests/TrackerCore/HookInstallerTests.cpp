#include "TrackerCore/HookInstaller.h"
#include "support/TempDir.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <set>
#include <sys/stat.h>

namespace fs = std::filesystem;
using skeldrin::test::readText;
using skeldrin::test::writeText;
namespace HookInstaller = skeldrin::HookInstaller;
using HookInstaller::State;
using skeldrin::Json;

namespace {

const fs::path fixtures = fs::path(SKELDRIN_FIXTURES) / "settings";
const std::string current = HookInstaller::command("/opt/Skeldrin/bin/skeldrin-hook");
const std::string earlier = "'/Applications/Skeldrin.app/Contents/MacOS/skeldrin-hook'";

Json fixture(const char* name)
{
    return HookInstaller::readSettings(fixtures / name);
}

Json appGroup(const std::string& command)
{
    return {{"hooks", {{{"type", "command"}, {"command", command}, {"timeout", 5}}}}};
}

mode_t modeOf(const fs::path& file)
{
    struct stat info {};
    EXPECT_EQ(::stat(file.c_str(), &info), 0) << file;
    return info.st_mode & 07777;
}

std::set<std::string> namesIn(const fs::path& directory)
{
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory))
        names.insert(entry.path().filename().string());
    return names;
}

} // namespace

// ---- The command ----

TEST(HookInstallerCommand, ShellReadsBackTheExactPath)
{
    EXPECT_EQ(HookInstaller::command("/Users/o'neil/x"), "'/Users/o'\\''neil/x'");
    EXPECT_EQ(HookInstaller::command("/opt/skeldrin-hook"), "'/opt/skeldrin-hook'");

    const std::string awkward = "/Users/o'neil/My Apps/$HOME `id` \"x\"/skeldrin-hook";
    FILE* shell = ::popen(("printf '%s' " + HookInstaller::command(awkward)).c_str(), "r");
    ASSERT_NE(shell, nullptr);
    std::string echoed;
    for (int c; (c = std::fgetc(shell)) != EOF;)
        echoed += static_cast<char>(c);
    EXPECT_EQ(::pclose(shell), 0);
    EXPECT_EQ(echoed, awkward);
}

TEST(HookState, InstalledOnlyWhenEveryEventHasTheCurrentCommand)
{
    const Json installed = HookInstaller::installing(current, Json::object());
    const auto edited = [](Json settings, const std::function<void(Json&)>& edit) {
        edit(settings["hooks"]);
        return settings;
    };
    const std::tuple<const char*, Json, State> cases[] = {
        {"empty", Json::object(), State::notInstalled},
        {"only the user's hooks", fixture("user-hooks.json"), State::notInstalled},
        {"commands that are not strings", Json::parse(R"({"hooks": {"Stop": [{"hooks": [
            {"type": "command", "command": ["skeldrin-hook"]}, {"type": "command", "command": 5}]}]}})"),
         State::notInstalled},
        {"beside the user's hooks", HookInstaller::installing(current, fixture("user-hooks.json")),
         State::installed},
        {"other timeout, no matcher",
         edited(installed,
                [](Json& hooks) {
                    hooks["PreToolUse"][0].erase("matcher");
                    hooks["PreToolUse"][0]["hooks"][0]["timeout"] = 60;
                }),
         State::installed},
        {"an event missing", edited(installed, [](Json& hooks) { hooks.erase("StopFailure"); }),
         State::outdated},
        {"an extra event",
         edited(installed, [](Json& hooks) { hooks["SubagentStop"] = Json::array({appGroup(current)}); }),
         State::outdated},
        {"an earlier command left over",
         edited(installed, [](Json& hooks) { hooks["Stop"].push_back(appGroup(earlier)); }), State::outdated},
        {"an earlier install", fixture("earlier-install.json"), State::outdated},
    };
    for (const auto& [name, settings, state] : cases)
        EXPECT_EQ(HookInstaller::state(settings, current), state) << name;
    // The executable moved: everything is in place, but for another path.
    EXPECT_EQ(HookInstaller::state(installed, HookInstaller::command("/usr/local/bin/skeldrin-hook")),
              State::outdated);
}

// ---- Installing and removing ----

TEST(Installing, AddsTheElevenEventsWithTheMatcherOnlyOnPreToolUse)
{
    const Json settings = HookInstaller::installing(current, Json::object());
    const Json entry = {{"type", "command"}, {"command", current}, {"timeout", 5}};
    std::set<std::string> events;
    for (const auto& [event, groups] : settings.at("hooks").items()) {
        events.insert(event);
        Json expected = {{"hooks", {entry}}};
        if (event == "PreToolUse") expected["matcher"] = "AskUserQuestion|ExitPlanMode";
        EXPECT_EQ(groups, Json::array({expected})) << event;
    }
    EXPECT_EQ(events, (std::set<std::string>{"SessionStart", "SessionEnd", "UserPromptSubmit", "PreToolUse",
                                             "PermissionRequest", "PermissionDenied", "PostToolUse",
                                             "PostToolUseFailure", "Notification", "Stop", "StopFailure"}));
    EXPECT_EQ(settings.size(), 1u);
}

TEST(Installing, KeepsTheUsersSettingsAndPutsTheAppsGroupsLast)
{
    const Json original = fixture("user-hooks.json");
    const Json installed = HookInstaller::installing(current, original);

    for (const char* key : {"$schema", "model", "permissions", "env", "statusLine", "cleanupPeriodDays"})
        EXPECT_EQ(installed.at(key), original.at(key)) << key;
    const Json& hooks = installed.at("hooks");
    EXPECT_EQ(hooks.at("Stop"), Json::array({original["hooks"]["Stop"][0], appGroup(current)}));
    ASSERT_EQ(hooks.at("PreToolUse").size(), 2u);
    EXPECT_EQ(hooks.at("PreToolUse")[0], original["hooks"]["PreToolUse"][0]);
    EXPECT_EQ(hooks.at("PreToolUse")[1].at("matcher"), "AskUserQuestion|ExitPlanMode");

    EXPECT_EQ(HookInstaller::installing(current, installed), installed);
    EXPECT_EQ(HookInstaller::removing(installed), original);
}

TEST(Installing, ReplacesAnEarlierInstallAndKeepsTheUsersEntryBesideIt)
{
    const Json installed = HookInstaller::installing(current, fixture("earlier-install.json"));
    EXPECT_EQ(HookInstaller::state(installed, current), State::installed);
    EXPECT_EQ(installed.dump().find("/Applications/Skeldrin.app"), std::string::npos);
    EXPECT_EQ(installed.at("includeCoAuthoredBy"), false);

    const Json userEntry = {{"type", "command"},
                            {"command", "notify-send 'Claude Code' 'needs your attention'"}};
    EXPECT_EQ(installed["hooks"]["Notification"], Json::array({{{"hooks", {userEntry}}}, appGroup(current)}));
}

TEST(Removing, DropsWhatItEmptiesUpToTheHooksKey)
{
    const Json onlyApp = HookInstaller::installing(current, Json{{"model", "sonnet"}});
    EXPECT_EQ(HookInstaller::removing(onlyApp), (Json{{"model", "sonnet"}}));
    EXPECT_EQ(HookInstaller::removing(Json{{"model", "sonnet"}}), (Json{{"model", "sonnet"}}));

    const Json removed = HookInstaller::removing(fixture("earlier-install.json"));
    EXPECT_EQ(removed["hooks"].size(), 1u);
    EXPECT_EQ(removed["hooks"]["Notification"][0]["hooks"].size(), 1u);
}

TEST(Removing, LeavesEverythingOfAnotherShapeAlone)
{
    const Json odd = fixture("odd-shapes.json");
    EXPECT_EQ(HookInstaller::state(odd, "'/opt/skeldrin/skeldrin-hook'"), State::outdated);

    Json expected = odd;
    expected["hooks"]["PreToolUse"][2]["hooks"].erase(2); // the one well-formed entry of the app
    EXPECT_EQ(HookInstaller::removing(odd), expected);

    // Installing on top keeps them too; the event that is not a list is not one the app needs.
    const Json installed = HookInstaller::installing(current, odd);
    EXPECT_EQ(HookInstaller::state(installed, current), State::installed);
    EXPECT_EQ(installed["hooks"]["SubagentStop"], odd["hooks"]["SubagentStop"]);
    expected["hooks"].erase("Stop"); // held only the app's group, so removing empties it
    EXPECT_EQ(HookInstaller::removing(installed), expected);
}

TEST(Installing, RefusesToOverwriteHooksOfAnotherShape)
{
    const char* unusable[] = {
        R"({"hooks": [{"Stop": []}]})",
        R"({"hooks": "echo stop"})",
        // a group where the list of groups belongs
        R"({"hooks": {"Stop": {"hooks": [{"type": "command", "command": "echo stop"}]}}})",
        "[]",
    };
    for (const char* text : unusable) {
        const Json settings = Json::parse(text);
        EXPECT_THROW(HookInstaller::installing(current, settings), HookInstaller::UnexpectedShapeError)
            << settings;
        EXPECT_EQ(HookInstaller::removing(settings), settings);
        EXPECT_EQ(HookInstaller::state(settings, current), State::notInstalled);
    }
}

// ---- The file ----

class SettingsFile : public ::testing::Test {
  protected:
    void placeFixture(const char* name)
    {
        fs::create_directories(settings.parent_path());
        fs::copy_file(fixtures / name, settings);
    }

    skeldrin::test::TempDir root{"skeldrin-settings"};
    fs::path settings = root / ".claude" / "settings.json";
    fs::path backup = root / ".claude" / "settings.json.skeldrin-backup";
};

TEST_F(SettingsFile, FirstInstallCreatesTheFileWithoutBackup)
{
    EXPECT_EQ(HookInstaller::readSettings(settings), Json::object());
    const Json installed = HookInstaller::installing(current, HookInstaller::readSettings(settings));
    HookInstaller::writeSettings(installed, settings);

    EXPECT_EQ(HookInstaller::readSettings(settings), installed);
    EXPECT_EQ(namesIn(settings.parent_path()), std::set<std::string>{"settings.json"});
    const mode_t mask = ::umask(0);
    ::umask(mask);
    EXPECT_EQ(modeOf(settings), 0644 & ~mask);
}

TEST_F(SettingsFile, WritesPrettySortedKeysWithPlainSlashes)
{
    placeFixture("user-hooks.json");
    HookInstaller::writeSettings(HookInstaller::readSettings(settings), settings);
    const std::string text = readText(settings);
    EXPECT_TRUE(
        text.starts_with("{\n  \"$schema\": \"https://json.schemastore.org/claude-code-settings.json\",\n"))
        << text;
    std::size_t previous = 0;
    for (const char* key :
         {"\"cleanupPeriodDays\"", "\"env\"", "\"hooks\"", "\"model\"", "\"permissions\""}) {
        const std::size_t at = text.find(std::string("\n  ") + key);
        ASSERT_NE(at, std::string::npos) << key;
        EXPECT_GT(at, previous) << key;
        previous = at;
    }
}

TEST_F(SettingsFile, ReadFailuresAreThrownAndNameTheFile)
{
    fs::create_directories(settings);
    EXPECT_THROW(HookInstaller::readSettings(settings), fs::filesystem_error);
    EXPECT_THROW(HookInstaller::writeSettings(Json::object(), settings), fs::filesystem_error);
    EXPECT_TRUE(fs::is_directory(settings));
    fs::remove(settings);

    placeFixture("trailing-comma.json");
    try {
        HookInstaller::readSettings(settings);
        ADD_FAILURE() << "a trailing comma was accepted";
    } catch (const skeldrin::DecodingError& e) {
        EXPECT_NE(std::string(e.what()).find(settings.string()), std::string::npos) << e.what();
        EXPECT_NE(std::string(e.what()).find("line 5"), std::string::npos) << e.what();
    }

    fs::remove(settings);
    placeFixture("top-level-array.json");
    try {
        HookInstaller::readSettings(settings);
        ADD_FAILURE() << "an array was accepted";
    } catch (const HookInstaller::CorruptFileError& e) {
        EXPECT_STREQ(e.what(),
                     "The file “settings.json” couldn’t be opened because it isn’t in the correct format.");
        EXPECT_EQ(e.file(), settings);
    }
}

TEST_F(SettingsFile, BackupKeepsTheSettingsFromBeforeTheFirstWrite)
{
    placeFixture("user-hooks.json");
    ::chmod(settings.c_str(), 0640);
    const std::string original = readText(settings);

    HookInstaller::writeSettings(HookInstaller::installing(current, HookInstaller::readSettings(settings)),
                                 settings);
    EXPECT_EQ(readText(backup), original);
    EXPECT_EQ(modeOf(backup), 0640u);
    EXPECT_EQ(modeOf(settings), 0640u);

    HookInstaller::writeSettings(HookInstaller::removing(HookInstaller::readSettings(settings)), settings);
    EXPECT_EQ(readText(backup), original);
    EXPECT_EQ(HookInstaller::readSettings(settings), fixture("user-hooks.json"));
    EXPECT_EQ(namesIn(settings.parent_path()),
              (std::set<std::string>{"settings.json", "settings.json.skeldrin-backup"}));
}

TEST_F(SettingsFile, NoWriteWhenTheBackupCannotBeMade)
{
    placeFixture("user-hooks.json");
    const std::string original = readText(settings);
    fs::create_directories(backup);
    EXPECT_THROW(HookInstaller::writeSettings(Json{{"model", "haiku"}}, settings), fs::filesystem_error);
    EXPECT_EQ(readText(settings), original);
    EXPECT_EQ(namesIn(settings.parent_path()),
              (std::set<std::string>{"settings.json", "settings.json.skeldrin-backup"}));
}

TEST_F(SettingsFile, ASymlinkedSettingsFileKeepsItsLinksAndMode)
{
    // ~/.claude/settings.json -> dotfiles/current.json -> claude/settings.json (relative)
    const fs::path dotfiles = root / "dotfiles";
    fs::create_directories(dotfiles / "claude");
    fs::copy_file(fixtures / "user-hooks.json", dotfiles / "claude" / "settings.json");
    ::chmod((dotfiles / "claude" / "settings.json").c_str(), 0600);
    fs::create_symlink("claude/settings.json", dotfiles / "current.json");
    fs::create_directories(settings.parent_path());
    fs::create_symlink(dotfiles / "current.json", settings);
    const std::string original = readText(settings);

    const Json installed = HookInstaller::installing(current, HookInstaller::readSettings(settings));
    HookInstaller::writeSettings(installed, settings);

    EXPECT_EQ(fs::read_symlink(settings), dotfiles / "current.json");
    EXPECT_EQ(fs::read_symlink(dotfiles / "current.json"), "claude/settings.json");
    EXPECT_EQ(HookInstaller::readSettings(dotfiles / "claude" / "settings.json"), installed);
    EXPECT_EQ(modeOf(dotfiles / "claude" / "settings.json"), 0600u);
    EXPECT_FALSE(fs::is_symlink(backup));
    EXPECT_EQ(readText(backup), original);
    EXPECT_EQ(namesIn(dotfiles / "claude"), std::set<std::string>{"settings.json"});
}

TEST_F(SettingsFile, ADanglingSymlinkGetsItsTargetCreated)
{
    fs::create_directories(settings.parent_path());
    const fs::path target = root / "dotfiles" / "claude" / "settings.json";
    fs::create_symlink(target, settings);

    EXPECT_EQ(HookInstaller::readSettings(settings), Json::object());
    HookInstaller::writeSettings(Json{{"model", "opus"}}, settings);
    EXPECT_TRUE(fs::is_symlink(settings));
    EXPECT_EQ(HookInstaller::readSettings(target), (Json{{"model", "opus"}}));
    EXPECT_FALSE(fs::exists(fs::symlink_status(backup)));
}
