#include "TrackerCore/Text.h"

#include "TrackerCore/UnicodeTables.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace skeldrin::text {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

bool inRanges(char32_t c, const unicode::CodePointRange* ranges, std::size_t count)
{
    const auto* end = ranges + count;
    const auto* it = std::upper_bound(ranges, end, c,
                                      [](char32_t value, const unicode::CodePointRange& r) { return value < r.first; });
    return it != ranges && c <= (it - 1)->last;
}

// Decodes one code point at pos, advancing pos past it; invalid input yields U+FFFD and skips the
// maximal invalid subpart (the lead byte and any continuation bytes that were still acceptable).
char32_t decodeOne(std::string_view s, std::size_t& pos)
{
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(s[i]); };
    const unsigned char b0 = byte(pos);
    if (b0 < 0x80) {
        ++pos;
        return b0;
    }
    std::size_t length;
    char32_t c;
    unsigned char lo = 0x80, hi = 0xBF; // valid range of the second byte
    if (b0 >= 0xC2 && b0 <= 0xDF) {
        length = 2;
        c = b0 & 0x1F;
    } else if (b0 >= 0xE0 && b0 <= 0xEF) {
        length = 3;
        c = b0 & 0x0F;
        if (b0 == 0xE0) lo = 0xA0;
        if (b0 == 0xED) hi = 0x9F;
    } else if (b0 >= 0xF0 && b0 <= 0xF4) {
        length = 4;
        c = b0 & 0x07;
        if (b0 == 0xF0) lo = 0x90;
        if (b0 == 0xF4) hi = 0x8F;
    } else {
        ++pos;
        return kReplacement;
    }
    std::size_t i = 1;
    for (; i < length; ++i) {
        if (pos + i >= s.size()) break;
        const unsigned char b = byte(pos + i);
        const unsigned char min = i == 1 ? lo : 0x80;
        const unsigned char max = i == 1 ? hi : 0xBF;
        if (b < min || b > max) break;
        c = (c << 6) | (b & 0x3F);
    }
    pos += i;
    return i == length ? c : kReplacement;
}

void appendUtf8(std::string& out, char32_t c)
{
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

// Byte offsets of the user-perceived characters' starts, plus the end.
std::vector<std::size_t> characterBoundaries(std::string_view utf8, std::size_t limit)
{
    std::vector<std::size_t> bounds;
    std::size_t pos = 0;
    bool joinNext = false;
    while (pos < utf8.size()) {
        const std::size_t start = pos;
        const char32_t c = decodeOne(utf8, pos);
        const bool extends = !bounds.empty() && (joinNext || isGraphemeExtender(c));
        // A carriage return and line feed are one character.
        const bool crlf = !bounds.empty() && c == U'\n' && start > 0 && utf8[start - 1] == '\r';
        if (!extends && !crlf) {
            if (bounds.size() == limit) return bounds.push_back(start), bounds;
            bounds.push_back(start);
        }
        joinNext = c == 0x200D;
    }
    bounds.push_back(utf8.size());
    return bounds;
}

} // namespace

std::u32string decodeUtf8(std::string_view utf8)
{
    std::u32string out;
    out.reserve(utf8.size());
    std::size_t pos = 0;
    while (pos < utf8.size()) out += decodeOne(utf8, pos);
    return out;
}

std::string encodeUtf8(std::u32string_view text)
{
    std::string out;
    out.reserve(text.size());
    for (const char32_t c : text) appendUtf8(out, c);
    return out;
}

std::string sanitizeUtf8(std::string_view bytes)
{
    std::string out;
    out.reserve(bytes.size());
    std::size_t pos = 0;
    while (pos < bytes.size()) {
        const std::size_t start = pos;
        const char32_t c = decodeOne(bytes, pos);
        if (c == kReplacement && !(pos - start == 3 && bytes.substr(start, 3) == "\xEF\xBF\xBD"))
            appendUtf8(out, kReplacement);
        else
            out.append(bytes.substr(start, pos - start));
    }
    return out;
}

bool isValidUtf8(std::string_view bytes)
{
    std::size_t pos = 0;
    while (pos < bytes.size()) {
        // Runs of ASCII are the common case: eight bytes at a time.
        while (bytes.size() - pos >= 8) {
            std::uint64_t word;
            std::memcpy(&word, bytes.data() + pos, 8);
            if (word & 0x8080808080808080ULL) break;
            pos += 8;
        }
        if (pos == bytes.size()) break;
        const std::size_t n = validSequenceLength(bytes.substr(pos));
        if (n == 0) return false;
        pos += n;
    }
    return true;
}

bool isAlphanumeric(char32_t c)
{
    if (c < 0x80) return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    return inRanges(c, unicode::kAlphanumeric, unicode::kAlphanumericCount);
}

bool isWhitespaceOrNewline(char32_t c)
{
    if (c < 0x80) return c == ' ' || (c >= 0x09 && c <= 0x0D);
    return inRanges(c, unicode::kWhitespace, unicode::kWhitespaceCount);
}

bool isLineBreak(char32_t c) { return (c >= 0x0A && c <= 0x0D) || c == 0x85 || c == 0x2028 || c == 0x2029; }

bool isGraphemeExtender(char32_t c)
{
    if (c < 0x300) return false;
    return inRanges(c, unicode::kGraphemeExtend, unicode::kGraphemeExtendCount);
}

std::string trimmed(std::string_view utf8)
{
    std::size_t first = utf8.size(), last = 0, pos = 0;
    while (pos < utf8.size()) {
        const std::size_t start = pos;
        if (!isWhitespaceOrNewline(decodeOne(utf8, pos))) {
            if (first == utf8.size()) first = start;
            last = pos;
        }
    }
    if (first == utf8.size()) return {};
    return std::string(utf8.substr(first, last - first));
}

std::vector<std::string> nonEmptyLines(std::string_view utf8)
{
    std::vector<std::string> lines;
    std::size_t lineStart = 0, pos = 0;
    while (pos < utf8.size()) {
        const std::size_t start = pos;
        if (isLineBreak(decodeOne(utf8, pos))) {
            if (start > lineStart) lines.emplace_back(utf8.substr(lineStart, start - lineStart));
            lineStart = pos;
        }
    }
    if (utf8.size() > lineStart) lines.emplace_back(utf8.substr(lineStart));
    return lines;
}

std::size_t characterCount(std::string_view utf8) { return characterBoundaries(utf8, SIZE_MAX).size() - 1; }

std::string characterPrefix(std::string_view utf8, std::size_t characters)
{
    const auto bounds = characterBoundaries(utf8, characters);
    if (bounds.size() <= characters) return std::string(utf8);
    return std::string(utf8.substr(0, bounds[characters]));
}

std::string lastPathComponent(std::string_view path)
{
    if (path.empty()) return {};
    std::size_t end = path.size();
    while (end > 1 && path[end - 1] == '/') --end;
    if (end == 1 && path[0] == '/') return "/";
    const std::size_t slash = path.substr(0, end).rfind('/');
    return std::string(path.substr(slash == std::string_view::npos ? 0 : slash + 1,
                                   slash == std::string_view::npos ? end : end - slash - 1));
}

} // namespace skeldrin::text
