// The reader cuts a block into lines with byte scans of its own where the
// plain form puts a zero byte over each newline and builds each line as a
// string from a character pointer (so up to the first zero byte). Pinned here
// against that plain walk over every block of up to eight bytes from an
// alphabet holding the bytes that matter (newline, zero byte, carriage return,
// a byte above 0x7f): the cutter as the reader composes it, and the reader
// itself on real files for the shorter blocks, with a callback that fails on
// some lines and with short reads.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstddef>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "logging/Logger.h"
#include "reader/LineCutter.h"
#include "reader/LogReader.h"
#include "reader/LogReaderTestPeer.h"
#include "support/TestSupport.h"

using namespace testing_support;

namespace {

const std::string ALPHABET("a\n\0\r\xff", 5);
constexpr std::size_t NO_LIMIT = std::numeric_limits<std::size_t>::max();

// What one walk handed on: every line offered, and how many counted.
struct Delivery {
    std::vector<std::string> offered;
    std::size_t counted = 0;

    bool operator==(const Delivery& other) const {
        return offered == other.offered && counted == other.counted;
    }
};

// A callback that fails (does not count) for lines starting with a
// carriage return, so that the limit sees lines that do not count.
bool counts(const std::string& line) { return line.empty() || line[0] != '\r'; }

// The plain walk: a zero byte over each newline, an empty line skipped, each
// other line built from a character pointer; the limit checked after each
// counted line; then the bytes after the last newline as one more line.
Delivery plainWalk(const std::string& block, std::size_t maxLines) {
    std::vector<char> buffer(block.begin(), block.end());
    buffer.push_back('\0');
    Delivery delivery;
    std::size_t lineStart = 0;
    for (std::size_t i = 0; i < block.size() && delivery.counted < maxLines; ++i) {
        if (buffer[i] != '\n') {
            continue;
        }
        buffer[i] = '\0';
        if (i != lineStart) {
            const std::string line(&buffer[lineStart]);
            delivery.offered.push_back(line);
            delivery.counted += counts(line) ? 1 : 0;
        }
        lineStart = i + 1;
    }
    if (delivery.counted < maxLines && lineStart < block.size()) {
        const std::string line(&buffer[lineStart]);
        delivery.offered.push_back(line);
        delivery.counted += counts(line) ? 1 : 0;
    }
    return delivery;
}

// The cutter as the reader composes it: the walk, then the unfinished tail.
Delivery cutterWalk(const std::string& block, std::size_t maxLines) {
    const std::string buffer = block + '\0';
    const char* const end = buffer.data() + block.size();
    Delivery delivery;
    const LineCutter::Walk walk =
        LineCutter::cut(buffer.data(), block.size(), maxLines, [&](const char* text, size_t size) {
            delivery.offered.emplace_back(text, size);
            return counts(delivery.offered.back());
        });
    delivery.counted = walk.counted;
    if (delivery.counted < maxLines && walk.rest < end) {
        const std::size_t remaining = static_cast<std::size_t>(end - walk.rest);
        delivery.offered.emplace_back(walk.rest, LineCutter::textLength(walk.rest, remaining));
        delivery.counted += counts(delivery.offered.back()) ? 1 : 0;
    }
    return delivery;
}

// Every block of exactly `length` bytes from the alphabet, in turn.
template <typename Visit>
void forEachBlock(std::size_t length, Visit&& visit) {
    std::vector<std::size_t> digits(length, 0);
    std::string block(length, ALPHABET[0]);
    while (true) {
        visit(block);
        std::size_t position = 0;
        while (position < length && ++digits[position] == ALPHABET.size()) {
            digits[position] = 0;
            block[position] = ALPHABET[0];
            ++position;
        }
        if (position == length) {
            return;
        }
        block[position] = ALPHABET[digits[position]];
    }
}

std::string shown(const std::string& block) {
    std::string text;
    for (const char c : block) {
        text += "\\x" + std::to_string(static_cast<unsigned char>(c));
    }
    return text;
}

class LineCutterLibraryPinTest : public ::testing::Test {
protected:
    // Thousands of opens and refused lines: their messages are not the subject.
    void SetUp() override { Logger::getInstance().setCapture(&ignore, nullptr); }
    void TearDown() override { Logger::getInstance().setCapture(nullptr, nullptr); }

    static void ignore(void*, Logger::Level, const std::string&) {}

    // Reads `block` appended to a file through the reader from position 0,
    // with a callback that throws where `counts` says the line fails.
    Delivery readerWalk(const std::string& block) {
        const std::string path = dir_.file("input.log");
        writeFile(path, block);
        auto reader = LogReader::create(path);
        EXPECT_TRUE(reader->openFile());
        LogReaderTestPeer::setPosition(*reader, 0);
        Delivery delivery;
        reader->readNewLines(
            [&](const std::string& line) {
                delivery.offered.push_back(line);
                if (!counts(line)) {
                    throw std::runtime_error("refused");
                }
                ++delivery.counted;
            },
            true);
        return delivery;
    }

    TempDir dir_;
};

TEST_F(LineCutterLibraryPinTest, CutterDeliversWhatThePlainWalkDelivers) {
    int blocks = 0;
    for (std::size_t length = 0; length <= 8; ++length) {
        forEachBlock(length, [&](const std::string& block) {
            for (const std::size_t maxLines : {std::size_t{1}, std::size_t{2}, NO_LIMIT}) {
                ASSERT_TRUE(plainWalk(block, maxLines) == cutterWalk(block, maxLines))
                    << shown(block) << " limit " << maxLines;
            }
            ++blocks;
        });
    }
    EXPECT_EQ(488281, blocks);
}

TEST_F(LineCutterLibraryPinTest, ReaderDeliversWhatThePlainWalkDelivers) {
    for (std::size_t length = 1; length <= 5; ++length) {
        forEachBlock(length, [&](const std::string& block) {
            ASSERT_TRUE(plainWalk(block, NO_LIMIT) == readerWalk(block)) << shown(block);
        });
    }
}

TEST_F(LineCutterLibraryPinTest, ShortReadDeliversWhatThePlainWalkDeliversOfTheBytesRead) {
    // Attribute files report a page-sized length but hold a few bytes: read()
    // returns fewer bytes than asked for, and only those are cut.
    const std::string path = "/sys/devices/system/cpu/online";
    struct stat info {};
    if (stat(path.c_str(), &info) != 0 || info.st_size <= 64) {
        GTEST_SKIP() << "no attribute file with a page-sized length here";
    }
    const std::string content = readFile(path);
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    LogReaderTestPeer::setPosition(*reader, 0);
    Delivery delivery;

    EXPECT_TRUE(reader->readNewLines(
        [&](const std::string& line) {
            delivery.offered.push_back(line);
            ++delivery.counted;
        },
        true));

    EXPECT_TRUE(plainWalk(content, NO_LIMIT) == delivery);
    EXPECT_EQ(static_cast<int64_t>(content.size()), LogReaderTestPeer::position(*reader));
}

}  // namespace
