#include "TrackerCore/Json.h"
#include "TrackerCore/TranscriptTail.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

using namespace skeldrin;

namespace {

const std::string kTranscripts = SKELDRIN_FIXTURES "/transcripts/";

const auto at = [](const char* iso) { return parseIso8601(iso).value(); };

const auto userLine = [](const char* timestamp, const Json& content) {
    const Json message{{"role", "user"}, {"content", content}};
    return Json{{"type", "user"}, {"timestamp", timestamp}, {"message", message}}.dump() + "\n";
};

std::string assistantLine(const std::string& text)
{
    return R"({"type":"assistant","timestamp":"2026-03-14T10:00:00.000Z","message":{"content":[{"type":"text","text":")" +
           text + "\"}]}}\n";
}

const auto customTitle = [](std::string t) {
    return R"({"type":"custom-title","customTitle":")" + t + "\"}\n";
};
const auto aiTitle = [](std::string t) { return R"({"type":"ai-title","aiTitle":")" + t + "\"}\n"; };

const char* const kStamp = "2026-03-14T10:02:31.118Z";

} // namespace

TEST(TranscriptTail, FixturesGiveTheirTitleTasksAndInterruptAndTheNewestCustomTitleWins)
{
    const auto interrupted = TranscriptTail::read(kTranscripts + "interrupted-turn.jsonl", 1 << 20);
    EXPECT_EQ(interrupted.interruptedAt, at(kStamp));
    EXPECT_EQ(interrupted.title, "Staging migration run");
    EXPECT_EQ(TranscriptTail::read(kTranscripts + "background-work.jsonl", 1 << 20).runningBackgroundTasks,
              (std::vector<TranscriptTail::BackgroundTask>{
                  {"toolu_01Audit5Fg8Hj2Kl4Mn6Pq", at("2026-03-14T11:00:06.250Z"), "Audit dependencies",
                   std::nullopt},
                  {"toolu_01Watch3Zx7Cv9Bn1Mq5Ws", at("2026-03-14T11:00:08.000Z"),
                   "Watch build log for errors", at("2026-03-14T11:10:08.000Z")}}));

    // The newest custom title wins over every AI title.
    const std::pair<std::string, std::optional<std::string>> cases[] = {
        {aiTitle("Older") + aiTitle("Newest") + assistantLine("hi"), "Newest"},
        {customTitle("Mine") + aiTitle("Generated"), "Mine"},
        // A title line without its title, or with one of the wrong kind, lets the search go on.
        {customTitle("Kept") + "{\"type\":\"custom-title\"}\n" + userLine(kStamp, "go"), "Kept"},
        // An empty custom title is still the user's choice.
        {aiTitle("Generated") + customTitle(""), ""},
    };
    for (const auto& [bytes, title] : cases)
        EXPECT_EQ(TranscriptTail::parse(bytes).title, title) << bytes;
}

TEST(TranscriptTail, OnlyTheLastBytesAreRead)
{
    // Only the last bytes of the file are read.
    const std::string path = kTranscripts + "titled-session.jsonl", data = test::readText(path);
    EXPECT_EQ(TranscriptTail::read(path, 524288), TranscriptTail::parse(data));
    // Start inside a three-byte character of the listing, the first of "✓".
    const std::size_t check = data.find("\xE2\x9C\x93");
    ASSERT_NE(check, std::string::npos);
    const auto tail = TranscriptTail::read(path, static_cast<std::int64_t>(data.size() - check - 1));
    EXPECT_EQ(tail, TranscriptTail::parse(std::string_view(data).substr(check + 1)));
    EXPECT_THROW(TranscriptTail::read(path + ".missing", 1024), std::filesystem::filesystem_error);
}

TEST(TranscriptTail, AnInterruptCountsOnlyAsTheNewestTurnOfADatedUserLine)
{
    const char* marker = "[Request interrupted by user]";
    const std::string interrupt = userLine(kStamp, "[Request interrupted by user] and then some more words");
    const std::pair<std::string, bool> interrupts[] = {
        {interrupt, true},
        // Lines that are not turns never settle it; any newer turn line makes the interrupt history.
        {interrupt + aiTitle("t") + customTitle("c") + "{\"type\":\"system\"}\n", true},
        {interrupt + assistantLine("ok") + customTitle("c"), false},
        // The marker must start a text of a user line, as written.
        {userLine(kStamp,
                  Json::array({{{"type", "tool_result"}, {"tool_use_id", "toolu_1"}, {"content", "rejected"}},
                               {{"type", "image"}},
                               {{"type", "text"}, {"text", "[Request interrupted by user for tool use]"}}})),
         true},
        {userLine(kStamp, " [Request interrupted by user]"), false},
        {assistantLine(marker), false},
        // A block list that would not decode gives no texts.
        {userLine(kStamp, Json::array({7, {{"type", "text"}, {"text", marker}}})), false},
        // Escapes are compared as what they decode to, and of two "content" members the later counts.
        {R"({"type":"user","timestamp":"2026-03-14T10:02:31.118Z","message":{"content":"\u005bRequest\u0020interrupted by user]"}})",
         true},
        {R"({"type":"user","timestamp":"2026-03-14T10:02:31.118Z","message":{"content":"x","content":"[Request interrupted by user]"}})",
         true},
        // Undated or badly dated: not reported, but the turn is settled all the same.
        {userLine(kStamp, marker) + userLine("yesterday", marker), false},
        // Unknown keys and odd values elsewhere do not keep a line from being the newest turn.
        {interrupt + "{\"type\":\"assistant\",\"message\":null}\r\n", false},
        // Lines that fail to decode as a whole leave the interrupt before them the newest turn.
        {interrupt + std::string(100000, '[') + "\n\n", true},
    };
    for (const auto& [bytes, expected] : interrupts)
        EXPECT_EQ(TranscriptTail::parse(bytes).interruptedAt,
                  expected ? std::optional(at(kStamp)) : std::nullopt)
            << bytes;
}
