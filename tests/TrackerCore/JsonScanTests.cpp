#include "TrackerCore/HookEvent.h"
#include "TrackerCore/Json.h"
#include "TrackerCore/JsonScan.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include <gtest/gtest.h>

using namespace skeldrin;

namespace {

// Delivers text in pieces of varying small sizes, so that every token meets a buffer boundary somewhere.
json_scan::Reader piecewise(const std::string& text, std::size_t seed)
{
    return [&text, offset = std::size_t{0}, seed](char* buffer, std::size_t capacity) mutable {
        const std::size_t piece = std::min({capacity, text.size() - offset, 1 + (offset * 7 + seed) % 23});
        std::memcpy(buffer, text.data() + offset, piece);
        offset += piece;
        return piece;
    };
}

// What `decode` gives, or nothing when it throws `Error`.
template <typename Error = DecodingError, typename Decode> auto decoded(Decode decode)
{
    try {
        return std::optional(decode());
    } catch (const Error&) {
        return decltype(std::optional(decode()))();
    }
}

const auto scans = [](std::string_view text) {
    return decoded([&] { return json_scan::members(text, {}); }).has_value();
};

} // namespace

TEST(JsonScan, AcceptsExactlyWhatAFullParserAccepts)
{
    // Every case is an object wrapping the interesting part, so shape is never the reason.
    const std::string cases[] = {R"("a\"b\\c\/\b\f\n\r\t")", R"("\u00e9\uD83D\uDE00\uDBFF\uDFFF")",
                                 "\"\xc3\xa9\xf0\x9f\x98\x80\"", "[1,-0,0.5,1e10,-2.5E-3,true,false,null]",
                                 R"({"a":{"b":[{}]}})", " \t\r\n1 ",
                                 // and what must fail:
                                 R"("\uD83D")", R"("\uDE00")", R"("\uD83D\u0041")", R"("\x")", "\"\xc0\xaf\"",
                                 "\"\xf4\x90\x80\x80\"", "01", "1.", ".5", "1e", "+1", "[1,]", R"({"a" 1})",
                                 R"({"a":1,})", "tru", "[1 2]", "\"unterminated", R"({1:2})", "[1]]"};
    for (const auto& inner : cases) {
        const std::string doc = "{\"k\":" + inner + "}";
        EXPECT_EQ(scans(doc), Json::accept(doc)) << doc;
    }
    // Whole documents: valid objects pass, everything else (also valid non-objects) fails.
    for (const std::string whole : {"", "{", "{}", "{} {}", "{\"a\":1}\n", "[]", "\xef\xbb\xbf{}"})
        EXPECT_EQ(scans(whole), Json::accept(whole) && Json::parse(whole).is_object()) << whole;
    EXPECT_FALSE(scans(std::string(100000, '[') + std::string(100000, ']'))); // too deep, but no crash

    // Strings are checked 64 bytes at a time: each piece at every place around those blocks.
    for (const std::string piece : {R"(\\\")", R"(\ud83d\ude00)", "\xf0\x9f\x9a\x80", "\xe6\x97\xa5", R"(\")",
                                    "\xed\xa0\x80", "\xe2\x82", R"(\)", "\x1f", R"(\u12)"}) {
        for (std::size_t at = 0; at < 140; ++at) {
            const std::string text = "{\"k\":\"" + std::string(at, 'a') + piece;
            for (const std::string& doc : {text + std::string(150, 'b') + "\"}", text + "\"}"})
                EXPECT_EQ(scans(doc), Json::accept(doc)) << doc;
        }
    }
}

TEST(HookEventDecoding, StreamedDecodeMatchesAFullDecode)
{
    // A hook event decoded as it streams in matches a full decode, over text with every kind of
    // character a tool's input or output carries, longer than the scan buffer.
    std::string text = "\"";
    while (text.size() < 150'000)
        text += "\\tsay(\\\"h\\u00e9llo\\\\n\\\") // na\xc3\xafve \xe6\x97\xa5\xe6\x9c\xac \xf0\x9f\x9a\x80 "
                "\\u2028 \\ud83d\\ude00\\n";
    const std::string big = text + "\"", head = R"({"hook_event_name":"PostToolUse","session_id":"s1")";
    const std::string whole = head + R"(,"tool_input":{"file_path":)" + big + R"(,"content":)" + big +
                              R"(,"command":"ls"},"tool_response":{"content":)" + big + "}}";
    std::vector<std::string> payloads = {
        whole, head + R"(,"tool_input":null})", head + R"(,"tool_input":{"command":5}})",
        // Of two members of one name the later counts, also when the earlier was an object.
        head + R"(,"tool_input":{"command":"first"},"tool_input":{"command":"a","command":"b"}})",
        head + R"(,"tool_input":{"comm\u0061nd":"escaped name","file\u005fpath":"\u00e9\ud83d\ude00"}})",
        head + R"(,"tool_input":{"nested":{"command":"not this one"}}})",
        head + R"(,"tool_input":{"questions":[{},{"x":[1,{"y":2}]},[],"q"]}})",
        "\xef\xbb\xbf " + head + ",\"is_interrupt\":true}\n",
        // Broken: cut short, trailing text, invalid UTF-8 or a bad escape deep inside the big text.
        whole.substr(0, whole.size() - 1), whole + " {}"};
    for (const char* bad : {"\xed\xa0\x80", "\\ud83d", "\x01"})
        payloads.push_back(std::string(whole).insert(100'000, bad));

    for (std::size_t i = 0; i < payloads.size(); ++i) {
        const auto expected =
            decoded<std::exception>([&] { return HookEvent::fromJson(Json::parse(payloads[i])); });
        EXPECT_EQ(decoded([&] { return HookEvent::read(piecewise(payloads[i], i)); }), expected) << i;
        EXPECT_EQ(decoded([&] { return HookEvent::decode(payloads[i]); }), expected) << i;
    }
}
