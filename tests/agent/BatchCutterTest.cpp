#include "agent/BatchCutter.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::vector<std::string> texts(const std::vector<std::string_view>& views) {
    return std::vector<std::string>(views.begin(), views.end());
}

}  // namespace

TEST(BatchCutterTest, KeepsEveryByteOfALineAsWritten) {
    const std::string data = "a\tb\x1b[31m\rc\xff\xfe\n";
    BatchCutter::Cut cut;
    BatchCutter::cut(data.data(), data.size(), 10, cut);
    EXPECT_EQ(std::vector<std::string>{"a\tb\x1b[31m\rc\xff\xfe"}, texts(cut.lines));
    EXPECT_EQ(data.size(), cut.consumed);
}

TEST(BatchCutterTest, ALineWithANulByteGoesToUnparsedWithItsReason) {
    const std::string data("one\nt\0o\nthree\n", 14);
    BatchCutter::Cut cut;
    BatchCutter::cut(data.data(), data.size(), 10, cut);
    EXPECT_EQ((std::vector<std::string>{"one", "three"}), texts(cut.lines));
    EXPECT_EQ(std::vector<std::string>{std::string("t\0o", 3)}, texts(cut.unparsedLines));
    EXPECT_EQ(std::vector<std::string>{"line holds a NUL byte"}, texts(cut.unparsedReasons));
    EXPECT_EQ(14u, cut.consumed);
}

TEST(BatchCutterTest, TakesNothingOfAnUnfinishedLine) {
    BatchCutter::Cut cut;
    const std::string data = "whole\nhalf";
    BatchCutter::cut(data.data(), data.size(), 10, cut);
    EXPECT_EQ(std::vector<std::string>{"whole"}, texts(cut.lines));
    EXPECT_EQ(6u, cut.consumed);
}

TEST(BatchCutterTest, TakesUpToTheLineLimit) {
    BatchCutter::Cut cut;
    const std::string data = "a\nb\nc\n";
    BatchCutter::cut(data.data(), data.size(), 2, cut);
    EXPECT_EQ((std::vector<std::string>{"a", "b"}), texts(cut.lines));
    EXPECT_EQ(4u, cut.consumed);
    EXPECT_EQ(2u, cut.taken);
}

TEST(BatchCutterTest, SkipsEmptyLinesButCoversTheirBytes) {
    BatchCutter::Cut cut;
    const std::string data = "\n\na\n";
    BatchCutter::cut(data.data(), data.size(), 10, cut);
    EXPECT_EQ(std::vector<std::string>{"a"}, texts(cut.lines));
    EXPECT_EQ(4u, cut.consumed);
}

TEST(BatchCutterTest, AnOverLongUnfinishedLineIsShippedInPieces) {
    const std::string data = std::string(BatchCutter::MAX_LINE_BYTES + 10, 'x');
    BatchCutter::Cut cut;
    BatchCutter::cut(data.data(), data.size(), 10, cut);
    EXPECT_TRUE(cut.lines.empty());
    ASSERT_EQ(1u, cut.unparsedLines.size());
    EXPECT_EQ(BatchCutter::MAX_LINE_BYTES, cut.unparsedLines[0].size());
    EXPECT_EQ("line longer than 1048576 bytes, stored in pieces", cut.unparsedReasons[0]);
    EXPECT_EQ(BatchCutter::MAX_LINE_BYTES, cut.consumed);
}

TEST(BatchCutterTest, AnOverLongWholeLineIsCutTheSameWay) {
    const std::string data = std::string(BatchCutter::MAX_LINE_BYTES + 3, 'x') + "\nnext\n";
    BatchCutter::Cut cut;
    BatchCutter::cut(data.data(), data.size(), 10, cut);
    EXPECT_EQ((std::vector<std::string>{"xxx", "next"}), texts(cut.lines));
    ASSERT_EQ(1u, cut.unparsedLines.size());
    EXPECT_EQ(data.size(), cut.consumed);
}

TEST(BatchCutterTest, HasWholeOnlyWithANewlineOrAnOverLongLine) {
    EXPECT_FALSE(BatchCutter::hasWhole("abc", 3));
    EXPECT_TRUE(BatchCutter::hasWhole("abc\n", 4));
    const std::string longLine(BatchCutter::MAX_LINE_BYTES, 'x');
    EXPECT_TRUE(BatchCutter::hasWhole(longLine.data(), longLine.size()));
}
