#include "TrackerCore/HookInstaller.h"
#include "support/TempDir.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <set>
#include <sys/stat.h>

namespace fs = std::filesystem;
using skeldrin::test::readText;
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

    std::set<std::string> events;
    for (const auto& [event, groups] : hooks.items())
        events.insert(event);
    EXPECT_EQ(events, (std::set<std::string>{"SessionStart", "SessionEnd", "UserPromptSubmit", "PreToolUse",
                                             "PermissionRequest", "PermissionDenied", "PostToolUse",
                                             "PostToolUseFailure", "Notification", "Stop", "StopFailure"}));

    EXPECT_EQ(HookInstaller::installing(current, installed), installed);
    EXPECT_EQ(HookInstaller::removing(installed), original);
}

TEST(Removing, DropsOnlyWhatItEmptiesAndLeavesOtherShapesAlone)
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
}

TEST(Installing, RefusesToOverwriteHooksOfAnotherShape)
{
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

template <typename Error> std::string readError(const fs::path& file)
{
    try {
        HookInstaller::readSettings(file);
    } catch (const Error& e) {
        return e.what();
    }
    return "accepted";
}

TEST_F(SettingsFile, ReadFailuresAreThrownAndNameTheFile)
{
    fs::create_directory(settings);
    EXPECT_THROW(HookInstaller::readSettings(settings), fs::filesystem_error);
    fs::remove(settings);

    fs::copy_file(fixtures / "trailing-comma.json", settings);
    const std::string syntax = readError<skeldrin::DecodingError>(settings);
    EXPECT_NE(syntax.find(settings.string()), std::string::npos) << syntax;
    EXPECT_NE(syntax.find("line 5"), std::string::npos) << syntax;

    fs::remove(settings);
    fs::copy_file(fixtures / "top-level-array.json", settings);
    EXPECT_EQ(readError<HookInstaller::CorruptFileError>(settings),
              "The file “settings.json” couldn’t be opened because it isn’t in the correct format.");
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
    const auto entries = [](const fs::path& folder) {
        return std::distance(fs::directory_iterator(folder), {});
    };
    EXPECT_EQ(entries(settings.parent_path()), 2) << "a temporary file was left behind";
    EXPECT_EQ(entries(real.parent_path()), 1) << "a temporary file was left behind";
}
