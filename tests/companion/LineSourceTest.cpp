// Lines fed from real files across block boundaries: the carried-over line,
// the last line without newline, a line too long to hold, and a stop.

#include "companion/LineSource.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "companion/InputStream.h"
#include "support/TestSupport.h"

using namespace testing_support;

namespace {

struct Seen {
    std::string text;
    uint64_t number;
    int64_t offset;
    bool tooLong;
};

std::vector<Seen> readAll(const std::string& path, bool deliverTail) {
    InputStream input(path);
    EXPECT_TRUE(input.open());
    LineSource source(input, 0, 1, deliverTail);
    std::vector<Seen> seen;
    EXPECT_TRUE(source.run([&](const LineSource::Line& line) {
        seen.push_back(
            {std::string(line.text, line.length), line.number, line.startOffset, line.tooLong});
        return true;
    }));
    return seen;
}

}  // namespace

TEST(LineSourceTest, LinesAcrossBlockBoundariesArriveWholeAndNumbered) {
    TempDir dir;
    std::string content;
    std::vector<std::string> expected;
    for (int i = 0; content.size() < 3 * LineSource::BLOCK_SIZE; ++i) {
        expected.push_back("line " + std::to_string(i) +
                           std::string(static_cast<std::size_t>(i % 977), 'x'));
        content += expected.back() + "\n";
    }
    writeFile(dir.file("in"), content);
    const std::vector<Seen> seen = readAll(dir.file("in"), true);
    ASSERT_EQ(seen.size(), expected.size());
    int64_t offset = 0;
    for (std::size_t i = 0; i < seen.size(); ++i) {
        ASSERT_EQ(seen[i].text, expected[i]);
        ASSERT_EQ(seen[i].number, i + 1);
        ASSERT_EQ(seen[i].offset, offset);
        offset += static_cast<int64_t>(expected[i].size()) + 1;
    }
}

TEST(LineSourceTest, EmptyLinesAreNumberedButNotDelivered) {
    TempDir dir;
    writeFile(dir.file("in"), "a\n\n\nb\n");
    const std::vector<Seen> seen = readAll(dir.file("in"), true);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[1].text, "b");
    EXPECT_EQ(seen[1].number, 4u);
}

TEST(LineSourceTest, LastLineWithoutNewlineIsDeliveredOnlyWhenAsked) {
    TempDir dir;
    writeFile(dir.file("in"), "a\nbc");
    EXPECT_EQ(readAll(dir.file("in"), true).size(), 2u);
    InputStream input(dir.file("in"));
    ASSERT_TRUE(input.open());
    LineSource source(input, 0, 1, false);
    std::vector<std::string> texts;
    ASSERT_TRUE(source.run([&](const LineSource::Line& line) {
        texts.emplace_back(line.text, line.length);
        return true;
    }));
    EXPECT_EQ(texts, (std::vector<std::string>{"a"}));
    EXPECT_EQ(source.resumeOffset(), 2);
    EXPECT_EQ(source.resumeNumber(), 2u);
}

TEST(LineSourceTest, ZeroByteCutsLineAsTheReaderDoes) {
    TempDir dir;
    writeFile(dir.file("in"), std::string("ab\0cd\n\0x\ntail\0z", 15));
    const std::vector<Seen> seen = readAll(dir.file("in"), true);
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[0].text, "ab");
    EXPECT_EQ(seen[1].text, "");
    EXPECT_EQ(seen[2].text, "tail");
}

TEST(LineSourceTest, LineLongerThanTheLimitIsSkippedAsTooLong) {
    TempDir dir;
    writeFile(dir.file("in"), "a\n" + std::string(LineSource::MAX_LINE_SIZE + 5, 'y') + "\nb\n" +
                                  std::string(LineSource::MAX_LINE_SIZE + 1, 'z'));
    const std::vector<Seen> seen = readAll(dir.file("in"), true);
    ASSERT_EQ(seen.size(), 4u);
    EXPECT_EQ(seen[0].text, "a");
    EXPECT_TRUE(seen[1].tooLong);
    EXPECT_EQ(seen[1].number, 2u);
    EXPECT_EQ(seen[1].offset, 2);
    EXPECT_EQ(seen[2].text, "b");
    EXPECT_EQ(seen[2].number, 3u);
    EXPECT_TRUE(seen[3].tooLong);
}

TEST(LineSourceTest, LineOfExactlyTheLimitIsDelivered) {
    TempDir dir;
    writeFile(dir.file("in"), std::string(LineSource::MAX_LINE_SIZE, 'y') + "\n");
    const std::vector<Seen> seen = readAll(dir.file("in"), true);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_FALSE(seen[0].tooLong);
    EXPECT_EQ(seen[0].text.size(), LineSource::MAX_LINE_SIZE);
}

TEST(LineSourceTest, StopLeavesTheRefusedLineUnread) {
    TempDir dir;
    writeFile(dir.file("in"), "a\nbb\nccc\n");
    InputStream input(dir.file("in"));
    ASSERT_TRUE(input.open());
    LineSource source(input, 0, 1, true);
    std::vector<std::string> texts;
    ASSERT_TRUE(source.run([&](const LineSource::Line& line) {
        if (line.number == 2) {
            return false;
        }
        texts.emplace_back(line.text, line.length);
        return true;
    }));
    EXPECT_EQ(texts, (std::vector<std::string>{"a"}));
    EXPECT_TRUE(source.stopped());
    EXPECT_EQ(source.resumeOffset(), 2);
    EXPECT_EQ(source.resumeNumber(), 2u);
}

TEST(LineSourceTest, TinyBlocksGiveTheSameLinesAsOneBlock) {
    TempDir dir;
    const std::string content = std::string("first\n\nsecond line\r\nz\0ero\n", 26) +
                                std::string(40, 'w') + "\nlast without newline";
    writeFile(dir.file("in"), content);
    for (std::size_t block : {1u, 2u, 3u, 7u, 64u}) {
        InputStream input(dir.file("in"));
        ASSERT_TRUE(input.open());
        LineSource source(input, 0, 1, true, block);
        std::vector<std::string> texts;
        std::vector<uint64_t> numbers;
        ASSERT_TRUE(source.run([&](const LineSource::Line& line) {
            texts.emplace_back(line.text, line.length);
            numbers.push_back(line.number);
            return true;
        }));
        EXPECT_EQ(texts, (std::vector<std::string>{"first", "second line\r", "z",
                                                   std::string(40, 'w'), "last without newline"}))
            << "block " << block;
        EXPECT_EQ(numbers, (std::vector<uint64_t>{1, 3, 4, 5, 6})) << "block " << block;
    }
}
