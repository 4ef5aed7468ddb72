#include "convert/LineSource.h"

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

ssize_t LineSource::readBlock(std::size_t carried) {
    // One byte more for the zero that the cutter needs after the data.
    if (buffer_.size() < carried + blockSize_ + 1) {
        buffer_.resize(carried + blockSize_ + 1);
    }
    return input_.read(buffer_.data() + carried, blockSize_);
}

bool LineSource::stopAt(int64_t offset) {
    resumeOffset_ = offset;
    resumeNumber_ = lines_ + 1;
    stopped_ = true;
    return true;
}
