#pragma once
#include "TrackerCore/Session.h"

#include <optional>
#include <string>

namespace skeldrin {

// Where a session runs, decided from its record alone.
struct JumpTarget {
    enum class Kind {
        claudeDesktop, // open url in the Claude desktop app
        editorSession, // open folder in the editor bundleId, then its deep link url
        editorWindow,  // open folder in the editor bundleId
        terminalTab,   // select the Terminal tab on tty
        itermSession,  // select the iTerm2 session on tty
        activateApp,   // bring bundleId to the front
    };

    Kind kind = Kind::activateApp;
    std::string url;
    std::string bundleId;
    std::string folder;
    std::string tty;

    static JumpTarget claudeDesktop(std::string url);
    static JumpTarget editorSession(std::string bundleId, std::string folder, std::string url);
    static JumpTarget editorWindow(std::string bundleId, std::string folder);
    static JumpTarget terminalTab(std::string tty);
    static JumpTarget itermSession(std::string tty);
    static JumpTarget activateApp(std::string bundleId);

    // Nothing when there is nowhere to go.
    static std::optional<JumpTarget> resolve(const Session& session);

    bool operator==(const JumpTarget&) const = default;
};

} // namespace skeldrin
