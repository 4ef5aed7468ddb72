#pragma once
// Collects output in one large buffer and writes it with few system calls,
// never one per line.

#include <cstddef>
#include <string>
#include <string_view>

class OutputBuffer {
public:
    static constexpr std::size_t FLUSH_SIZE = 1u << 20;

    explicit OutputBuffer(int fd);
    ~OutputBuffer();
    OutputBuffer(const OutputBuffer&) = delete;
    OutputBuffer& operator=(const OutputBuffer&) = delete;

    // The text to append to; call written() after each complete piece.
    std::string& text() { return pending_; }
    void written();
    // False once any write failed (errno is kept in error()).
    bool flush();
    bool failed() const { return error_ != 0; }
    int error() const { return error_; }

private:
    int fd_;
    std::string pending_;
    int error_;
};
