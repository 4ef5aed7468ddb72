// Escaping for explanation rows and JSON strings.

#include "companion/FieldEscaper.h"

#include <gtest/gtest.h>

#include <string>

TEST(FieldEscaperTest, TabFieldEscapesTabBackslashAndControlCharacters) {
    std::string out;
    FieldEscaper::appendTabField(out, std::string("a\tb\\c\r\n\x01\x7f\xc3\xa9", 11));
    EXPECT_EQ(out, "a\\tb\\\\c\\x0d\\x0a\\x01\\x7f\xc3\xa9");
}

TEST(FieldEscaperTest, JsonKeepsValidUtf8AndEscapesControlCharacters) {
    std::string out;
    EXPECT_TRUE(FieldEscaper::appendJsonString(out, "a\"b\\c\x01\xc3\xa9\xf0\x9f\x98\x80"));
    EXPECT_EQ(out, "\"a\\\"b\\\\c\\u0001\xc3\xa9\xf0\x9f\x98\x80\"");
}

TEST(FieldEscaperTest, JsonReplacesInvalidOverlongAndSurrogateBytes) {
    std::string out;
    EXPECT_FALSE(FieldEscaper::appendJsonString(out, "\xff\xc0\xaf\xed\xa0\x80\xf4\x90\x80\x80"));
    const std::string r = "\xef\xbf\xbd";
    EXPECT_EQ(out, "\"" + r + r + r + r + r + r + r + r + r + r + "\"");
}

TEST(FieldEscaperTest, HexIsLowerCase) {
    std::string out;
    FieldEscaper::appendHex(out, "\x0a\xff");
    EXPECT_EQ(out, "0aff");
}
