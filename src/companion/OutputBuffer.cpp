#include "companion/OutputBuffer.h"

#include <algorithm>

#include "companion/Descriptor.h"

OutputBuffer::OutputBuffer(int fd) : fd_(fd), pendingLines_(0), linesOut_(0), error_(0) {
    pending_.reserve(FLUSH_SIZE * 2);
}

OutputBuffer::~OutputBuffer() { flush(); }

void OutputBuffer::written() {
    ++pendingLines_;
    if (pending_.size() >= FLUSH_SIZE) {
        flush();
    }
}

bool OutputBuffer::flush() {
    if (error_ == 0 && !pending_.empty()) {
        std::size_t done = 0;
        error_ = Descriptor::writeAll(fd_, pending_, done);
        if (error_ == 0) {
            linesOut_ += pendingLines_;
        } else {
            // Every line ends in a newline: those before the failure are out.
            linesOut_ += static_cast<uint64_t>(std::count(
                pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(done), '\n'));
        }
    }
    pending_.clear();
    pendingLines_ = 0;
    return error_ == 0;
}
