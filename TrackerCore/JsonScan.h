#pragma once
// A strict JSON validator that keeps only chosen members of a top-level object, as raw text. Hook
// payloads carry whole tool outputs (many megabytes) that nothing here uses; checking them this way
// is many times faster than building them as values.
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace skeldrin::json_scan {

// The raw JSON text of each wanted member of the object in text (a later duplicate wins). Throws
// DecodingError when text is not exactly one valid JSON value (RFC 8259, UTF-8) or is not an object.
std::map<std::string, std::string_view> members(std::string_view text, const std::vector<std::string_view>& wanted);

} // namespace skeldrin::json_scan
