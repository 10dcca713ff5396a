#pragma once
#include "TrackerCore/Json.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace skeldrin {

using Environment = std::map<std::string, std::string>;

// Where a session runs: how Claude Code was started and what hosts it.
struct Origin {
    std::optional<std::string> entrypoint;    // CLAUDE_CODE_ENTRYPOINT
    std::optional<std::string> hostSessionId; // CLAUDE_CODE_HOST_SESSION_ID
    std::optional<std::string> termProgram;   // TERM_PROGRAM
    std::optional<std::string> bundleId;      // __CFBundleIdentifier
    std::optional<std::string> tty;           // controlling terminal of the Claude Code process
    std::optional<std::string> projectDir;    // CLAUDE_PROJECT_DIR

    // Where the session runs on Linux desktops, as the hook found it (checked only when jumping).
    std::optional<std::string> tmuxSocket;     // TMUX, up to the first comma
    std::optional<std::string> tmuxPane;       // TMUX_PANE
    std::optional<std::string> kittyWindowId;  // KITTY_WINDOW_ID
    std::optional<std::string> kittyListenOn;  // KITTY_LISTEN_ON
    std::optional<std::string> weztermPane;    // WEZTERM_PANE
    std::optional<std::string> weztermSocket;  // WEZTERM_UNIX_SOCKET
    std::optional<std::string> konsoleService; // KONSOLE_DBUS_SERVICE
    std::optional<std::string> konsoleSession; // KONSOLE_DBUS_SESSION
    std::optional<std::string> konsoleWindow;  // KONSOLE_DBUS_WINDOW
    std::optional<std::string> x11Window;      // WINDOWID
    std::optional<std::string>
        editorExecutable; // VS Code-family editor hosting the session, by executable name

    Origin() = default;
    Origin(const Environment& environment, std::optional<std::string> tty);

    bool isHeadless() const;
    // Display name of the app hosting the session.
    std::string appName() const;

    bool operator==(const Origin&) const = default;
};

// One run of a process: a pid is the same process only while its start time is exactly the same.
struct ProcessRef {
    std::int32_t pid = 0;
    double startTime = 0; // seconds since 1970, microsecond fraction

    bool operator==(const ProcessRef&) const = default;
};

// What the hook command gathers about its surroundings.
struct HookContext {
    Origin origin;
    std::optional<ProcessRef> process;
    std::optional<std::string> inheritedSessionId;

    bool operator==(const HookContext&) const = default;
};

Json toJson(const Origin& origin);
Origin originFromJson(const Json& json); // throws DecodingError
Json toJson(const ProcessRef& process);
ProcessRef processRefFromJson(const Json& json); // throws DecodingError

// The VS Code-family editor among the executables of a process's ancestors (nearest first): the
// executable's file name when it is a known editor's, else nothing.
std::optional<std::string> editorExecutable(const std::vector<std::string>& ancestorExecutables);

} // namespace skeldrin
