#pragma once
// Unicode-aware text helpers over UTF-8 std::string, without a platform text library.
#include <string>
#include <string_view>
#include <vector>

namespace skeldrin::text {

// Decodes UTF-8; invalid sequences become U+FFFD (one per maximal invalid subpart).
std::u32string decodeUtf8(std::string_view utf8);
std::string encodeUtf8(std::u32string_view text);
// Replaces invalid UTF-8 sequences with U+FFFD.
std::string sanitizeUtf8(std::string_view bytes);
// The length (1 to 4) of the well-formed UTF-8 sequence that bytes starts with, or 0 (RFC 3629:
// no overlong forms, no surrogates, nothing above U+10FFFF).
std::size_t validSequenceLength(std::string_view bytes);
bool isValidUtf8(std::string_view bytes);

bool isAlphanumeric(char32_t c);         // letters, marks, digits
bool isWhitespaceOrNewline(char32_t c);  // Z*, tab..carriage return, U+0085
bool isLineBreak(char32_t c);            // U+000A..U+000D, U+0085, U+2028, U+2029
bool isGraphemeExtender(char32_t c);

// Trims whitespace and newlines at both ends.
std::string trimmed(std::string_view utf8);

// Splits at every line break, dropping empty pieces.
std::vector<std::string> nonEmptyLines(std::string_view utf8);

// User-perceived characters: a base code point with the extenders that follow it.
std::size_t characterCount(std::string_view utf8);
std::string characterPrefix(std::string_view utf8, std::size_t characters);

// The last path component as a file URL would give it ("/a/b/" gives "b", "/" gives "/").
std::string lastPathComponent(std::string_view path);

} // namespace skeldrin::text
