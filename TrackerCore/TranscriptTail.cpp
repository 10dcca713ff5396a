#include "TrackerCore/TranscriptTail.h"

#include "TrackerCore/Files.h"
#include "TrackerCore/JsonScan.h"
#include "TrackerCore/TranscriptJson.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace skeldrin {
namespace {

using transcript_json::optionalObject;
using transcript_json::optionalString;

constexpr std::string_view kInterruptMarker = "[Request interrupted by user";

// Lines at every line feed, empty ones dropped.
std::vector<std::string_view> splitLines(std::string_view bytes)
{
    std::vector<std::string_view> lines;
    const char* p = bytes.data();
    const char* const end = p + bytes.size();
    while (p < end) {
        const auto* feed = static_cast<const char*>(std::memchr(p, '\n', static_cast<std::size_t>(end - p)));
        const char* lineEnd = feed ? feed : end;
        if (lineEnd > p) lines.emplace_back(p, static_cast<std::size_t>(lineEnd - p));
        p = lineEnd + 1;
    }
    return lines;
}

// A small walker over text that json_scan has already validated, so it only has to find where
// values end. Messages can hold tool results of hundreds of kilobytes; walking them this way costs
// a memchr per string instead of building them as values.
namespace valid_json {

std::size_t skipSpace(std::string_view json, std::size_t pos)
{
    while (pos < json.size() && (json[pos] == ' ' || json[pos] == '\t' || json[pos] == '\n' || json[pos] == '\r'))
        ++pos;
    return pos;
}

// pos at an opening quote; returns the position after the closing one.
std::size_t skipString(std::string_view json, std::size_t pos)
{
    ++pos;
    for (;;) {
        const auto* quote = static_cast<const char*>(std::memchr(json.data() + pos, '"', json.size() - pos));
        std::size_t at = static_cast<std::size_t>(quote - json.data());
        std::size_t backslashes = 0;
        while (json[at - 1 - backslashes] == '\\') ++backslashes;
        if (backslashes % 2 == 0) return at + 1;
        pos = at + 1;
    }
}

std::size_t skipValue(std::string_view json, std::size_t pos)
{
    const char first = json[pos];
    if (first == '"') return skipString(json, pos);
    if (first == '{' || first == '[') {
        int depth = 0;
        for (;;) {
            const char c = json[pos];
            if (c == '"') {
                pos = skipString(json, pos);
                continue;
            }
            if (c == '{' || c == '[') ++depth;
            if ((c == '}' || c == ']') && --depth == 0) return pos + 1;
            ++pos;
        }
    }
    while (pos < json.size() && json[pos] != ',' && json[pos] != ']' && json[pos] != '}' && json[pos] != ' ' &&
           json[pos] != '\t' && json[pos] != '\n' && json[pos] != '\r')
        ++pos;
    return pos;
}

// Calls visit(rawKey, rawValue) for each member of an object, or visit(rawElement) for each element of an array.
template <typename Visit>
void forEachItem(std::string_view container, bool isObject, Visit&& visit)
{
    std::size_t pos = skipSpace(container, 1);
    if (container[pos] == '}' || container[pos] == ']') return;
    for (;;) {
        std::string_view key;
        if (isObject) {
            const std::size_t keyEnd = skipString(container, pos);
            key = container.substr(pos, keyEnd - pos);
            pos = skipSpace(container, skipSpace(container, keyEnd) + 1); // past the colon
        }
        const std::size_t valueEnd = skipValue(container, pos);
        const std::string_view value = container.substr(pos, valueEnd - pos);
        if constexpr (std::is_invocable_v<Visit, std::string_view, std::string_view>)
            visit(key, value);
        else
            visit(value);
        pos = skipSpace(container, valueEnd);
        if (container[pos] != ',') return;
        pos = skipSpace(container, pos + 1);
    }
}

bool keyIs(std::string_view rawKey, std::string_view name)
{
    if (rawKey.find('\\') == std::string_view::npos) return rawKey.substr(1, rawKey.size() - 2) == name;
    return Json::parse(rawKey).get<std::string>() == name;
}

// The raw value of an object's member (a later duplicate wins, as in a full parse).
std::optional<std::string_view> member(std::string_view object, std::string_view name)
{
    std::optional<std::string_view> found;
    forEachItem(object, true, [&](std::string_view key, std::string_view value) {
        if (keyIs(key, name)) found = value;
    });
    return found;
}

std::uint32_t hex4(std::string_view digits)
{
    std::uint32_t v = 0;
    for (const char c : digits.substr(0, 4))
        v = v * 16 + static_cast<std::uint32_t>(c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10);
    return v;
}

// Whether the string a raw JSON string token holds begins with an ASCII prefix. Decodes only as far
// as the prefix reaches.
bool stringStartsWith(std::string_view rawString, std::string_view asciiPrefix)
{
    std::size_t pos = 1;
    for (const char wanted : asciiPrefix) {
        char c = rawString[pos];
        if (c == '"') return false; // the string ended first
        if (c != '\\') {
            ++pos;
        } else {
            const char escape = rawString[pos + 1];
            pos += 2;
            switch (escape) {
            case 'b': c = '\b'; break;
            case 'f': c = '\f'; break;
            case 'n': c = '\n'; break;
            case 'r': c = '\r'; break;
            case 't': c = '\t'; break;
            case 'u': {
                const std::uint32_t unit = hex4(rawString.substr(pos));
                if (unit >= 0x80) return false; // not ASCII, so not the prefix
                c = static_cast<char>(unit);
                pos += 4;
                break;
            }
            default: c = escape; break; // \" \\ \/
            }
        }
        if (c != wanted) return false;
    }
    return true;
}

} // namespace valid_json

// The texts of a message object, as raw JSON strings: its "content" when that is a string, else the
// "text" of each block of a content array. Any other content, or a block list that would not decode
// (a block that is not an object, a "text" that is not a string), gives no texts.
std::vector<std::string_view> messageTexts(std::string_view message)
{
    const auto content = valid_json::member(message, "content");
    if (!content) return {};
    if (content->front() == '"') return {*content};
    if (content->front() != '[') return {};
    std::vector<std::string_view> texts;
    bool decodes = true;
    valid_json::forEachItem(*content, false, [&](std::string_view block) {
        if (!decodes) return;
        if (block.front() != '{') {
            decodes = false;
            return;
        }
        const auto text = valid_json::member(block, "text");
        if (!text || *text == "null") return;
        if (text->front() != '"') decodes = false;
        else texts.push_back(*text);
    });
    return decodes ? texts : std::vector<std::string_view>{};
}

bool reportsInterrupt(std::string_view message)
{
    for (const std::string_view text : messageTexts(message))
        if (valid_json::stringStartsWith(text, kInterruptMarker)) return true;
    return false;
}

struct Walk {
    std::optional<std::string> customTitle, aiTitle;
    bool turnSettled = false;
    std::optional<Date> interruptedAt;
};

// One line of the newest-first walk. Throws when the line does not decode.
void visit(std::string_view line, Walk& walk)
{
    static const std::vector<std::string_view> wanted{"type", "timestamp", "customTitle", "aiTitle", "message"};
    const auto members = json_scan::members(line, wanted);
    // Every member is checked before any is used: one of the wrong kind fails the whole line.
    const auto type = optionalString(members, "type");
    const auto timestamp = optionalString(members, "timestamp");
    auto customTitle = optionalString(members, "customTitle");
    auto aiTitle = optionalString(members, "aiTitle");
    const auto message = optionalObject(members, "message");
    if (!type) return;

    if (*type == "custom-title" && !walk.customTitle) {
        walk.customTitle = std::move(customTitle);
    } else if (*type == "ai-title" && !walk.aiTitle) {
        walk.aiTitle = std::move(aiTitle);
    } else if ((*type == "user" || *type == "assistant") && !walk.turnSettled) {
        // Only the newest user-or-assistant line decides: an older interrupt is history.
        walk.turnSettled = true;
        if (*type == "user" && message && reportsInterrupt(*message) && timestamp)
            walk.interruptedAt = parseIso8601(*timestamp);
    }
}

} // namespace

