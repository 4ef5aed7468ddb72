#include "companion/LineSource.h"

#include <cstring>
#include <utility>

LineSource::LineSource(InputStream& input, int64_t startOffset, uint64_t firstNumber,
                       bool deliverTail, std::size_t blockSize)
    : input_(input),
      deliverTail_(deliverTail),
      blockSize_(blockSize > 0 ? blockSize : BLOCK_SIZE),
      bufferSize_(0),
      bufferOffset_(startOffset),
      lines_(firstNumber - 1),
      resumeOffset_(startOffset),
      resumeNumber_(firstNumber),
      stopped_(false) {}

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

bool LineSource::stopAt(int64_t offset) {
    resumeOffset_ = offset;
    resumeNumber_ = lines_ + 1;
    stopped_ = true;
    return true;
}
