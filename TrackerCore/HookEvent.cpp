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

HookEvent HookEvent::decode(std::string_view payload)
{
    // Tool results can make a payload many megabytes; it is checked in full, but only the members
    // read here are built as JSON values.
    static const std::vector<std::string_view> kept = {
        "hook_event_name", "session_id", "cwd", "transcript_path", "source", "prompt", "session_title",
        "tool_name", "tool_use_id", "tool_input", "notification_type", "message", "is_interrupt", "reason"};
    Json json = Json::object();
    for (const auto& [key, raw] : json_scan::members(payload, kept)) json[key] = Json::parse(raw);
    return fromJson(json);
}

} // namespace skeldrin
