#include "TrackerCore/LinuxJumpTarget.h"

#include <algorithm>
#include <string_view>

namespace skeldrin::linux_jump {
namespace {

struct EditorCommand {
    std::string_view executable;
    std::string_view urlScheme;
};
constexpr EditorCommand editors[] = {
    {"code", "vscode"},       {"code-insiders", "vscode-insiders"},
    {"code-oss", "code-oss"}, {"cursor", "cursor"},
    {"windsurf", "windsurf"}, {"codium", "vscodium"},
    {"vscodium", "vscodium"},
};

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}
bool isAlnum(char c)
{
    return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isNumber(std::string_view text, std::size_t maxDigits = 10)
{
    return !text.empty() && text.size() <= maxDigits && std::all_of(text.begin(), text.end(), isDigit);
}

[[noreturn]] void refuse(std::string_view what, std::string_view value)
{
    throw InvalidJumpValue("This session recorded an unexpected " + std::string(what) + ": " +
                           std::string(value));
}

std::string number(std::string_view what, const std::string& value)
{
    if (!isNumber(value)) refuse(what, value);
    return value;
}

bool isAbsolutePath(std::string_view path)
{
    return path.starts_with('/') && path.size() < 4096 && std::none_of(path.begin(), path.end(), [](char c) {
               return static_cast<unsigned char>(c) < 0x20;
           });
}

std::string absolutePath(std::string_view what, const std::string& value)
{
    if (!isAbsolutePath(value)) refuse(what, value);
    return value;
}

bool isListenAddress(std::string_view address)
{
    if (address.starts_with("unix:@")) {
        const std::string_view name = address.substr(6);
        return !name.empty() && std::all_of(name.begin(), name.end(), [](char c) {
            return isAlnum(c) || c == '-' || c == '_' || c == '.' || c == '/';
        });
    }
    if (address.starts_with("unix:")) return isAbsolutePath(address.substr(5));
    if (address.starts_with("tcp:")) {
        const std::string_view rest = address.substr(4);
        const std::size_t colon = rest.rfind(':');
        if (colon == std::string_view::npos || colon == 0 || !isNumber(rest.substr(colon + 1), 5))
            return false;
        const std::string_view host = rest.substr(0, colon);
        return std::all_of(host.begin(), host.end(),
                           [](char c) { return isAlnum(c) || c == '-' || c == '.'; });
    }
    return false;
}

// "/Sessions/3" → 3
int objectNumber(std::string_view what, const std::string& value, std::string_view prefix)
{
    if (!value.starts_with(prefix) || !isNumber(std::string_view(value).substr(prefix.size()), 9))
        refuse(what, value);
    return std::stoi(value.substr(prefix.size()));
}

std::uint32_t windowId(const std::string& value)
{
    if (!isNumber(value)) refuse("X11 window", value);
    const unsigned long long id = std::stoull(value);
    if (id == 0 || id > 0xFFFFFFFFull) refuse("X11 window", value);
    return static_cast<std::uint32_t>(id);
}

const EditorCommand* editorNamed(std::string_view executable)
{
    for (const EditorCommand& editor : editors)
        if (editor.executable == executable) return &editor;
    return nullptr;
}

bool isUnreserved(char c)
{
    return isAlnum(c) || c == '-' || c == '.' || c == '_' || c == '~';
}

std::optional<Target> editorTarget(const Session& session)
{
    const Origin& origin = session.origin;
    const bool extension = origin.entrypoint == "claude-vscode";
    if (!extension && origin.termProgram != "vscode" && !origin.editorExecutable) return std::nullopt;
    const std::string executable = origin.editorExecutable.value_or("code");
    const EditorCommand* editor = editorNamed(executable);
    if (!editor) refuse("editor", executable);
    EditorFolder target{
        executable, absolutePath("project folder", origin.projectDir.value_or(session.cwd)), {}};
    // An id that would need escaping is left out of the link; the folder alone is still right.
    if (extension && !session.id.empty() && std::all_of(session.id.begin(), session.id.end(), isUnreserved))
        target.url = std::string(editor->urlScheme) + "://anthropic.claude-code/open?session=" + session.id;
    return target;
}

} // namespace

bool isDBusBusName(const std::string& name)
{
    if (name.empty() || name.size() > 255) return false;
    const bool unique = name.starts_with(':');
    const std::string_view body = std::string_view(name).substr(unique ? 1 : 0);
    std::size_t elements = 0;
    std::size_t start = 0;
    while (start <= body.size()) {
        const std::size_t dot = std::min(body.find('.', start), body.size());
        const std::string_view element = body.substr(start, dot - start);
        if (element.empty() || (!unique && isDigit(element.front()))) return false;
        if (!std::all_of(element.begin(), element.end(),
                         [](char c) { return isAlnum(c) || c == '_' || c == '-'; }))
            return false;
        ++elements;
        start = dot + 1;
    }
    return elements >= 2;
}

std::optional<Target> resolve(const Session& session)
{
    const Origin& origin = session.origin;
    if (origin.tmuxSocket && origin.tmuxPane) {
        const std::string& pane = *origin.tmuxPane;
        if (!pane.starts_with('%') || !isNumber(std::string_view(pane).substr(1))) refuse("tmux pane", pane);
        return TmuxPane{absolutePath("tmux socket", *origin.tmuxSocket), pane};
    }
    if (origin.kittyWindowId) {
        if (origin.kittyListenOn && !isListenAddress(*origin.kittyListenOn))
            refuse("kitty address", *origin.kittyListenOn);
        return KittyWindow{origin.kittyListenOn, number("kitty window", *origin.kittyWindowId)};
    }
    if (origin.weztermPane) {
        std::optional<std::string> socket;
        if (origin.weztermSocket) socket = absolutePath("WezTerm socket", *origin.weztermSocket);
        return WeztermPane{socket, number("WezTerm pane", *origin.weztermPane)};
    }
    if (origin.konsoleService && origin.konsoleSession) {
        if (!isDBusBusName(*origin.konsoleService)) refuse("Konsole service", *origin.konsoleService);
        KonsoleSession target{*origin.konsoleService,
                              objectNumber("Konsole session", *origin.konsoleSession, "/Sessions/"),
                              {},
                              {}};
        if (origin.konsoleWindow)
            target.window = objectNumber("Konsole window", *origin.konsoleWindow, "/Windows/");
        if (origin.x11Window) target.x11Window = windowId(*origin.x11Window);
        return target;
    }
    if (auto editor = editorTarget(session)) return editor;
    if (origin.x11Window) return X11Window{windowId(*origin.x11Window)};
    if (session.process) return X11Window{};
    return std::nullopt;
}

std::vector<std::vector<std::string>> tmuxCommands(const TmuxPane& target)
{
    return {
        {"tmux", "-S", target.socket, "select-window", "-t", target.pane},
        {"tmux", "-S", target.socket, "select-pane", "-t", target.pane},
        {"tmux", "-S", target.socket, "switch-client", "-t", target.pane},
    };
}

std::vector<std::string> kittyCommand(const KittyWindow& target)
{
    std::vector<std::string> command{"kitty", "@"};
    if (target.listenOn) command.insert(command.end(), {"--to", *target.listenOn});
    command.insert(command.end(), {"focus-window", "--match", "id:" + target.id});
    return command;
}

std::vector<std::string> weztermCommand(const WeztermPane& target)
{
    return {"wezterm", "cli", "activate-pane", "--pane-id", target.pane};
}

std::vector<std::string> editorCommand(const EditorFolder& target)
{
    return {target.executable, target.folder};
}

} // namespace skeldrin::linux_jump
