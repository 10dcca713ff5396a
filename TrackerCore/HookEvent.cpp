#include "TrackerCore/HookEvent.h"

#include "TrackerCore/JsonScan.h"

namespace skeldrin {
namespace {

HookEvent::ToolInput toolInputFromJson(const Json& json)
{
    using namespace json_field;
    expectObject(json, "\"tool_input\"");
    HookEvent::ToolInput input;
    input.command = optionalString(json, "command");
    input.filePath = optionalString(json, "file_path");
    if (const auto it = json.find("questions"); it != json.end() && !it->is_null()) {
        if (!it->is_array()) throw DecodingError("\"questions\" is not an array");
        input.questions = std::vector<HookEvent::ToolInput::Question>(it->size());
    }
    return input;
}

} // namespace

HookEvent HookEvent::fromJson(const Json& json)
{
    using namespace json_field;
    expectObject(json, "the hook payload");
    HookEvent event;
    event.name = requiredString(json, "hook_event_name");
    event.sessionId = requiredString(json, "session_id");
    event.cwd = optionalString(json, "cwd");
    event.transcriptPath = optionalString(json, "transcript_path");
    event.source = optionalString(json, "source");
    event.prompt = optionalString(json, "prompt");
    event.sessionTitle = optionalString(json, "session_title");
    event.toolName = optionalString(json, "tool_name");
    event.toolUseId = optionalString(json, "tool_use_id");
    if (const auto it = json.find("tool_input"); it != json.end() && !it->is_null())
        event.toolInput = toolInputFromJson(*it);
    event.notificationType = optionalString(json, "notification_type");
    event.message = optionalString(json, "message");
    event.isInterrupt = optionalBool(json, "is_interrupt");
    event.reason = optionalString(json, "reason");
    return event;
}

namespace {

// Tool inputs and responses can make a payload many megabytes (a written file's text comes twice); it
// is checked in full, but only the members read here are kept, and of "tool_input" only three.
const std::vector<json_scan::Wanted>& keptMembers()
{
    static const std::vector<json_scan::Wanted> kept = {
        {"hook_event_name", {}},
        {"session_id", {}},
        {"cwd", {}},
        {"transcript_path", {}},
        {"source", {}},
        {"prompt", {}},
        {"session_title", {}},
        {"tool_name", {}},
        {"tool_use_id", {}},
        {"tool_input", {{"command", {}}, {"file_path", {}}, {"questions", {}}}},
        {"notification_type", {}},
        {"message", {}},
        {"is_interrupt", {}},
        {"reason", {}}};
    return kept;
}

std::optional<HookEvent::ToolInput> toolInputFrom(const json_scan::Member& member)
{
    if (member.raw == "null") return std::nullopt;
    if (member.raw != "{}") throw DecodingError("\"tool_input\" is not a JSON object");
    Json json = Json::object();
    for (const char* key : {"command", "file_path"})
        if (const auto it = member.members.find(key); it != member.members.end())
            json[key] = parseJson(it->second.raw);
    HookEvent::ToolInput input = toolInputFromJson(json);
    if (const auto it = member.members.find("questions");
        it != member.members.end() && it->second.raw != "null") {
        if (!it->second.raw.starts_with('[')) throw DecodingError("\"questions\" is not an array");
        input.questions = std::vector<HookEvent::ToolInput::Question>(it->second.elements);
    }
    return input;
}

HookEvent fromMembers(const std::map<std::string, json_scan::Member>& members)
{
    Json json = Json::object();
    for (const auto& [key, member] : members)
        if (key != "tool_input") json[key] = parseJson(member.raw);
    HookEvent event = HookEvent::fromJson(json);
    if (const auto it = members.find("tool_input"); it != members.end())
        event.toolInput = toolInputFrom(it->second);
    return event;
}

} // namespace

HookEvent HookEvent::decode(std::string_view payload)
{
    return fromMembers(json_scan::scan(payload, keptMembers()));
}

HookEvent HookEvent::read(const json_scan::Reader& reader)
{
    return fromMembers(json_scan::scan(reader, keptMembers()));
}

} // namespace skeldrin
