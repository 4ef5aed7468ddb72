#include "companion/LineSource.h"

#include <cstring>
#include <utility>

#include "reader/LogReader.h"

const std::size_t LineSource::MAX_LINE_SIZE = static_cast<std::size_t>(LogReader::MAX_READ_SIZE);

LineSource::LineSource(InputStream& input, int64_t startOffset, uint64_t firstNumber, bool withTail,
                       std::size_t blockSize)
    : input_(input),
      withTail_(withTail),
      blockSize_(blockSize > 0 ? blockSize : BLOCK_SIZE),
      bufferSize_(0),
      bufferOffset_(startOffset),
      lines_(firstNumber - 1),
      resumeOffset_(startOffset),
      resumeNumber_(firstNumber),
      stopped_(false) {}

LineSource::Read LineSource::nextBlock(Block& block) {
    for (;;) {
        const ssize_t got = readBlock(carried_);
        if (got < 0) {
            return Read::FAILED;
        }
        if (got == 0) {
            return Read::END;
        }
        char* const data = buffer_.get();
        const std::size_t total = carried_ + static_cast<std::size_t>(got);
        std::size_t from = 0;
        block.finished = nullptr;
        if (skipping_) {
            const void* newline = std::memchr(data, '\n', total);
            if (newline == nullptr) {
                bufferOffset_ += static_cast<int64_t>(total);
                carried_ = 0;
                continue;
            }
            skipping_ = false;
            from = static_cast<std::size_t>(static_cast<const char*>(newline) - data) + 1;
            block.finished = &tooLong_;
            // Where the next run starts once the handler has taken it.
            resumeOffset_ = bufferOffset_ + static_cast<int64_t>(from);
            resumeNumber_ = lines_ + 1;
        }
        // The zero that the cutter needs after the data.
        data[total] = '\0';
        block.base = data;
        block.baseOffset = bufferOffset_;
        block.data = data + from;
        block.size = total - from;
        return Read::BLOCK;
    }
}

void LineSource::endBlock(const Block& block, const char* rest) {
    const std::size_t total = static_cast<std::size_t>(block.data + block.size - block.base);
    const std::size_t consumed = static_cast<std::size_t>(rest - block.base);
    resumeOffset_ = bufferOffset_ + static_cast<int64_t>(consumed);
    resumeNumber_ = lines_ + 1;
    carried_ = total - consumed;
    if (carried_ > MAX_LINE_SIZE) {
        // Too long to hold: skipped up to its newline, reported once.
        tooLong_ = Line{"", 0, ++lines_, resumeOffset_, true};
        skipping_ = true;
        bufferOffset_ += static_cast<int64_t>(total);
        carried_ = 0;
        return;
    }
    std::memmove(buffer_.get(), rest, carried_);
    bufferOffset_ += static_cast<int64_t>(consumed);
}

const LineSource::Line* LineSource::tailLine() {
    if (!withTail_) {
        return nullptr;
    }
    // An unfinished line, handed on the way the reader hands it on.
    if (skipping_) {
        return &tooLong_;
    }
    if (carried_ == 0) {
        return nullptr;
    }
    tail_.number = ++lines_;
    tail_.startOffset = bufferOffset_;
    tail_.tooLong = false;
    tail_.text = buffer_.get();
    tail_.length = LineCutter::textLength(buffer_.get(), carried_);
    return &tail_;
}

bool LineSource::stopBefore(const Line& line) {
    lines_ = line.number - 1;
    resumeOffset_ = line.startOffset;
    resumeNumber_ = lines_ + 1;
    stopped_ = true;
    return true;
}

ssize_t LineSource::readBlock(std::size_t carried) {
    // One byte more for the zero that the cutter needs after the data.
    // Room for one more block behind the carried line from the start, so
    // that the usual carried line never makes the buffer grow.
    const std::size_t wanted = carried + blockSize_ + 1;
    if (bufferSize_ < wanted) {
        const std::size_t size = wanted > 2 * blockSize_ ? wanted : 2 * blockSize_;
        std::unique_ptr<char[]> larger(new char[size]);
        if (carried > 0) {
            std::memcpy(larger.get(), buffer_.get(), carried);
        }
        buffer_ = std::move(larger);
        bufferSize_ = size;
    }
    return input_.read(buffer_.get() + carried, blockSize_);
}
