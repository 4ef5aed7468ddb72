// The shared line cutting on literal blocks: every rule the reader relies on,
// seen from the cutter itself.

#include "reader/LineCutter.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <limits>
#include <string>
#include <vector>

namespace {

constexpr std::size_t NO_LIMIT = std::numeric_limits<std::size_t>::max();

struct Cut {
    std::vector<std::string> lines;
    std::string rest;
    std::size_t counted = 0;
    int skipped = 0;
};

// The block is copied with the zero byte the cutter needs after it.
Cut cutBlock(const std::string& block, std::size_t maxLines = NO_LIMIT) {
    const std::string buffer = block + '\0';
    Cut cut;
    const LineCutter::Walk walk = LineCutter::cut(
        buffer.data(), block.size(), maxLines,
        [&](const char* text, std::size_t length) {
            cut.lines.emplace_back(text, length);
            return true;
        },
        [&] { ++cut.skipped; });
    cut.rest.assign(walk.rest, buffer.data() + block.size());
    cut.counted = walk.counted;
    return cut;
}

}  // namespace

TEST(LineCutterTest, NewlinesSeparateLines) {
    const Cut cut = cutBlock("a\nbc\n");
    EXPECT_EQ(cut.lines, (std::vector<std::string>{"a", "bc"}));
    EXPECT_EQ(cut.counted, 2u);
    EXPECT_EQ(cut.rest, "");
}

TEST(LineCutterTest, BytesAfterLastNewlineAreLeftToCaller) {
    const Cut cut = cutBlock("a\npartial");
    EXPECT_EQ(cut.lines, (std::vector<std::string>{"a"}));
    EXPECT_EQ(cut.rest, "partial");
}

TEST(LineCutterTest, EmptyLinesAreSkippedAndNotCounted) {
    const Cut cut = cutBlock("\na\n\n\nb\n");
    EXPECT_EQ(cut.lines, (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(cut.counted, 2u);
    EXPECT_EQ(cut.skipped, 3);
}

TEST(LineCutterTest, CarriageReturnStays) {
    EXPECT_EQ(cutBlock("x\r\n").lines, (std::vector<std::string>{"x\r"}));
}

TEST(LineCutterTest, ZeroByteEndsTheTextAndDropsTheRestOfTheLine) {
    EXPECT_EQ(cutBlock(std::string("ab\0cd\nef\n", 9)).lines,
              (std::vector<std::string>{"ab", "ef"}));
}

TEST(LineCutterTest, LineStartingWithZeroByteIsAnEmptyText) {
    const Cut cut = cutBlock(std::string("\0x\ny\n", 5));
    EXPECT_EQ(cut.lines, (std::vector<std::string>{"", "y"}));
    EXPECT_EQ(cut.skipped, 0);
}

TEST(LineCutterTest, ZeroByteInUnfinishedLineLeavesItToCaller) {
    const Cut cut = cutBlock(std::string("a\nb\0c", 5));
    EXPECT_EQ(cut.lines, (std::vector<std::string>{"a"}));
    EXPECT_EQ(cut.rest, std::string("b\0c", 3));
}

TEST(LineCutterTest, StopsAfterMaxCountedLines) {
    const Cut cut = cutBlock("a\nb\nc\n", 2);
    EXPECT_EQ(cut.lines, (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(cut.rest, "c\n");
}

TEST(LineCutterTest, LinesThatDoNotCountDoNotUseTheLimit) {
    const std::string block = "a\nb\nc\n";
    const std::string buffer = block + '\0';
    std::vector<std::string> seen;
    const LineCutter::Walk walk =
        LineCutter::cut(buffer.data(), block.size(), 2, [&](const char* text, std::size_t length) {
            seen.emplace_back(text, length);
            return seen.size() != 1;
        });
    EXPECT_EQ(seen, (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(walk.counted, 2u);
}

TEST(LineCutterTest, TextLengthOfUnfinishedLineStopsAtZeroByte) {
    EXPECT_EQ(LineCutter::textLength("abc", 3), 3u);
    EXPECT_EQ(LineCutter::textLength("ab\0c", 4), 2u);
    EXPECT_EQ(LineCutter::textLength("\0abc", 4), 0u);
}
