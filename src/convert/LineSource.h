#pragma once
// Feeds the lines of one input to a handler: reads large blocks, cuts them
// with the service's own line cutter, carries an unfinished line over to the
// next block and skips a line too long to hold instead of keeping it.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "convert/InputStream.h"

class LineSource {
public:
    static constexpr std::size_t BLOCK_SIZE = 128u << 10;
    // The most the service reads in one poll; a longer line is not held.
    static constexpr std::size_t MAX_LINE_SIZE = 10485760;

    struct Line {
        const char* text;  // up to the first zero byte, without the newline
        std::size_t length;
        uint64_t number;      // counts every newline before it, empty lines included
        int64_t startOffset;  // of its first byte in the input
        bool tooLong;         // text is empty then; the line was skipped unread
    };
    // Returns false to stop before this line: it stays unread.
    using Handler = std::function<bool(const Line&)>;

    // `firstNumber` is the number of the line at `startOffset`. With
    // `deliverTail`, bytes after the last newline at the end are one more line.
    // A smaller block only serves tests of lines that span blocks.
    LineSource(InputStream& input, int64_t startOffset, uint64_t firstNumber, bool deliverTail,
               std::size_t blockSize = BLOCK_SIZE);

    // False when reading failed (the input's error() says why).
    bool run(const Handler& handler);
    // Where a following run should start: after the last newline handled, or
    // at the line the handler stopped before.
    int64_t resumeOffset() const { return resumeOffset_; }
    uint64_t resumeNumber() const { return resumeNumber_; }
    bool stopped() const { return stopped_; }

private:
    InputStream& input_;
    bool deliverTail_;
    std::size_t blockSize_;
    std::vector<char> buffer_;
    int64_t bufferOffset_;  // input offset of buffer_[0]
    uint64_t lines_;        // lines numbered so far
    int64_t resumeOffset_;
    uint64_t resumeNumber_;
    bool stopped_;
};
