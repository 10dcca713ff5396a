#pragma once
#include "TrackerCore/Session.h"

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

namespace skeldrin {

// A value from a session file that is not fit to be handed to another program.
class InvalidJumpValue : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Where a session runs on a Linux desktop, with every value checked.
namespace linux_jump {

struct TmuxPane {
    std::string socket; // absolute path
    std::string pane;   // %N
    bool operator==(const TmuxPane&) const = default;
};
struct KittyWindow {
    std::optional<std::string> listenOn; // unix:/path, unix:@name or tcp:host:port
    std::string id;                      // digits
    bool operator==(const KittyWindow&) const = default;
};
struct WeztermPane {
    std::optional<std::string> socket; // absolute path
    std::string pane;                  // digits
    bool operator==(const WeztermPane&) const = default;
};
struct KonsoleSession {
    std::string service;       // D-Bus bus name
    int session = 0;           // from /Sessions/N
    std::optional<int> window; // from /Windows/N
    std::optional<std::uint32_t> x11Window;
    bool operator==(const KonsoleSession&) const = default;
};
struct EditorFolder {
    std::string executable;         // a known editor's command
    std::string folder;             // absolute path
    std::optional<std::string> url; // the extension's deep link to the session
    bool operator==(const EditorFolder&) const = default;
};
struct X11Window {
    std::optional<std::uint32_t> window; // WINDOWID; else the nearest ancestor's window
    bool operator==(const X11Window&) const = default;
};

using Target = std::variant<TmuxPane, KittyWindow, WeztermPane, KonsoleSession, EditorFolder, X11Window>;

// First match wins: tmux pane, kitty, WezTerm, Konsole, editor, X11 window. Nothing when there is
// nowhere to go; throws InvalidJumpValue when the place is known but a value is malformed.
std::optional<Target> resolve(const Session& session);

// Command lines (program first) that carry out a target.
std::vector<std::vector<std::string>> tmuxCommands(const TmuxPane& target);
std::vector<std::string> kittyCommand(const KittyWindow& target);
std::vector<std::string> weztermCommand(const WeztermPane& target);
std::vector<std::string> editorCommand(const EditorFolder& target);

bool isDBusBusName(const std::string& name);

} // namespace linux_jump
} // namespace skeldrin
