#include "TrackerCore/LinuxJumpTarget.h"

#include <gtest/gtest.h>

namespace lj = skeldrin::linux_jump;
using skeldrin::Environment;
using skeldrin::Session;

namespace {

Session sessionFrom(const Environment& environment,
                    std::optional<skeldrin::ProcessRef> process = std::nullopt)
{
    Session session;
    session.id = "0f5c2b9e";
    session.cwd = "/home/ada/src/engine";
    session.origin = skeldrin::Origin(environment, std::nullopt);
    session.process = process;
    return session;
}

TEST(LinuxOrigin, EditorExecutableIsTheNearestKnownAncestor)
{
    EXPECT_EQ(skeldrin::editorExecutable({"/usr/bin/bash", "/opt/Cursor/cursor", "/usr/share/code/code"}),
              "cursor");
    EXPECT_EQ(skeldrin::editorExecutable({"/usr/bin/codex"}), std::nullopt);
}

TEST(LinuxJumpTarget, FirstKnownPlaceWinsThenTheEditorOrTheNearestWindow)
{
    const std::pair<Environment, std::optional<lj::Target>> table[] = {
        {{{"TMUX", "/tmp/t/s,1,0"}, {"TMUX_PANE", "%12"}, {"KITTY_WINDOW_ID", "2"}},
         lj::TmuxPane{"/tmp/t/s", "%12"}},
        {{{"TMUX", "/tmp/t/s,1,0"}, {"KITTY_WINDOW_ID", "2"}}, lj::KittyWindow{std::nullopt, "2"}},
        {{{"WEZTERM_PANE", "5"}, {"WEZTERM_UNIX_SOCKET", "/run/user/1/wezterm/sock"}, {"WINDOWID", "9"}},
         lj::WeztermPane{"/run/user/1/wezterm/sock", "5"}},
        {{{"KONSOLE_DBUS_SERVICE", ":1.42"},
          {"KONSOLE_DBUS_SESSION", "/Sessions/4"},
          {"KONSOLE_DBUS_WINDOW", "/Windows/1"},
          {"WINDOWID", "77"}},
         lj::KonsoleSession{":1.42", 4, 1, 77u}},
        {{{"TERM_PROGRAM", "vscode"}, {"CLAUDE_PROJECT_DIR", "/home/ada/p"}, {"WINDOWID", "9"}},
         lj::EditorFolder{"code", "/home/ada/p", std::nullopt}},
        {{{"WINDOWID", "4194318"}, {"TERM_PROGRAM", "xterm"}}, lj::X11Window{4194318u}},
        {{{"TERM", "xterm-256color"}}, std::nullopt},
    };
    for (const auto& [environment, expected] : table)
        EXPECT_EQ(lj::resolve(sessionFrom(environment)), expected) << environment.begin()->first;
    // Any live process falls back to its nearest window.
    EXPECT_EQ(lj::resolve(sessionFrom({}, skeldrin::ProcessRef{4242, 1.5})), lj::Target(lj::X11Window{}));

    // Extension sessions get their editor's deep link, when the id may stand in a URL.
    Session session = sessionFrom({{"CLAUDE_CODE_ENTRYPOINT", "claude-vscode"}});
    session.origin.editorExecutable = "cursor";
    EXPECT_EQ(lj::resolve(session),
              lj::Target(lj::EditorFolder{"cursor", "/home/ada/src/engine",
                                          "cursor://anthropic.claude-code/open?session=0f5c2b9e"}));
    session.id = "a b";
    EXPECT_EQ(std::get<lj::EditorFolder>(*lj::resolve(session)).url, std::nullopt);
}

TEST(LinuxJumpTarget, HostileValuesAreRefusedByNameNeverPassedOn)
{
    const std::vector<Environment> table = {
        {{"TMUX", "relative/sock,1,0"}, {"TMUX_PANE", "%1"}},
        {{"TMUX", "/tmp/s,1,0"}, {"TMUX_PANE", "1"}},
        {{"KITTY_WINDOW_ID", "1"}, {"KITTY_LISTEN_ON", "unix:relative"}},
        {{"KITTY_WINDOW_ID", "1"}, {"KITTY_LISTEN_ON", "tcp:evil host:1"}},
        {{"WEZTERM_PANE", "-1"}},
        {{"WEZTERM_PANE", "1"}, {"WEZTERM_UNIX_SOCKET", "sock"}},
        {{"KONSOLE_DBUS_SERVICE", "org.kde/x"}, {"KONSOLE_DBUS_SESSION", "/Sessions/1"}},
        {{"KONSOLE_DBUS_SERVICE", ":1.4"}, {"KONSOLE_DBUS_SESSION", "/Sessions/../1"}},
        {{"TERM_PROGRAM", "vscode"}, {"CLAUDE_PROJECT_DIR", "relative"}},
        {{"WINDOWID", "0x400001"}},
        {{"WINDOWID", "4294967296"}},
    };
    for (const Environment& environment : table)
        EXPECT_THROW(lj::resolve(sessionFrom(environment)), skeldrin::InvalidJumpValue)
            << environment.begin()->second;
    Session editor = sessionFrom({{"TERM_PROGRAM", "vscode"}});
    editor.origin.editorExecutable = "rm";
    EXPECT_THROW(lj::resolve(editor), skeldrin::InvalidJumpValue);
}

} // namespace
