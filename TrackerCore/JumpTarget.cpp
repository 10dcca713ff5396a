#include "TrackerCore/JumpTarget.h"

#include "TrackerCore/Editor.h"

#include <string_view>

namespace skeldrin {
namespace {

constexpr std::string_view claudeDesktopBundleId = "com.anthropic.claudefordesktop";

bool isAlpha(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}
bool isHex(char c)
{
    return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}
bool isUnreserved(char c)
{
    return isAlpha(c) || isDigit(c) || c == '-' || c == '.' || c == '_' || c == '~';
}
bool isSubDelim(char c)
{
    return std::string_view("!$&'()*+,;=").find(c) != std::string_view::npos;
}

// Whether every character of part is an RFC 3986 character allowed there: unreserved, sub-delims,
// the extra characters given, or a complete %XX escape.
bool isComponent(std::string_view part, std::string_view extra)
{
    for (std::size_t i = 0; i < part.size(); ++i) {
        const char c = part[i];
        if (c == '%') {
            if (i + 2 >= part.size() || !isHex(part[i + 1]) || !isHex(part[i + 2])) return false;
            i += 2;
        } else if (!isUnreserved(c) && !isSubDelim(c) && extra.find(c) == std::string_view::npos) {
            return false;
        }
    }
    return true;
}

// The deep links are handed to the system as URLs, so the text must be one. This is a strict reading
// of an absolute URI by RFC 3986's grammar: a scheme, then an optional authority, a path, an optional
// query and fragment, each made only of the characters its rule allows, with every '%' starting a
// valid escape. Anything else (a space, a quote, '<', '>', a second '#', non-ASCII) does not parse:
// the caller then falls back to a target that needs no URL rather than sending a mangled one.
bool parsesAsURL(std::string_view text)
{
    const std::size_t colon = text.find(':');
    if (colon == std::string_view::npos || colon == 0 || !isAlpha(text[0])) return false;
    for (const char c : text.substr(1, colon - 1))
        if (!isAlpha(c) && !isDigit(c) && c != '+' && c != '-' && c != '.') return false;
    std::string_view rest = text.substr(colon + 1);

    if (const std::size_t hash = rest.find('#'); hash != std::string_view::npos) {
        if (!isComponent(rest.substr(hash + 1), ":@/?")) return false;
        rest = rest.substr(0, hash);
    }
    if (const std::size_t question = rest.find('?'); question != std::string_view::npos) {
        if (!isComponent(rest.substr(question + 1), ":@/?")) return false;
        rest = rest.substr(0, question);
    }
    if (rest.starts_with("//")) {
        // Without a path the authority runs to the end.
        const std::size_t slash = rest.find('/', 2);
        const std::string_view authority =
            rest.substr(2, slash == std::string_view::npos ? slash : slash - 2);
        if (!isComponent(authority, ":@[]")) return false;
        rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash);
    }
    return isComponent(rest, ":@/");
}

} // namespace

JumpTarget JumpTarget::claudeDesktop(std::string url)
{
    JumpTarget target;
    target.kind = Kind::claudeDesktop;
    target.url = std::move(url);
    return target;
}

JumpTarget JumpTarget::editorSession(std::string bundleId, std::string folder, std::string url)
{
    JumpTarget target;
    target.kind = Kind::editorSession;
    target.bundleId = std::move(bundleId);
    target.folder = std::move(folder);
    target.url = std::move(url);
    return target;
}

JumpTarget JumpTarget::editorWindow(std::string bundleId, std::string folder)
{
    JumpTarget target;
    target.kind = Kind::editorWindow;
    target.bundleId = std::move(bundleId);
    target.folder = std::move(folder);
    return target;
}

JumpTarget JumpTarget::terminalTab(std::string tty)
{
    JumpTarget target;
    target.kind = Kind::terminalTab;
    target.tty = std::move(tty);
    return target;
}

JumpTarget JumpTarget::itermSession(std::string tty)
{
    JumpTarget target;
    target.kind = Kind::itermSession;
    target.tty = std::move(tty);
    return target;
}

JumpTarget JumpTarget::activateApp(std::string bundleId)
{
    JumpTarget target;
    target.kind = Kind::activateApp;
    target.bundleId = std::move(bundleId);
    return target;
}

std::optional<JumpTarget> JumpTarget::resolve(const Session& session)
{
    const Origin& origin = session.origin;
    const std::string folder = origin.projectDir.value_or(session.cwd);

    if (origin.entrypoint == "claude-vscode") {
        const Editor editor(origin.bundleId);
        // The id goes in as it is: one that is not URL-safe makes the link fail to parse, and the
        // editor window alone is still the right place.
        std::string url = editor.urlScheme + "://anthropic.claude-code/open?session=" + session.id;
        if (parsesAsURL(url)) return editorSession(editor.bundleId, folder, std::move(url));
        return editorWindow(editor.bundleId, folder);
    }
    if (origin.entrypoint == "claude-desktop") {
        if (origin.hostSessionId) {
            std::string url = "claude://code/continue?session=" + *origin.hostSessionId;
            if (parsesAsURL(url)) return claudeDesktop(std::move(url));
        }
        return activateApp(origin.bundleId.value_or(std::string(claudeDesktopBundleId)));
    }
    if (origin.tty) {
        if (origin.termProgram == "Apple_Terminal") return terminalTab(*origin.tty);
        if (origin.termProgram == "iTerm.app") return itermSession(*origin.tty);
    }
    if (origin.termProgram == "vscode") return editorWindow(Editor(origin.bundleId).bundleId, folder);
    if (origin.bundleId) return activateApp(*origin.bundleId);
    return std::nullopt;
}

} // namespace skeldrin
