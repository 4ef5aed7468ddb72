#pragma once
// The one way the command writes to a file descriptor: everything or an
// error, whatever short writes and signals come in between.

#include <cstddef>
#include <string_view>

class Descriptor {
public:
    // Writes all of `text`, resuming after a short write or EINTR. Returns 0,
    // or the errno of the write that failed; `done` tells how many bytes
    // reached the descriptor either way.
    static int writeAll(int fd, std::string_view text, std::size_t& done);
    static int writeAll(int fd, std::string_view text) {
        std::size_t done = 0;
        return writeAll(fd, text, done);
    }
};
