#include "TrackerCore/JumpTarget.h"

#include <gtest/gtest.h>

using skeldrin::JumpTarget;
using skeldrin::Origin;
using skeldrin::Session;

namespace {

const char* const cursor = "com.todesktop.230313mzl4w4u92";

Session sessionWith(Origin origin, std::string id = "0f5c2b9e-51d4-4c1e-9a43-2d7a8c1e6b30")
{
    Session session;
    session.id = std::move(id);
    session.cwd = "/Users/ada/src/engine/tools";
    session.origin = std::move(origin);
    return session;
}

Origin extension(std::optional<std::string> bundleId,
                 std::optional<std::string> projectDir = "/Users/ada/src/engine")
{
    Origin origin;
    origin.entrypoint = "claude-vscode";
    origin.bundleId = std::move(bundleId);
    origin.projectDir = std::move(projectDir);
    return origin;
}

Origin terminal(std::optional<std::string> termProgram, std::optional<std::string> tty,
                std::optional<std::string> bundleId = std::nullopt)
{
    Origin origin;
    origin.entrypoint = "cli";
    origin.termProgram = std::move(termProgram);
    origin.tty = std::move(tty);
    origin.bundleId = std::move(bundleId);
    origin.projectDir = "/Users/ada/src/engine";
    return origin;
}

} // namespace

TEST(JumpTarget, ExtensionSessionsOpenTheEditorsDeepLink)
{
    EXPECT_EQ(JumpTarget::resolve(sessionWith(extension(cursor))),
              JumpTarget::editorSession(cursor, "/Users/ada/src/engine",
                                        "cursor://anthropic.claude-code/open?session="
                                        "0f5c2b9e-51d4-4c1e-9a43-2d7a8c1e6b30"));
    // An absent editor is taken for VS Code; without a project directory the folder is the cwd.
    EXPECT_EQ(JumpTarget::resolve(sessionWith(extension(std::nullopt, std::nullopt), "s1")),
              JumpTarget::editorSession("com.microsoft.VSCode", "/Users/ada/src/engine/tools",
                                        "vscode://anthropic.claude-code/open?session=s1"));
    // The extension decides even inside a terminal the app knows.
    Origin inTerminal = extension(cursor);
    inTerminal.termProgram = "Apple_Terminal";
    inTerminal.tty = "/dev/ttys004";
    EXPECT_EQ(JumpTarget::resolve(sessionWith(inTerminal))->kind, JumpTarget::Kind::editorSession);
}

TEST(JumpTarget, AnIdThatIsNotURLTextOpensOnlyTheWindow)
{
    for (const char* id :
         {"has space", "caf\xc3\xa9", "bad%2escape%", "bad%zz", "two#hash#es", "[bracket]"}) {
        EXPECT_EQ(JumpTarget::resolve(sessionWith(extension(cursor), id)),
                  JumpTarget::editorWindow(cursor, "/Users/ada/src/engine"))
            << id;
    }
    for (const char* id : {"%41%2F", "a~b_c.d-e?!$&'()*+,;=:@/", "one#fragment"}) {
        EXPECT_EQ(JumpTarget::resolve(sessionWith(extension(cursor), id))->kind,
                  JumpTarget::Kind::editorSession)
            << id;
    }
}

TEST(JumpTarget, DesktopSessionsContinueInTheDesktopApp)
{
    const std::tuple<std::optional<std::string>, std::optional<std::string>, JumpTarget> cases[] = {
        {"local_8d3f0a", std::nullopt,
         JumpTarget::claudeDesktop("claude://code/continue?session=local_8d3f0a")},
        {"not a url", std::nullopt, JumpTarget::activateApp("com.anthropic.claudefordesktop")},
        {std::nullopt, "com.anthropic.claudefordesktop.beta",
         JumpTarget::activateApp("com.anthropic.claudefordesktop.beta")},
    };
    for (const auto& [hostSessionId, bundleId, target] : cases) {
        Origin desktop;
        desktop.entrypoint = "claude-desktop";
        desktop.hostSessionId = hostSessionId;
        desktop.bundleId = bundleId;
        EXPECT_EQ(JumpTarget::resolve(sessionWith(desktop)), target) << hostSessionId.value_or("-");
    }
}

TEST(JumpTarget, TerminalsAreFoundByTheirTtyAndEditorTerminalsByTheirWindow)
{
    const std::tuple<Origin, std::optional<JumpTarget>> cases[] = {
        {terminal("Apple_Terminal", "/dev/ttys004", "com.apple.Terminal"),
         JumpTarget::terminalTab("/dev/ttys004")},
        {terminal("iTerm.app", "/dev/ttys009"), JumpTarget::itermSession("/dev/ttys009")},
        // Without a tty, or in a terminal the app can't address, only the app can be brought forward.
        {terminal("Apple_Terminal", std::nullopt), std::nullopt},
        {terminal("WezTerm", "/dev/pts/3", "com.github.wez.wezterm"),
         JumpTarget::activateApp("com.github.wez.wezterm")},
        // An editor's integrated terminal opens the editor's window.
        {terminal("vscode", "/dev/ttys011", cursor),
         JumpTarget::editorWindow(cursor, "/Users/ada/src/engine")},
    };
    for (const auto& [origin, target] : cases)
        EXPECT_EQ(JumpTarget::resolve(sessionWith(origin)), target) << origin.termProgram.value_or("-");
}