TranscriptTail TranscriptTail::read(const std::filesystem::path& path, std::int64_t maxBytes)
{
    if (maxBytes < 0) std::abort(); // a caller's bug, not a condition of the file

    files::Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.fd < 0) files::throwFileError("cannot open transcript", path, errno);
    struct stat info {};
    if (::fstat(file.fd, &info) != 0) files::throwFileError("cannot read transcript", path, errno);

    const std::int64_t size = info.st_size;
    const std::int64_t start = size > maxBytes ? size - maxBytes : 0;
    // Up to the size seen now: a transcript growing meanwhile must not push the read past the budget.
    std::string bytes(static_cast<std::size_t>(size - start), '\0');
    std::size_t filled = 0;
    while (filled < bytes.size()) {
        const ssize_t n = ::pread(file.fd, bytes.data() + filled, bytes.size() - filled,
                                  static_cast<off_t>(start + static_cast<std::int64_t>(filled)));
        if (n < 0) {
            if (errno == EINTR) continue;
            files::throwFileError("cannot read transcript", path, errno);
        }
        if (n == 0) break; // truncated meanwhile
        filled += static_cast<std::size_t>(n);
    }
    bytes.resize(filled);
    return parse(bytes);
}

TranscriptTail TranscriptTail::parse(std::string_view bytes)
{
    const std::vector<std::string_view> lines = splitLines(bytes);

    Walk walk;
    for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
        // An AI title alone never ends the walk: an older custom title would still win over it.
        if (walk.customTitle && walk.turnSettled) break;
        try {
            visit(*line, walk);
        } catch (const std::exception&) {
            // Not a line this reader understands (or the cut first line of the tail): skipped.
        }
    }

    TranscriptTail tail;
    tail.title = walk.customTitle ? std::move(walk.customTitle) : std::move(walk.aiTitle);
    tail.interruptedAt = walk.interruptedAt;
    tail.runningBackgroundTasks = runningBackgroundTasksIn(lines);
    return tail;
}

} // namespace skeldrin
