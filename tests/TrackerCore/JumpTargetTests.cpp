#include "TrackerCore/JumpTarget.h"

#include <gtest/gtest.h>

using skeldrin::Environment;
using skeldrin::JumpTarget;

namespace {

const char* const cursor = "com.todesktop.230313mzl4w4u92";
const char* const project = "/Users/ada/src/engine";

std::optional<JumpTarget> resolve(const Environment& environment, std::optional<std::string> tty = {},
                                  std::string id = "s1")
{
    skeldrin::Session session;
    session.id = std::move(id);
    session.cwd = "/Users/ada/src/engine/tools";
    session.origin = skeldrin::Origin(environment, std::move(tty));
    return JumpTarget::resolve(session);
}

} // namespace

TEST(JumpTarget, ExtensionSessionsOpenTheEditorsDeepLinkWhenTheIdIsURLText)
{
    const Environment inCursor = {{"CLAUDE_CODE_ENTRYPOINT", "claude-vscode"},
                                  {"__CFBundleIdentifier", cursor},
                                  {"CLAUDE_PROJECT_DIR", project},
                                  {"TERM_PROGRAM", "Apple_Terminal"}};
    // The extension decides even inside a terminal the app knows.
    EXPECT_EQ(resolve(inCursor, "/dev/ttys004"),
              JumpTarget::editorSession(cursor, project, "cursor://anthropic.claude-code/open?session=s1"));
    // An absent editor is taken for VS Code; without a project directory the folder is the cwd.
    EXPECT_EQ(resolve({{"CLAUDE_CODE_ENTRYPOINT", "claude-vscode"}}),
              JumpTarget::editorSession("com.microsoft.VSCode", "/Users/ada/src/engine/tools",
                                        "vscode://anthropic.claude-code/open?session=s1"));

    for (const char* id : {"has space", "bad%2escape%", "bad%zz", "two#hash#es"})
        EXPECT_EQ(resolve(inCursor, {}, id), JumpTarget::editorWindow(cursor, project)) << id;
    for (const char* id : {"%41%2F", "a~b_c.d-e?!$&'()*+,;=:@/", "one#fragment"})
        EXPECT_EQ(resolve(inCursor, {}, id)->kind, JumpTarget::Kind::editorSession) << id;
}

TEST(JumpTarget, DesktopSessionsAndTerminalsGoWhereTheyCanBeAddressed)
{
    const std::tuple<Environment, std::optional<std::string>, std::optional<JumpTarget>> cases[] = {
        {{{"CLAUDE_CODE_ENTRYPOINT", "claude-desktop"}, {"CLAUDE_CODE_HOST_SESSION_ID", "local_8d3f0a"}},
         {},
         JumpTarget::claudeDesktop("claude://code/continue?session=local_8d3f0a")},
        {{{"CLAUDE_CODE_ENTRYPOINT", "claude-desktop"},
          {"CLAUDE_CODE_HOST_SESSION_ID", "not a url"},
          {"__CFBundleIdentifier", "com.anthropic.claudefordesktop.beta"}},
         {},
         JumpTarget::activateApp("com.anthropic.claudefordesktop.beta")},
        {{{"TERM_PROGRAM", "Apple_Terminal"}}, "/dev/ttys004", JumpTarget::terminalTab("/dev/ttys004")},
        {{{"TERM_PROGRAM", "iTerm.app"}}, "/dev/ttys009", JumpTarget::itermSession("/dev/ttys009")},
        // Without a tty, or in a terminal the app can't address, only the app can be brought forward.
        {{{"TERM_PROGRAM", "Apple_Terminal"}}, {}, std::nullopt},
        {{{"TERM_PROGRAM", "WezTerm"}, {"__CFBundleIdentifier", "com.github.wez.wezterm"}},
         "/dev/pts/3",
         JumpTarget::activateApp("com.github.wez.wezterm")},
        // An editor's integrated terminal opens the editor's window.
        {{{"TERM_PROGRAM", "vscode"}, {"__CFBundleIdentifier", cursor}, {"CLAUDE_PROJECT_DIR", project}},
         "/dev/ttys011",
         JumpTarget::editorWindow(cursor, project)},
    };
    for (const auto& [environment, tty, target] : cases)
        EXPECT_EQ(resolve(environment, tty), target) << environment.begin()->second;
}
