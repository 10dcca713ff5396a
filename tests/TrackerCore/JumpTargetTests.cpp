#include "TrackerCore/JumpTarget.h"

#include <gtest/gtest.h>

using skeldrin::JumpTarget;
using skeldrin::Origin;
using skeldrin::Session;
using Text = std::optional<std::string>;

namespace {

const char* const cursor = "com.todesktop.230313mzl4w4u92";
const char* const project = "/Users/ada/src/engine";

Origin origin(const char* entrypoint, Text termProgram, Text tty, Text bundleId)
{
    Origin origin;
    origin.entrypoint = entrypoint;
    origin.termProgram = std::move(termProgram);
    origin.tty = std::move(tty);
    origin.bundleId = std::move(bundleId);
    origin.projectDir = project;
    return origin;
}

std::optional<JumpTarget> resolve(Origin origin, std::string id = "0f5c2b9e-51d4-4c1e-9a43-2d7a8c1e6b30")
{
    Session session;
    session.id = std::move(id);
    session.cwd = "/Users/ada/src/engine/tools";
    session.origin = std::move(origin);
    return JumpTarget::resolve(session);
}

} // namespace

TEST(JumpTarget, ExtensionSessionsOpenTheEditorsDeepLink)
{
    // The extension decides even inside a terminal the app knows.
    EXPECT_EQ(resolve(origin("claude-vscode", "Apple_Terminal", "/dev/ttys004", cursor)),
              JumpTarget::editorSession(
                  cursor, project,
                  "cursor://anthropic.claude-code/open?session=0f5c2b9e-51d4-4c1e-9a43-2d7a8c1e6b30"));
    // An absent editor is taken for VS Code; without a project directory the folder is the cwd.
    Origin bare = origin("claude-vscode", {}, {}, {});
    bare.projectDir.reset();
    EXPECT_EQ(resolve(bare, "s1"),
              JumpTarget::editorSession("com.microsoft.VSCode", "/Users/ada/src/engine/tools",
                                        "vscode://anthropic.claude-code/open?session=s1"));
}

TEST(JumpTarget, AnIdThatIsNotURLTextOpensOnlyTheWindow)
{
    for (const char* id : {"has space", "caf\xc3\xa9", "bad%2escape%", "bad%zz", "two#hash#es", "[bracket]"})
        EXPECT_EQ(resolve(origin("claude-vscode", {}, {}, cursor), id),
                  JumpTarget::editorWindow(cursor, project))
            << id;
    for (const char* id : {"%41%2F", "a~b_c.d-e?!$&'()*+,;=:@/", "one#fragment"})
        EXPECT_EQ(resolve(origin("claude-vscode", {}, {}, cursor), id)->kind, JumpTarget::Kind::editorSession)
            << id;
}

TEST(JumpTarget, DesktopSessionsContinueInTheDesktopApp)
{
    const std::tuple<Text, Text, JumpTarget> cases[] = {
        {"local_8d3f0a", {}, JumpTarget::claudeDesktop("claude://code/continue?session=local_8d3f0a")},
        {"not a url", {}, JumpTarget::activateApp("com.anthropic.claudefordesktop")},
        {{},
         "com.anthropic.claudefordesktop.beta",
         JumpTarget::activateApp("com.anthropic.claudefordesktop.beta")},
    };
    for (const auto& [hostSessionId, bundleId, target] : cases) {
        Origin desktop = origin("claude-desktop", {}, {}, bundleId);
        desktop.hostSessionId = hostSessionId;
        EXPECT_EQ(resolve(desktop), target) << hostSessionId.value_or("-");
    }
}

TEST(JumpTarget, TerminalsAreFoundByTheirTtyAndEditorTerminalsByTheirWindow)
{
    const std::tuple<Origin, std::optional<JumpTarget>> cases[] = {
        {origin("cli", "Apple_Terminal", "/dev/ttys004", "com.apple.Terminal"),
         JumpTarget::terminalTab("/dev/ttys004")},
        {origin("cli", "iTerm.app", "/dev/ttys009", {}), JumpTarget::itermSession("/dev/ttys009")},
        // Without a tty, or in a terminal the app can't address, only the app can be brought forward.
        {origin("cli", "Apple_Terminal", {}, {}), std::nullopt},
        {origin("cli", "WezTerm", "/dev/pts/3", "com.github.wez.wezterm"),
         JumpTarget::activateApp("com.github.wez.wezterm")},
        // An editor's integrated terminal opens the editor's window.
        {origin("cli", "vscode", "/dev/ttys011", cursor), JumpTarget::editorWindow(cursor, project)},
    };
    for (const auto& [from, target] : cases)
        EXPECT_EQ(resolve(from), target) << from.termProgram.value_or("-");
}
