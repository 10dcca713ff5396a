#include "TrackerCore/Json.h"
#include "TrackerCore/TranscriptTail.h"
#include "support/TempDir.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

using namespace skeldrin;
using namespace std::string_literals;

namespace {

std::string fixture(const std::string& name)
{
    const std::string data = test::readText(std::string(SKELDRIN_FIXTURES) + "/transcripts/" + name);
    if (data.empty()) throw std::runtime_error("missing fixture " + name);
    return data;
}

Date at(const char* iso) { return parseIso8601(iso).value(); }

std::string userLine(const char* timestamp, const Json& content)
{
    Json line{{"type", "user"}, {"message", {{"role", "user"}, {"content", content}}}};
    if (timestamp) line["timestamp"] = timestamp;
    return line.dump() + "\n";
}

std::string assistantLine(const char* text)
{
    return Json{{"type", "assistant"},
                {"timestamp", "2026-03-14T10:00:00.000Z"},
                {"message", {{"role", "assistant"}, {"content", Json::array({{{"type", "text"}, {"text", text}}})}}}}
               .dump() +
           "\n";
}

std::string titleLine(const char* type, const char* key, const char* title)
{
    Json line{{"type", type}};
    if (title) line[key] = title;
    return line.dump() + "\n";
}
std::string customTitle(const char* title) { return titleLine("custom-title", "customTitle", title); }
std::string aiTitle(const char* title) { return titleLine("ai-title", "aiTitle", title); }

const char* const kStamp = "2026-03-14T10:02:31.118Z";

} // namespace

TEST(TranscriptTail, FixturesGiveTheirTitleAndInterrupt)
{
    const auto titled = TranscriptTail::parse(fixture("titled-session.jsonl"));
    EXPECT_EQ(titled.title, "Ledger CSV importer");
    EXPECT_EQ(titled.interruptedAt, std::nullopt);
    EXPECT_TRUE(titled.runningBackgroundTasks.empty());
    const auto interrupted = TranscriptTail::parse(fixture("interrupted-turn.jsonl"));
    EXPECT_EQ(interrupted.interruptedAt, at(kStamp));
    EXPECT_EQ(interrupted.title, "Staging migration run");
}

TEST(TranscriptTail, NewestCustomTitleWinsOverEveryAiTitle)
{
    const std::pair<std::string, std::optional<std::string>> cases[] = {
        {aiTitle("Older") + aiTitle("Newest") + assistantLine("hi"), "Newest"},
        {customTitle("Mine") + aiTitle("Generated"), "Mine"},
        {assistantLine("no titles"), std::nullopt},
        // A title line without its title, or with one of the wrong kind, lets the search go on.
        {customTitle("Kept") + customTitle(nullptr) + userLine(kStamp, "go"), "Kept"},
        {aiTitle("Kept") + aiTitle(nullptr), "Kept"},
        {customTitle("Kept") + R"({"type":"custom-title","customTitle":42})"
                               "\n",
         "Kept"},
        // An empty custom title is still the user's choice.
        {aiTitle("Generated") + customTitle(""), ""},
    };
    for (const auto& [bytes, title] : cases)
        EXPECT_EQ(TranscriptTail::parse(bytes).title, title) << bytes;
}

TEST(TranscriptTail, InterruptCountsOnlyAsTheNewestTurnOfADatedUserLine)
{
    const char* marker = "[Request interrupted by user]";
    const std::string interrupt = userLine(kStamp, "[Request interrupted by user] and then some more words");
    const auto withContent = [](const char* content) {
        return std::string(R"({"type":"user","timestamp":")") + kStamp + R"(","message":{"content":)" +
               content + "}}";
    };
    const std::pair<std::string, bool> cases[] = {
        {interrupt, true},
        // Lines that are not turns never settle it; any newer turn line makes the interrupt history.
        {interrupt + aiTitle("t") + customTitle("c") +
             R"({"type":"system"})"
             "\n",
         true},
        {interrupt + assistantLine("Resuming"), false},
        {interrupt + userLine(kStamp, "carry on"), false},
        {interrupt + assistantLine("ok") + customTitle("c"), false},
        // The marker must start a text of a user line, as written.
        {userLine(kStamp,
                  Json::array({{{"type", "tool_result"}, {"tool_use_id", "toolu_1"}, {"content", "rejected"}},
                               {{"type", "image"}},
                               {{"type", "text"}, {"text", "[Request interrupted by user for tool use]"}}})),
         true},
        {userLine(kStamp, " [Request interrupted by user]"), false},
        {userLine(kStamp, "[request interrupted by user]"), false},
        {userLine(kStamp, "[Request interrupted"), false},
        {assistantLine(marker), false},
        // A block list that would not decode gives no texts; a null text is no text.
        {userLine(kStamp, Json::array({7, {{"type", "text"}, {"text", marker}}})), false},
        {userLine(kStamp, Json::array({{{"type", "text"}, {"text", marker}}, 7})), false},
        {userLine(kStamp,
                  Json::array({{{"type", "text"}, {"text", 3}}, {{"type", "text"}, {"text", marker}}})),
         false},
        {userLine(kStamp,
                  Json::array({{{"type", "text"}, {"text", nullptr}}, {{"type", "text"}, {"text", marker}}})),
         true},
        {userLine(kStamp, Json::array({marker})), false},
        {withContent(R"({"text":"[Request interrupted by user]"})"), false},
        // Escapes are compared as what they decode to, and of two "content" members the later counts.
        {withContent(R"("\u005bRequest\u0020interrupted by user]")"), true},
        {withContent(R"("\u005B\u0052\u0065quest interrupted by user]")"), true},
        {withContent(R"("\u005bRequest\u00a0interrupted by user]")"), false},
        {withContent(R"("x","content":"[Request interrupted by user]")"), true},
        // Undated or badly dated: not reported, but the turn is settled all the same.
        {userLine(nullptr, marker), false},
        {userLine("2026-03-14T10:02:31Z", marker), false},
        {userLine("yesterday", marker), false},
        {userLine(kStamp, marker) + userLine(nullptr, marker), false},
        // Unknown keys and odd values elsewhere do not keep a line from being the newest turn.
        {interrupt + R"({"type":"assistant","id":3,"message":{"content":5}})"
                     "\n",
         false},
        {interrupt + R"({"type":"assistant","message":null})"
                     "\r\n",
         false},
    };
    for (const auto& [bytes, interrupted] : cases)
        EXPECT_EQ(TranscriptTail::parse(bytes).interruptedAt,
                  interrupted ? std::optional(at(kStamp)) : std::nullopt)
            << bytes;

    // Each of these fails to decode as a whole, so the interrupt before it is still the newest turn.
    const std::string failing[] = {
        R"({"type":7,"message":{"content":"x"}})",
        R"({"type":"user","message":"not an object"})",
        R"({"type":"assistant","timestamp":7})",
        R"({"type":"assistant","customTitle":["a"]})",
        R"({"type":"user","aiTitle":{}})",
        R"(["type","assistant"])",
        R"({"type":"assistant")",
        R"({"type":"assistant"}{"type":"assistant"})",
        "{\"type\":\"assistant\",\"message\":{\"content\":\"bad \xff byte\"}}",
        "\x00\x01\x02\xfe\xff garbage \xc3"s,
        R"({"message":{"content":"no type"}})",
        R"({"type":null})",
    };
    for (const std::string& line : failing)
        EXPECT_EQ(TranscriptTail::parse(interrupt + line + "\n").interruptedAt, at(kStamp)) << line;
}

