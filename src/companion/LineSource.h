#pragma once
// Feeds the lines of one input to a handler: reads large blocks, cuts them
// with the service's own line cutter, carries an unfinished line over to the
// next block and skips a line too long to hold instead of keeping it. Only
// the walk over one block's lines is here, where the handler is called
// directly; reading, carrying and skipping are in the source file.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "companion/InputStream.h"
#include "reader/LineCutter.h"

class LineSource {
public:
    // Large enough that the system call costs little per line, small enough
    // that the block is still in the cache when the cutter and the copy walk
    // it (4 MiB is slower again).
    static constexpr std::size_t BLOCK_SIZE = 1u << 20;
    // The most the service reads in one poll; a longer line is not held.
    static const std::size_t MAX_LINE_SIZE;

    struct Line {
        const char* text;  // up to the first zero byte, without the newline
        std::size_t length;
        uint64_t number;      // counts every newline before it, empty lines included
        int64_t startOffset;  // of its first byte in the input
        bool tooLong;         // text is empty then; the line was skipped unread
    };

    // `firstNumber` is the number of the line at `startOffset`. With
    // `withTail`, bytes after the last newline at the end are one more line.
    // A smaller block only serves tests of lines that span blocks.
    LineSource(InputStream& input, int64_t startOffset, uint64_t firstNumber, bool withTail,
               std::size_t blockSize = BLOCK_SIZE);

    // Calls `handler(const Line&)` for each line; the handler returns whether
    // it takes the line, as a LineCutter delivery does, and false stops the
    // run before that line, which then stays unread. A template, so that the
    // handler is called directly rather than through a wrapper per line.
    // False when reading failed (the input's status() says why).
    template <typename Handler>
    bool run(Handler&& handler);
    // Where a following run should start: after the last newline handled, or
    // at the line the handler stopped before.
    int64_t resumeOffset() const { return resumeOffset_; }
    uint64_t resumeNumber() const { return resumeNumber_; }
    bool stopped() const { return stopped_; }

private:
    enum class Read { BLOCK, END, FAILED };
    // Complete lines from `data` on, in the buffer that starts at `base`.
    struct Block {
        const char* base;
        int64_t baseOffset;  // input offset of base[0]
        const char* data;
        std::size_t size;
        // The too-long line this block finishes, to be handed on first.
        const Line* finished;
    };

    // The next block with lines in it, past any too-long line's rest.
    Read nextBlock(Block& block);
    // After the walk over a block's lines stopped at `rest`: the unfinished
    // line is carried over, or skipped when too long to hold.
    void endBlock(const Block& block, const char* rest);
    // The unfinished line at the end, when it is to be handed on.
    const Line* tailLine();
    // Ends the run before `line`; true, the run's answer.
    bool stopBefore(const Line& line);
    ssize_t readBlock(std::size_t carried);

    InputStream& input_;
    bool withTail_;
    std::size_t blockSize_;
    // Not a vector: its bytes are read into, never zero-filled first.
    std::unique_ptr<char[]> buffer_;
    std::size_t bufferSize_;
    int64_t bufferOffset_;  // input offset of buffer_[0]
    uint64_t lines_;        // lines numbered so far
    int64_t resumeOffset_;
    uint64_t resumeNumber_;
    bool stopped_;
    std::size_t carried_ = 0;  // unfinished line kept at the start of the buffer
    bool skipping_ = false;    // inside a line longer than MAX_LINE_SIZE
    Line tooLong_{};
    Line tail_{};
};

template <typename Handler>
bool LineSource::run(Handler&& handler) {
    Block block{};
    for (;;) {
        const Read read = nextBlock(block);
        if (read == Read::FAILED) {
            return false;
        }
        if (read == Read::END) {
            break;
        }
        if (block.finished != nullptr && !handler(*block.finished)) {
            return stopBefore(*block.finished);
        }
        Line line{};
        // The cutter counts the refused line alone, so that its limit of one
        // ends the walk right there.
        const auto refuses = [&](const char* text, std::size_t length) {
            line.number = ++lines_;
            line.startOffset = block.baseOffset + (text - block.base);
            line.tooLong = length > MAX_LINE_SIZE;
            line.text = line.tooLong ? "" : text;
            line.length = line.tooLong ? 0 : length;
            return !handler(line);
        };
        const LineCutter::Walk walk =
            LineCutter::cut(block.data, block.size, 1, refuses, [this] { ++lines_; });
        if (walk.counted > 0) {
            return stopBefore(line);
        }
        endBlock(block, walk.rest);
    }
    const Line* const tail = tailLine();
    if (tail != nullptr && !handler(*tail)) {
        return stopBefore(*tail);
    }
    return true;
}
