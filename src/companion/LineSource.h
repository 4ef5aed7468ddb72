#pragma once
// Feeds the lines of one input to a handler: reads large blocks, cuts them
// with the service's own line cutter, carries an unfinished line over to the
// next block and skips a line too long to hold instead of keeping it.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "companion/InputStream.h"
#include "reader/LineCutter.h"
#include "reader/LogReader.h"

class LineSource {
public:
    // Large enough that the system call costs little per line, small enough
    // that the block is still in the cache when the cutter and the copy walk
    // it (4 MiB is slower again).
    static constexpr std::size_t BLOCK_SIZE = 1u << 20;
    // The most the service reads in one poll; a longer line is not held.
    static constexpr std::size_t MAX_LINE_SIZE = static_cast<std::size_t>(LogReader::MAX_READ_SIZE);

    struct Line {
        const char* text;  // up to the first zero byte, without the newline
        std::size_t length;
        uint64_t number;      // counts every newline before it, empty lines included
        int64_t startOffset;  // of its first byte in the input
        bool tooLong;         // text is empty then; the line was skipped unread
    };

    // `firstNumber` is the number of the line at `startOffset`. With
    // `deliverTail`, bytes after the last newline at the end are one more line.
    // A smaller block only serves tests of lines that span blocks.
    LineSource(InputStream& input, int64_t startOffset, uint64_t firstNumber, bool deliverTail,
               std::size_t blockSize = BLOCK_SIZE);

    // Calls `handler(const Line&)` for each line; the handler returns false
    // to stop before that line, which then stays unread. A template, so that
    // the handler is called directly rather than through a wrapper per line.
    // False when reading failed (the input's error() says why).
    template <typename Handler>
    bool run(Handler&& handler);
    // Where a following run should start: after the last newline handled, or
    // at the line the handler stopped before.
    int64_t resumeOffset() const { return resumeOffset_; }
    uint64_t resumeNumber() const { return resumeNumber_; }
    bool stopped() const { return stopped_; }

private:
    // Reads the next block after the `carried` bytes kept at the start of the
    // buffer: bytes read, 0 at the end, -1 on an error.
    ssize_t readBlock(std::size_t carried);
    bool stopAt(int64_t offset);

    InputStream& input_;
    bool deliverTail_;
    std::size_t blockSize_;
    // Not a vector: its bytes are read into, never zero-filled first.
    std::unique_ptr<char[]> buffer_;
    std::size_t bufferSize_;
    int64_t bufferOffset_;  // input offset of buffer_[0]
    uint64_t lines_;        // lines numbered so far
    int64_t resumeOffset_;
    uint64_t resumeNumber_;
    bool stopped_;
};

template <typename Handler>
bool LineSource::run(Handler&& handler) {
    std::size_t carried = 0;  // unfinished line kept at the start of the buffer
    bool skipping = false;    // inside a line longer than MAX_LINE_SIZE
    Line tooLong{};
    Line line{};
    int64_t stopOffset = 0;

    // A refused line is the only one that counts, so that the cutter's limit
    // of one line ends the walk right there.
    const auto offer = [&](const Line& candidate) {
        if (handler(candidate)) {
            return false;
        }
        lines_ = candidate.number - 1;
        stopOffset = candidate.startOffset;
        return true;
    };
    const auto skipped = [&] { ++lines_; };

    for (;;) {
        const ssize_t got = readBlock(carried);
        if (got < 0) {
            return false;
        }
        if (got == 0) {
            break;
        }
        char* const data = buffer_.get();
        const std::size_t total = carried + static_cast<std::size_t>(got);
        std::size_t from = 0;
        if (skipping) {
            const void* newline = std::memchr(data, '\n', total);
            if (newline == nullptr) {
                bufferOffset_ += static_cast<int64_t>(total);
                carried = 0;
                continue;
            }
            skipping = false;
            from = static_cast<std::size_t>(static_cast<const char*>(newline) - data) + 1;
            if (offer(tooLong)) {
                return stopAt(stopOffset);
            }
            resumeOffset_ = bufferOffset_ + static_cast<int64_t>(from);
            resumeNumber_ = lines_ + 1;
        }
        data[total] = '\0';
        const int64_t dataOffset = bufferOffset_;
        const auto deliver = [&](const char* text, std::size_t length) {
            line.number = ++lines_;
            line.startOffset = dataOffset + (text - data);
            line.tooLong = length > MAX_LINE_SIZE;
            line.text = line.tooLong ? "" : text;
            line.length = line.tooLong ? 0 : length;
            return offer(line);
        };
        const LineCutter::Walk walk =
            LineCutter::cut(data + from, total - from, 1, deliver, skipped);
        if (walk.counted > 0) {
            return stopAt(stopOffset);
        }
        const std::size_t consumed = static_cast<std::size_t>(walk.rest - data);
        resumeOffset_ = bufferOffset_ + static_cast<int64_t>(consumed);
        resumeNumber_ = lines_ + 1;
        carried = total - consumed;
        if (carried > MAX_LINE_SIZE) {
            // Too long to hold: skipped up to its newline, reported once.
            tooLong = Line{"", 0, ++lines_, resumeOffset_, true};
            skipping = true;
            bufferOffset_ += static_cast<int64_t>(total);
            carried = 0;
            continue;
        }
        std::memmove(data, walk.rest, carried);
        bufferOffset_ += static_cast<int64_t>(consumed);
    }

    // At the end: an unfinished line, delivered the way the reader delivers it.
    if (skipping && deliverTail_) {
        if (offer(tooLong)) {
            return stopAt(stopOffset);
        }
    } else if (carried > 0 && deliverTail_) {
        line.number = ++lines_;
        line.startOffset = bufferOffset_;
        line.tooLong = false;
        line.text = buffer_.get();
        line.length = LineCutter::textLength(buffer_.get(), carried);
        if (offer(line)) {
            return stopAt(stopOffset);
        }
    }
    return true;
}
