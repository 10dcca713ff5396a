// Background work that the agent started and has not yet seen end, from the transcript tail's lines.
// Most lines are large tool results that matter to none of this, so every line is first tested on
// its raw bytes with plain substring searches, and JSON is decoded only for the few that pass.
#include "TrackerCore/JsonScan.h"
#include "TrackerCore/Text.h"
#include "TrackerCore/TranscriptJson.h"
#include "TrackerCore/TranscriptTail.h"

#include <re2/re2.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <map>

namespace skeldrin {
namespace {

using BackgroundTask = TranscriptTail::BackgroundTask;

// memmem: on tails of long tool results it is about twice as fast as the standard searchers.
bool contains(std::string_view haystack, std::string_view needle)
{
    return ::memmem(haystack.data(), haystack.size(), needle.data(), needle.size()) != nullptr;
}

// A line as text: its bytes when they are valid UTF-8, else a copy with the invalid sequences
// replaced. Made only for lines that get past the substring tests.
class LineText {
public:
    explicit LineText(std::string_view bytes)
        : bytes_(bytes)
    {
    }
    std::string_view get()
    {
        if (!checked_) {
            checked_ = true;
            if (!text::isValidUtf8(bytes_)) {
                repaired_ = text::sanitizeUtf8(bytes_);
                bytes_ = repaired_;
            }
        }
        return bytes_;
    }

private:
    std::string_view bytes_;
    std::string repaired_;
    bool checked_ = false;
};

// First-match search; capture group 1, or nothing (a failed search counts as no match).
std::optional<std::string> firstCapture(std::string_view text, const RE2& pattern)
{
    std::string captured;
    if (!RE2::PartialMatch(re2::StringPiece(text.data(), text.size()), pattern, &captured)) return std::nullopt;
    return captured;
}

// The patterns are fixed, so a compile error would be a bug here; quiet, it shows as no match.
RE2::Options quiet()
{
    RE2::Options options;
    options.set_log_errors(false);
    return options;
}

// A run of digits as a count, or nothing when it does not fit.
std::optional<std::int64_t> count(std::string_view digits)
{
    std::int64_t n = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), n);
    if (error != std::errc() || end != digits.data() + digits.size()) return std::nullopt;
    return n;
}

// start + n × unit, held to the last instant the dates' text form can write, so that an absurd
// stated expiry neither overflows nor makes an unwritable date.
Date later(Date start, std::int64_t n, std::chrono::microseconds unit)
{
    using namespace std::chrono;
    static const Date latest = Date{sys_days{year{9999} / December / 31}} + days{1} - microseconds{1};
    std::int64_t delta, sum;
    if (__builtin_mul_overflow(n, unit.count(), &delta) ||
        __builtin_add_overflow(start.time_since_epoch().count(), delta, &sum))
        return latest;
    return std::min(Date{microseconds{sum}}, latest);
}

// Text up to the first line break after any leading ones (U+000A..U+000D, U+0085, U+2028, U+2029).
std::string_view firstLine(std::string_view utf8)
{
    // Width in bytes of the line break at pos, or 0. The text came out of a JSON decoder, so it is
    // valid UTF-8 and these byte sequences can only be those characters.
    const auto breakAt = [&](std::size_t pos) -> std::size_t {
        const auto b = static_cast<unsigned char>(utf8[pos]);
        if (b >= 0x0A && b <= 0x0D) return 1;
        if (b == 0xC2 && pos + 1 < utf8.size() && static_cast<unsigned char>(utf8[pos + 1]) == 0x85) return 2;
        if (b == 0xE2 && pos + 2 < utf8.size() && utf8[pos + 1] == '\x80' &&
            (utf8[pos + 2] == '\xA8' || utf8[pos + 2] == '\xA9'))
            return 3;
        return 0;
    };
    std::size_t start = 0;
    while (start < utf8.size()) {
        const std::size_t width = breakAt(start);
        if (width == 0) break;
        start += width;
    }
    std::size_t end = start;
    while (end < utf8.size() && breakAt(end) == 0) ++end;
    return utf8.substr(start, end - start);
}

struct Input {
    std::optional<bool> runInBackground;
    std::optional<std::string> description, command, prompt, taskId;
};

struct Call {
    std::optional<std::string> type, id, name;
    std::optional<Input> input;
};

struct StartEntry {
    std::optional<std::string> type, timestamp;
    std::vector<Call> calls;
};

// Decodes the line as a start entry; throws DecodingError (or a JSON error) when it does not decode.
StartEntry decodeStartEntry(std::string_view text)
{
    static const std::vector<std::string_view> wanted{"type", "timestamp", "message"};
    const auto members = json_scan::members(text, wanted);
    StartEntry entry;
    entry.type = transcript_json::optionalString(members, "type");
    entry.timestamp = transcript_json::optionalString(members, "timestamp");
    const auto message = transcript_json::optionalObject(members, "message");
    if (!message) throw DecodingError("\"message\" is missing");
    if (entry.type != "assistant") return entry; // of no use whatever the rest holds

    const Json calls = Json::parse(*message);
    const auto content = calls.find("content");
    if (content == calls.end() || !content->is_array()) throw DecodingError("\"content\" is not an array");
    for (const Json& item : *content) {
        json_field::expectObject(item, "a call");
        Call call;
        call.type = json_field::optionalString(item, "type");
        call.id = json_field::optionalString(item, "id");
        call.name = json_field::optionalString(item, "name");
        const auto input = item.find("input");
        if (input != item.end() && !input->is_null()) {
            json_field::expectObject(*input, "\"input\"");
            call.input = Input{json_field::optionalBool(*input, "run_in_background"),
                               json_field::optionalString(*input, "description"),
                               json_field::optionalString(*input, "command"),
                               json_field::optionalString(*input, "prompt"),
                               json_field::optionalString(*input, "task_id")};
        }
        entry.calls.push_back(std::move(call));
    }
    return entry;
}

