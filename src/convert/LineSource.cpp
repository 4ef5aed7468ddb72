#include "convert/LineSource.h"

#include <cstring>

#include "reader/LineCutter.h"

LineSource::LineSource(InputStream& input, int64_t startOffset, uint64_t firstNumber,
                       bool deliverTail, std::size_t blockSize)
    : input_(input),
      deliverTail_(deliverTail),
      blockSize_(blockSize > 0 ? blockSize : BLOCK_SIZE),
      bufferOffset_(startOffset),
      lines_(firstNumber - 1),
      resumeOffset_(startOffset),
      resumeNumber_(firstNumber),
      stopped_(false) {}

bool LineSource::run(const Handler& handler) {
    buffer_.resize(blockSize_ + 1);
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
    const auto deliver = [&](const char* text, std::size_t length) {
        line.number = ++lines_;
        line.startOffset = bufferOffset_ + (text - buffer_.data());
        line.tooLong = length > MAX_LINE_SIZE;
        line.text = line.tooLong ? "" : text;
        line.length = line.tooLong ? 0 : length;
        return offer(line);
    };
    const auto skipped = [&] { ++lines_; };
    const auto stopHere = [&] {
        resumeOffset_ = stopOffset;
        resumeNumber_ = lines_ + 1;
        stopped_ = true;
        return true;
    };

    for (;;) {
        if (buffer_.size() < carried + blockSize_ + 1) {
            buffer_.resize(carried + blockSize_ + 1);
        }
        char* const data = buffer_.data();
        const ssize_t got = input_.read(data + carried, blockSize_);
        if (got < 0) {
            return false;
        }
        if (got == 0) {
            break;
        }
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
                return stopHere();
            }
            resumeOffset_ = bufferOffset_ + static_cast<int64_t>(from);
            resumeNumber_ = lines_ + 1;
        }
        data[total] = '\0';
        const LineCutter::Walk walk =
            LineCutter::cut(data + from, total - from, 1, deliver, skipped);
        if (walk.counted > 0) {
            return stopHere();
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
            return stopHere();
        }
    } else if (carried > 0 && deliverTail_) {
        line.number = ++lines_;
        line.startOffset = bufferOffset_;
        line.tooLong = false;
        line.text = buffer_.data();
        line.length = LineCutter::textLength(buffer_.data(), carried);
        if (offer(line)) {
            return stopHere();
        }
    }
    return true;
}
