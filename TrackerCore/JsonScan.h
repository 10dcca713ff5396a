#pragma once
// A strict JSON validator that keeps only chosen members of a top-level object, as raw text. Hook
// payloads carry whole tool outputs (many megabytes) that nothing here uses; checking them this way
// is many times faster than building them as values.
#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace skeldrin::json_scan {

// The raw JSON text of each wanted member of the object in text (a later duplicate wins). Throws
// DecodingError when text is not exactly one valid JSON value (RFC 8259, UTF-8) or is not an object.
std::map<std::string, std::string_view> members(std::string_view text,
                                                const std::vector<std::string_view>& wanted);

// A member to keep, and the members to keep inside it when it is an object (then it is not kept whole).
struct Wanted {
    std::string_view name;
    std::vector<Wanted> members;
};

struct Member {
    std::string raw;                       // its JSON text; "{}" for an object scanned for inner members
    std::size_t elements = 0;              // its number of elements, when it is an array
    std::map<std::string, Member> members; // the wanted members inside it
    bool operator==(const Member&) const = default;
};

// Fills buffer with up to capacity bytes of the document and returns how many; 0 at its end.
using Reader = std::function<std::size_t(char* buffer, std::size_t capacity)>;

// As members(), with nested wanted members, over a whole text or over a document read piece by piece
// through a small buffer: nothing but the kept members is ever held in memory.
std::map<std::string, Member> scan(std::string_view text, const std::vector<Wanted>& wanted);
std::map<std::string, Member> scan(const Reader& read, const std::vector<Wanted>& wanted);

} // namespace skeldrin::json_scan