std::string taskTitle(const Input& input)
{
    for (const auto* field : {&input.description, &input.command, &input.prompt}) {
        if (!*field) continue;
        const std::string_view line = firstLine(**field);
        if (!line.empty()) return std::string(line);
    }
    return "Background task";
}

class Tracker {
public:
    void line(std::string_view bytes)
    {
        static constexpr std::string_view background = R"("run_in_background":true)", monitor = R"("name":"Monitor")",
                                          taskStop = R"("name":"TaskStop")", toolResult = R"("tool_result")",
                                          notification = "<task-notification>", status = "<status>",
                                          monitorExpired = "[Monitor expired", monitorTimedOut = "[Monitor timed out";

        // ASCII substrings survive the UTF-8 repair unchanged, so the raw bytes can be tested.
        LineText text(bytes);
        if (contains(bytes, background) || contains(bytes, monitor) || contains(bytes, taskStop)) {
            if (startLine(text.get())) return;
        }
        if (contains(bytes, toolResult)) {
            if (resultLine(text.get())) return;
        }
        if (contains(bytes, notification) &&
            (contains(bytes, status) || contains(bytes, monitorExpired) || contains(bytes, monitorTimedOut)))
            noticeLine(text.get());
    }

    std::vector<BackgroundTask> running() const
    {
        std::vector<BackgroundTask> tasks;
        tasks.reserve(open_.size());
        for (const auto& [id, task] : open_) tasks.push_back(task);
        std::stable_sort(tasks.begin(), tasks.end(),
                         [](const BackgroundTask& a, const BackgroundTask& b) { return a.startedAt < b.startedAt; });
        return tasks;
    }

private:
    // Whether the line was an assistant's start line (and so is done).
    bool startLine(std::string_view text)
    {
        StartEntry entry;
        try {
            entry = decodeStartEntry(text);
        } catch (const std::exception&) {
            return false;
        }
        if (entry.type != "assistant") return false;

        const Date startedAt = entry.timestamp ? parseIso8601(*entry.timestamp).value_or(distantPast()) : distantPast();
        for (const Call& call : entry.calls) {
            if (call.type != "tool_use" || !call.id || !call.input) continue;
            const Input& input = *call.input;
            if (call.name == "TaskStop") {
                // Only an announced task id stops anything; tool-use ids are never taken for one.
                if (!input.taskId) continue;
                if (const auto alias = aliases_.find(*input.taskId); alias != aliases_.end())
                    open_.erase(alias->second);
            } else if (input.runInBackground == true || call.name == "Monitor") {
                open_[*call.id] = BackgroundTask{*call.id, startedAt, taskTitle(input), std::nullopt};
            }
        }
        return true;
    }

    // Whether the line was the result of an open task (and so is done).
    bool resultLine(std::string_view text)
    {
        static const RE2 toolUseId(R"re("tool_use_id":"([^"]+)")re", quiet());
        static const RE2 announcedId(R"re((?:with ID: |agentId: |Monitor started \(task )([A-Za-z0-9]+))re", quiet());
        static const RE2 minutes(R"re(expires in (\d+)m)re", quiet());
        static const RE2 milliseconds(R"re(timeout (\d+)ms)re", quiet());

        const auto id = firstCapture(text, toolUseId);
        if (!id) return false;
        const auto task = open_.find(*id);
        if (task == open_.end()) return false;

        if (auto taskId = firstCapture(text, announcedId)) aliases_[std::move(*taskId)] = *id;
        // Counted from the start, not from when the result was written.
        BackgroundTask& started = task->second;
        const auto stated = [&](const RE2& pattern) {
            const auto digits = firstCapture(text, pattern);
            return digits ? count(*digits) : std::nullopt;
        };
        if (const auto n = stated(minutes))
            started.expiresAt = later(started.startedAt, *n, std::chrono::minutes{1});
        else if (const auto ms = stated(milliseconds))
            started.expiresAt = later(started.startedAt, *ms, std::chrono::milliseconds{1});
        return true;
    }

    void noticeLine(std::string_view text)
    {
        static const RE2 noticeToolUseId(R"re(<tool-use-id>([^<]+)</tool-use-id>)re", quiet());
        static const RE2 noticeTaskId(R"re(<task-id>([^<]+)</task-id>)re", quiet());
        static const std::vector<std::string_view> wanted{"type"};

        std::optional<std::string> type;
        try {
            type = transcript_json::optionalString(json_scan::members(text, wanted), "type");
        } catch (const std::exception&) {
            return;
        }
        // An assistant quoting a notification, or a logged request body, ends nothing.
        if (!type || *type == "assistant" || *type == "api-request-blob") return;

        if (const auto id = firstCapture(text, noticeToolUseId)) open_.erase(*id);
        if (const auto taskId = firstCapture(text, noticeTaskId)) {
            if (const auto alias = aliases_.find(*taskId); alias != aliases_.end()) open_.erase(alias->second);
        }
    }

    std::map<std::string, BackgroundTask> open_;    // by tool-use id
    std::map<std::string, std::string> aliases_;    // announced task id → tool-use id
};

} // namespace

std::vector<BackgroundTask> TranscriptTail::runningBackgroundTasksIn(const std::vector<std::string_view>& lines)
{
    Tracker tracker;
    for (const std::string_view line : lines) {
        try {
            tracker.line(line);
        } catch (const std::exception&) {
            // A line that cannot be read ends or starts nothing.
        }
    }
    return tracker.running();
}

} // namespace skeldrin
