#include "TrackerCore/Origin.h"

#include "TrackerCore/Editor.h"

#include <algorithm>

namespace skeldrin {
namespace {

std::optional<std::string> variable(const Environment& environment, const char* name)
{
    const auto it = environment.find(name);
    if (it == environment.end()) return std::nullopt;
    return it->second;
}

std::optional<std::string> tmuxSocketOf(const Environment& environment)
{
    auto value = variable(environment, "TMUX");
    if (value) value->erase(std::min(value->find(','), value->size()));
    return value;
}

// Each optional field beside its JSON key, so that encoding and decoding cannot drift apart.
struct Field {
    const char* key;
    std::optional<std::string> Origin::*member;
};
constexpr Field fields[] = {
    {"entrypoint", &Origin::entrypoint},
    {"hostSessionId", &Origin::hostSessionId},
    {"termProgram", &Origin::termProgram},
    {"bundleId", &Origin::bundleId},
    {"tty", &Origin::tty},
    {"projectDir", &Origin::projectDir},
    {"tmuxSocket", &Origin::tmuxSocket},
    {"tmuxPane", &Origin::tmuxPane},
    {"kittyWindowId", &Origin::kittyWindowId},
    {"kittyListenOn", &Origin::kittyListenOn},
    {"weztermPane", &Origin::weztermPane},
    {"weztermSocket", &Origin::weztermSocket},
    {"konsoleService", &Origin::konsoleService},
    {"konsoleSession", &Origin::konsoleSession},
    {"konsoleWindow", &Origin::konsoleWindow},
    {"x11Window", &Origin::x11Window},
    {"editorExecutable", &Origin::editorExecutable},
};

void putOptional(Json& object, const char* key, const std::optional<std::string>& value)
{
    if (value) object[key] = *value;
}

} // namespace

Origin::Origin(const Environment& environment, std::optional<std::string> tty_)
    : entrypoint(variable(environment, "CLAUDE_CODE_ENTRYPOINT"))
    , hostSessionId(variable(environment, "CLAUDE_CODE_HOST_SESSION_ID"))
    , termProgram(variable(environment, "TERM_PROGRAM"))
    , bundleId(variable(environment, "__CFBundleIdentifier"))
    , tty(std::move(tty_))
    , projectDir(variable(environment, "CLAUDE_PROJECT_DIR"))
    , tmuxSocket(tmuxSocketOf(environment))
    , tmuxPane(variable(environment, "TMUX_PANE"))
    , kittyWindowId(variable(environment, "KITTY_WINDOW_ID"))
    , kittyListenOn(variable(environment, "KITTY_LISTEN_ON"))
    , weztermPane(variable(environment, "WEZTERM_PANE"))
    , weztermSocket(variable(environment, "WEZTERM_UNIX_SOCKET"))
    , konsoleService(variable(environment, "KONSOLE_DBUS_SERVICE"))
    , konsoleSession(variable(environment, "KONSOLE_DBUS_SESSION"))
    , konsoleWindow(variable(environment, "KONSOLE_DBUS_WINDOW"))
    , x11Window(variable(environment, "WINDOWID"))
{
}

bool Origin::isHeadless() const
{
    return entrypoint && entrypoint->starts_with("sdk-");
}

std::string Origin::appName() const
{
    if (entrypoint == "claude-desktop") return "Claude";
    if (entrypoint == "claude-vscode") return Editor(bundleId).name;
    if (!termProgram || *termProgram == "Apple_Terminal") return "Terminal";
    if (*termProgram == "iTerm.app") return "iTerm";
    if (*termProgram == "vscode") return Editor(bundleId).name;
    if (*termProgram == "WarpTerminal") return "Warp";
    if (*termProgram == "ghostty") return "Ghostty";
    if (*termProgram == "WezTerm") return "WezTerm";
    return *termProgram;
}

Json toJson(const Origin& origin)
{
    Json object = Json::object();
    for (const Field& field : fields)
        putOptional(object, field.key, origin.*field.member);
    return object;
}

Origin originFromJson(const Json& json)
{
    using namespace json_field;
    expectObject(json, "origin");
    Origin origin;
    for (const Field& field : fields)
        origin.*field.member = optionalString(json, field.key);
    return origin;
}

std::optional<std::string> editorExecutable(const std::vector<std::string>& ancestorExecutables)
{
    static const char* const editors[] = {"code",     "code-insiders", "code-oss", "cursor",
                                          "windsurf", "codium",        "vscodium"};
    for (const std::string& path : ancestorExecutables) {
        const std::string name = path.substr(path.rfind('/') + 1);
        for (const char* editor : editors)
            if (name == editor) return name;
    }
    return std::nullopt;
}

Json toJson(const ProcessRef& process)
{
    return Json{{"pid", process.pid}, {"startTime", process.startTime}};
}

ProcessRef processRefFromJson(const Json& json)
{
    using namespace json_field;
    expectObject(json, "process");
    const std::int64_t pid = requiredInt64(json, "pid");
    if (pid < INT32_MIN || pid > INT32_MAX) throw DecodingError("\"pid\" is not a 32-bit process id");
    return ProcessRef{static_cast<std::int32_t>(pid), requiredDouble(json, "startTime")};
}

} // namespace skeldrin
