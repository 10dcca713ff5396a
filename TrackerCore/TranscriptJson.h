#pragma once
// Internal to the transcript readers: typed access to the members that json_scan::members found in
// a transcript line. The scan has already checked the whole line, so the raw texts are valid JSON.
#include "TrackerCore/Json.h"

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace skeldrin::transcript_json {

using Members = std::map<std::string, std::string_view>;

// Absent or null gives nothing; a value of another kind throws DecodingError, failing the line as a
// typed decoder would.
inline std::optional<std::string> optionalString(const Members& members, const std::string& key)
{
    const auto it = members.find(key);
    if (it == members.end() || it->second == "null") return std::nullopt;
    const std::string_view raw = it->second;
    if (raw.front() != '"') throw DecodingError("\"" + key + "\" is not a string");
    if (raw.find('\\') == std::string_view::npos) return std::string(raw.substr(1, raw.size() - 2));
    return Json::parse(raw).get<std::string>();
}

// The raw text of an object member: nothing when absent or null; another kind throws DecodingError.
inline std::optional<std::string_view> optionalObject(const Members& members, const std::string& key)
{
    const auto it = members.find(key);
    if (it == members.end() || it->second == "null") return std::nullopt;
    if (it->second.front() != '{') throw DecodingError("\"" + key + "\" is not an object");
    return it->second;
}

} // namespace skeldrin::transcript_json
