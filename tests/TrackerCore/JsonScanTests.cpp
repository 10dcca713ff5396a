#include "TrackerCore/Json.h"
#include "TrackerCore/JsonScan.h"

#include <gtest/gtest.h>

using namespace skeldrin;

namespace {

bool scans(std::string_view text)
{
    try {
        json_scan::members(text, {});
        return true;
    } catch (const DecodingError&) {
        return false;
    }
}

} // namespace

TEST(JsonScan, AcceptsExactlyWhatAFullParserAccepts)
{
    // Every case is an object wrapping the interesting part, so shape is never the reason.
    const std::string cases[] = {
        R"("s")", R"("a\"b\\c\/\b\f\n\r\t")", R"("\u00e9\uD83D\uDE00")", "\"\xc3\xa9\xf0\x9f\x98\x80\"",
        "[]", "[1,-0,0.5,1e10,-2.5E-3,true,false,null]", R"({"a":{"b":[{}]}})", " \t\r\n1 ",
        // and what must fail:
        R"("\uD83D")", R"("\uDE00")", R"("\uD83D\u0041")", R"("\x")", R"("\u12")", "\"a\x01b\"", "\"\xff\"",
        "\"\xc0\xaf\"", "\"\xed\xa0\x80\"", "\"\xf4\x90\x80\x80\"", "\"\xe2\x82\"", "01", "1.", ".5", "1e",
        "+1", "-", "[1,]", "[,1]", R"({"a" 1})", R"({"a":1,})", "tru", "nul", "[1 2]", "\"unterminated",
        R"({1:2})", "NaN", "[1]]",
    };
    for (const auto& inner : cases) {
        const std::string doc = "{\"k\":" + inner + "}";
        EXPECT_EQ(scans(doc), Json::accept(doc)) << doc;
    }
    // Whole documents: valid objects pass, everything else (also valid non-objects) fails.
    for (const std::string whole : {"", "   ", "{", "{}", "{} {}", "{}x", "{\"a\":1}\n", "[]", "\"s\"", "\xef\xbb\xbf{}"})
        EXPECT_EQ(scans(whole), Json::accept(whole) && Json::parse(whole).is_object()) << whole;
    EXPECT_FALSE(scans(std::string(100000, '[') + std::string(100000, ']'))); // too deep, but no crash
}

TEST(JsonScan, KeepsOnlyWantedTopLevelMembers)
{
    const std::string doc = R"({"a": {"x": 1}, "b": [1, 2], "skip": {"a": 5}, "a\u0062c": "d", "a": "last"})";
    const auto found = json_scan::members(doc, {"a", "abc"});
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found.at("a"), "\"last\""); // the later duplicate wins, as with a full parse
    EXPECT_EQ(found.at("abc"), "\"d\"");  // names are compared after unescaping
    EXPECT_TRUE(json_scan::members(R"({"skip": {"a": 5}})", {"a"}).empty());
}
