#include "TrackerCore/Json.h"
#include "TrackerCore/TranscriptTail.h"
#include "support/TempDir.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <random>
#include <sstream>

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
        {customTitle("Kept") + R"({"type":"custom-title","customTitle":42})" "\n", "Kept"},
        // An empty custom title is still the user's choice.
        {aiTitle("Generated") + customTitle(""), ""},
    };
    for (const auto& [bytes, title] : cases) EXPECT_EQ(TranscriptTail::parse(bytes).title, title) << bytes;
}

TEST(TranscriptTail, InterruptCountsOnlyAsTheNewestTurnOfADatedUserLine)
{
    const char* marker = "[Request interrupted by user]";
    const std::string interrupt = userLine(kStamp, "[Request interrupted by user] and then some more words");
    const auto withContent = [](const char* content) {
        return std::string(R"({"type":"user","timestamp":")") + kStamp + R"(","message":{"content":)" + content +
               "}}";
    };
    const std::pair<std::string, bool> cases[] = {
        {interrupt, true},
        // Lines that are not turns never settle it; any newer turn line makes the interrupt history.
        {interrupt + aiTitle("t") + customTitle("c") + R"({"type":"system"})" "\n", true},
        {interrupt + assistantLine("Resuming"), false},
        {interrupt + userLine(kStamp, "carry on"), false},
        {interrupt + assistantLine("ok") + customTitle("c"), false},
        // The marker must start a text of a user line, as written.
        {userLine(kStamp, Json::array({{{"type", "tool_result"}, {"tool_use_id", "toolu_1"}, {"content", "rejected"}},
                                       {{"type", "image"}},
                                       {{"type", "text"}, {"text", "[Request interrupted by user for tool use]"}}})),
         true},
        {userLine(kStamp, " [Request interrupted by user]"), false},
        {userLine(kStamp, "[request interrupted by user]"), false},
        {userLine(kStamp, "[Request interrupted"), false},
        {assistantLine(marker), false},
        // Escapes are compared as what they decode to, and of two "content" members the later counts.
        {withContent(R"("\u005bRequest\u0020interrupted by user]")"), true},
        {withContent(R"("x","content":"[Request interrupted by user]")"), true},
        // Undated or badly dated: not reported, but the turn is settled all the same.
        {userLine(nullptr, marker), false},
        {userLine("2026-03-14T10:02:31Z", marker), false},
        {userLine("yesterday", marker), false},
        {userLine(kStamp, marker) + userLine(nullptr, marker), false},
        // Unknown keys and odd values elsewhere do not keep a line from being the newest turn.
        {interrupt + R"({"type":"assistant","id":3,"message":{"content":5}})" "\n", false},
        {interrupt + R"({"type":"assistant","message":null})" "\r\n", false},
    };
    for (const auto& [bytes, interrupted] : cases)
        EXPECT_EQ(TranscriptTail::parse(bytes).interruptedAt, interrupted ? std::optional(at(kStamp)) : std::nullopt)
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
                              userLine(kStamp, Json::array({{{"type", "tool_result"}, {"content", huge}}})) + binary +
                              "\n{\"type\":\"user\",\"message\":{\"content\":\"" + huge + "\n" +
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

namespace {

// The walk as a plain full decode of every line would do it, to hold the reader's faster decoding to.
TranscriptTail referenceWalk(std::string_view bytes)
{
    const auto optionalString = [](const Json& object, const char* key) -> std::optional<std::string> {
        const auto it = object.find(key);
        if (it == object.end() || it->is_null()) return std::nullopt;
        if (!it->is_string()) throw DecodingError(key);
        return it->get<std::string>();
    };
    std::vector<std::string> lines;
    std::stringstream in{std::string(bytes)};
    for (std::string line; std::getline(in, line);)
        if (!line.empty()) lines.push_back(line);

    std::optional<std::string> custom, ai;
    std::optional<Date> interruptedAt;
    bool settled = false;
    for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
        try {
            const Json entry = Json::parse(*line);
            if (!entry.is_object()) continue;
            const auto type = optionalString(entry, "type");
            const auto timestamp = optionalString(entry, "timestamp");
            const auto customTitle = optionalString(entry, "customTitle");
            const auto aiTitle = optionalString(entry, "aiTitle");
            std::vector<std::string> texts;
            const auto message = entry.find("message");
            if (message != entry.end() && !message->is_null()) {
                if (!message->is_object()) continue;
                const auto content = message->find("content");
                if (content != message->end() && content->is_string()) {
                    texts.push_back(content->get<std::string>());
                } else if (content != message->end() && content->is_array()) {
                    try {
                        for (const Json& block : *content) {
                            if (!block.is_object()) throw DecodingError("block");
                            if (auto text = optionalString(block, "text")) texts.push_back(*text);
                        }
                    } catch (const DecodingError&) {
                        texts.clear();
                    }
                }
            }
            if (!type) continue;
            if (*type == "custom-title" && !custom) {
                custom = customTitle;
            } else if (*type == "ai-title" && !ai) {
                ai = aiTitle;
            } else if ((*type == "user" || *type == "assistant") && !settled) {
                settled = true;
                if (*type == "user" && timestamp)
                    for (const auto& text : texts)
                        if (text.starts_with("[Request interrupted by user")) {
                            interruptedAt = parseIso8601(*timestamp);
                            break;
                        }
            }
        } catch (const Json::exception&) {
        } catch (const DecodingError&) {
        }
    }
    TranscriptTail tail;
    tail.title = custom ? custom : ai;
    tail.interruptedAt = interruptedAt;
    return tail;
}

// Random lines of every shape a line can take, written as JSON writers may write them.
class LineMaker {
public:
    explicit LineMaker(unsigned seed)
        : random_(seed)
    {
    }

    std::string line()
    {
        Json entry = Json::object();
        setMaybe(entry, "type", {"user", "user", "assistant", "custom-title", "ai-title", "system", 7, nullptr});
        setMaybe(entry, "timestamp", {"2026-03-14T10:02:31.118Z", "2026-03-14T10:02:31.5+02:00",
                                      "2026-03-14T10:02:31Z", 7, nullptr});
        setMaybe(entry, "customTitle", {"Mine", "", 5, nullptr});
        setMaybe(entry, "aiTitle", {"Generated", 5, nullptr});
        if (pick(4)) entry["message"] = pick(6) ? message() : pick(2) ? Json("str") : Json(nullptr);
        std::string text = write(entry.dump(-1, ' ', false));
        if (pick(6) == 0) corrupt(text);
        return text;
    }

private:
    std::size_t pick(std::size_t n) { return random_() % n; }

    void setMaybe(Json& entry, const char* key, std::initializer_list<Json> values)
    {
        if (pick(3) == 0) return;
        entry[key] = *(values.begin() + static_cast<std::ptrdiff_t>(pick(values.size())));
    }

    Json text()
    {
        const char* texts[] = {"[Request interrupted by user]", "[Request interrupted by user for tool use]",
                               " [Request interrupted by user]", "[Request interrupted", "ok"};
        return texts[pick(5)];
    }

    Json message()
    {
        Json m{{"role", "user"}};
        switch (pick(5)) {
        case 0: m["content"] = text(); break;
        case 1: m["content"] = Json::array({5, nullptr, {{"text", text()}}, Json::array({text()})})[pick(4)]; break;
        case 2: break;
        default: {
            Json blocks = Json::array();
            for (std::size_t i = pick(4); i > 0; --i) {
                switch (pick(8)) {
                case 0: blocks.push_back(7); break;
                case 1: blocks.push_back({{"type", "text"}, {"text", 3}}); break;
                case 2: blocks.push_back({{"type", "tool_result"}, {"content", std::string(pick(300), 'r')}}); break;
                case 3: blocks.push_back({{"type", "text"}, {"text", nullptr}}); break;
                default: blocks.push_back({{"type", "text"}, {"text", text()}}); break;
                }
            }
            m["content"] = blocks;
        }
        }
        return m;
    }

    // Escapes some characters of strings as \u sequences and spaces some tokens out.
    std::string write(const std::string& compact)
    {
        std::string out;
        bool inString = false;
        for (std::size_t i = 0; i < compact.size(); ++i) {
            const char c = compact[i];
            if (inString && c == '\\') {
                out += c;
                out += compact[++i];
                continue;
            }
            if (c == '"') inString = !inString;
            if (inString && c != '"' && std::isalpha(static_cast<unsigned char>(c)) && pick(8) == 0) {
                char escaped[8];
                std::snprintf(escaped, sizeof escaped, "\\u%04X", static_cast<unsigned>(c));
                out += escaped;
            } else if (inString && c == '[' && pick(2) == 0) {
                out += "\\u005b";
            } else {
                out += c;
            }
            if (!inString && (c == ':' || c == ',') && pick(5) == 0) out += " \t";
        }
        return out;
    }

    void corrupt(std::string& text)
    {
        const std::size_t at = pick(text.size());
        switch (pick(4)) {
        case 0: text.erase(at); break;
        case 1: text[at] = static_cast<char>(pick(256)); break;
        case 2: text.insert(at, 1, "\"\\{}[],:"[pick(8)]); break;
        default: text.insert(at, "\xC3"); break;
        }
    }

    std::mt19937 random_;
};

} // namespace

TEST(TranscriptTail, AgreesWithAFullDecodeOfEveryLine)
{
    LineMaker maker(314159);
    for (int round = 0; round < 4000; ++round) {
        std::string bytes;
        for (std::size_t n = 1 + static_cast<std::size_t>(round % 5); n > 0; --n) bytes += maker.line() + "\n";
        const auto tail = TranscriptTail::parse(bytes);
        const auto expected = referenceWalk(bytes);
        ASSERT_EQ(tail.title, expected.title) << bytes;
        ASSERT_EQ(tail.interruptedAt, expected.interruptedAt) << bytes;
    }
}
