#include "convert/OutputBuffer.h"

#include <unistd.h>

#include <cerrno>

OutputBuffer::OutputBuffer(int fd) : fd_(fd), error_(0) { pending_.reserve(FLUSH_SIZE * 2); }

OutputBuffer::~OutputBuffer() { flush(); }

void OutputBuffer::written() {
    if (pending_.size() >= FLUSH_SIZE) {
        flush();
    }
}

bool OutputBuffer::flush() {
    std::size_t done = 0;
    while (done < pending_.size() && error_ == 0) {
        const ssize_t wrote = write(fd_, pending_.data() + done, pending_.size() - done);
        if (wrote < 0) {
            if (errno != EINTR) {
                error_ = errno;
            }
            continue;
        }
        done += static_cast<std::size_t>(wrote);
    }
    pending_.clear();
    return error_ == 0;
}
