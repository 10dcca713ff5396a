#include "TrackerCore/Origin.h"

#include "TrackerCore/Editor.h"

namespace skeldrin {
namespace {

std::optional<std::string> variable(const Environment& environment, const char* name)
{
    const auto it = environment.find(name);
    if (it == environment.end()) return std::nullopt;
    return it->second;
}

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
{
}

bool Origin::isHeadless() const { return entrypoint && entrypoint->starts_with("sdk-"); }

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
    putOptional(object, "entrypoint", origin.entrypoint);
    putOptional(object, "hostSessionId", origin.hostSessionId);
    putOptional(object, "termProgram", origin.termProgram);
    putOptional(object, "bundleId", origin.bundleId);
    putOptional(object, "tty", origin.tty);
    putOptional(object, "projectDir", origin.projectDir);
    return object;
}

Origin originFromJson(const Json& json)
{
    using namespace json_field;
    expectObject(json, "origin");
    Origin origin;
    origin.entrypoint = optionalString(json, "entrypoint");
    origin.hostSessionId = optionalString(json, "hostSessionId");
    origin.termProgram = optionalString(json, "termProgram");
    origin.bundleId = optionalString(json, "bundleId");
    origin.tty = optionalString(json, "tty");
    origin.projectDir = optionalString(json, "projectDir");
    return origin;
}

Json toJson(const ProcessRef& process) { return Json{{"pid", process.pid}, {"startTime", process.startTime}}; }

ProcessRef processRefFromJson(const Json& json)
{
    using namespace json_field;
    expectObject(json, "process");
    const std::int64_t pid = requiredInt64(json, "pid");
    if (pid < INT32_MIN || pid > INT32_MAX) throw DecodingError("\"pid\" is not a 32-bit process id");
    return ProcessRef{static_cast<std::int32_t>(pid), requiredDouble(json, "startTime")};
}

} // namespace skeldrin
