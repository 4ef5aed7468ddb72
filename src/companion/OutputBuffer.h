#pragma once
// Collects output in one large buffer and writes it with few system calls,
// never one per line. Counts the lines that reached the descriptor, so that
// a report after a failed write tells only what was really written.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

class OutputBuffer {
public:
    static constexpr std::size_t FLUSH_SIZE = 1u << 20;

    explicit OutputBuffer(int fd);
    ~OutputBuffer();
    OutputBuffer(const OutputBuffer&) = delete;
    OutputBuffer& operator=(const OutputBuffer&) = delete;

    // The text to append to; call written() after each complete line.
    std::string& text() { return pending_; }
    void written();
    // False once any write failed (errno is kept in error()); nothing is
    // written after a failure.
    bool flush();
    bool failed() const { return error_ != 0; }
    int error() const { return error_; }
    // Complete lines that reached the descriptor.
    uint64_t linesOut() const { return linesOut_; }

private:
    int fd_;
    std::string pending_;
    uint64_t pendingLines_;
    uint64_t linesOut_;
    int error_;
};