TEST(TranscriptTail, SurvivesHugeAndHostileInput)
{
    const std::string huge(2 << 20, 'x');
    std::string binary(4096, '\0');
    for (std::size_t i = 0; i < binary.size(); ++i) binary[i] = static_cast<char>((i * 7919) % 251 + 1);
    const std::string bytes = customTitle("Survivor") + huge + "\n" +
                              userLine(kStamp, Json::array({{{"type", "tool_result"}, {"content", huge}}})) +
                              binary + "\n{\"type\":\"user\",\"message\":{\"content\":\"" + huge + "\n" +
                              std::string(100000, '[') + "\n\n\n\n";
    const auto tail = TranscriptTail::parse(bytes);
    EXPECT_EQ(tail.title, "Survivor");
    EXPECT_EQ(tail.interruptedAt, std::nullopt);
    EXPECT_EQ(TranscriptTail::parse(""), TranscriptTail{});
    EXPECT_EQ(TranscriptTail::parse("\n\n\n"), TranscriptTail{});
}

TEST(TranscriptTail, ATailCutAnywhereLosesOnlyItsFirstLine)
{
    const std::string whole = fixture("titled-session.jsonl");
    const auto expected = TranscriptTail::parse(whole);
    // Cut at every offset inside the tool result's listing, which has multi-byte characters.
    const std::size_t listing = whole.find("toolu_01QmV7oJ1bXr3kGdZp8sTaYw\",\"type\":\"tool_result\"");
    ASSERT_NE(listing, std::string::npos);
    for (std::size_t cut = listing; cut < listing + 300; ++cut)
        ASSERT_EQ(TranscriptTail::parse(std::string_view(whole).substr(cut)), expected) << "cut at " << cut;
}

TEST(TranscriptTail, ReadsOnlyTheLastBytesOfTheFile)
{
    const test::TempDir dir("transcript");
    const std::string data = fixture("titled-session.jsonl");
    const auto path = dir / "t.jsonl";
    test::writeText(path, data);
    EXPECT_EQ(TranscriptTail::read(path, 524288), TranscriptTail::parse(data));
    // Start inside a three-byte character of the listing, the first of "✓".
    const std::size_t check = data.find("\xE2\x9C\x93");
    ASSERT_NE(check, std::string::npos);
    const auto tail = TranscriptTail::read(path, static_cast<std::int64_t>(data.size() - check - 1));
    EXPECT_EQ(tail, TranscriptTail::parse(std::string_view(data).substr(check + 1)));
    EXPECT_EQ(tail.title, "Ledger CSV importer");
    // A budget that keeps only the last line (after every title) finds no title: nothing before it was read.
    const std::size_t lastLine = data.rfind('\n', data.size() - 2) + 1;
    EXPECT_EQ(TranscriptTail::read(path, static_cast<std::int64_t>(data.size() - lastLine)).title, std::nullopt);
    EXPECT_EQ(TranscriptTail::read(path, 0), TranscriptTail{});
    test::writeText(path, "");
    EXPECT_EQ(TranscriptTail::read(path, 524288), TranscriptTail{});

    const auto missing = dir / "missing.jsonl";
    try {
        TranscriptTail::read(missing, 1024);
        FAIL() << "no error";
    } catch (const std::filesystem::filesystem_error& e) {
        EXPECT_EQ(e.path1(), missing);
        EXPECT_EQ(e.code(), std::errc::no_such_file_or_directory);
    }
    EXPECT_THROW(TranscriptTail::read(dir.path(), 1024), std::filesystem::filesystem_error);
    EXPECT_DEATH(TranscriptTail::read(path, -1), "");
}
