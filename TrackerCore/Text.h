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
// no overlong forms, no surrogates, nothing above U+10FFFF). Inline: the JSON scanner calls it for
// every non-ASCII character of megabytes of text.
inline std::size_t validSequenceLength(std::string_view bytes)
{
    if (bytes.empty()) return 0;
    const auto b0 = static_cast<unsigned char>(bytes[0]);
    if (b0 < 0x80) return 1;
    std::size_t length;
    unsigned char lo = 0x80, hi = 0xBF; // valid range of the second byte
    if (b0 >= 0xC2 && b0 <= 0xDF) {
        length = 2;
    } else if (b0 >= 0xE0 && b0 <= 0xEF) {
        length = 3;
        if (b0 == 0xE0) lo = 0xA0;
        if (b0 == 0xED) hi = 0x9F;
    } else if (b0 >= 0xF0 && b0 <= 0xF4) {
        length = 4;
        if (b0 == 0xF0) lo = 0x90;
        if (b0 == 0xF4) hi = 0x8F;
    } else {
        return 0;
    }
    if (bytes.size() < length) return 0;
    for (std::size_t i = 1; i < length; ++i) {
        const auto b = static_cast<unsigned char>(bytes[i]);
        if (b < (i == 1 ? lo : 0x80) || b > (i == 1 ? hi : 0xBF)) return 0;
    }
    return length;
}
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
