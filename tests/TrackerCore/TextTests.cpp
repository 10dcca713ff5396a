#include "TrackerCore/Text.h"

#include <gtest/gtest.h>

using namespace skeldrin::text;

TEST(Text, CountsUserPerceivedCharacters)
{
    EXPECT_EQ(characterCount("\U0001F469\u200D\U0001F4BB"), 1u);        // woman technologist
    EXPECT_EQ(characterCount("\U0001F44D\U0001F3FD ok"), 4u);           // thumbs up + skin tone
    EXPECT_EQ(characterPrefix("e\u0301e\u0301x", 2), "e\u0301e\u0301"); // e + combining acute
}

TEST(Text, ReplacesInvalidUtf8)
{
    EXPECT_EQ(sanitizeUtf8("a\xff\x62\xe2\x82"), "a\uFFFDb\uFFFD");
    EXPECT_EQ(sanitizeUtf8("\xed\xa0\x80"), "\uFFFD\uFFFD\uFFFD"); // surrogate
    EXPECT_EQ(decodeUtf8("\xf0\x9f\x98\x80"), U"\U0001F600");
    EXPECT_EQ(encodeUtf8(U"\U0001F600\u20ac\u00e9"), "\xf0\x9f\x98\x80\xe2\x82\xac\xc3\xa9");
    EXPECT_TRUE(isValidUtf8("plain ascii, then \u00e9 and \U0001F600 after eight-byte runs"));
    for (const char* bad : {"\xc0\xaf", "\xf4\x90\x80\x80", "abcdefgh\xe2\x82"})
        EXPECT_FALSE(isValidUtf8(bad)) << bad;
}
