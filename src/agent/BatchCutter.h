#pragma once
// Cuts the bytes read from a log into what one ship call carries: whole lines
// with every byte as written, lines the store cannot hold as text (a NUL
// byte) set apart with their reason, and over-long lines cut into pieces so
// that one never stalls the stream.

#include <cstddef>
#include <string_view>
#include <vector>

class BatchCutter {
public:
    // A line longer than this is shipped in pieces of this size, each an
    // unparsed line, so that the reader never waits for a newline that may
    // never come, nor holds more than this of one line.
    static constexpr std::size_t MAX_LINE_BYTES = std::size_t{1} << 20;
    static constexpr std::string_view NUL_REASON = "line holds a NUL byte";
    static constexpr std::string_view LONG_REASON =
        "line longer than 1048576 bytes, stored in pieces";

    struct Cut {
        std::vector<std::string_view> lines;
        std::vector<std::string_view> unparsedLines;
        std::vector<std::string_view> unparsedReasons;
        // Bytes the cut covers: up to just after its last newline, or to the
        // end of its last piece of an over-long line.
        std::size_t consumed = 0;
        // Lines and pieces taken, empty lines included.
        std::size_t taken = 0;
    };

    // Cuts up to `maxLines` lines from [data, data + size); the views point
    // into the data. Bytes after the last newline stay uncut unless they are
    // an over-long line's piece.
    static void cut(const char* data, std::size_t size, std::size_t maxLines, Cut& cut);

    // Whether the data holds anything `cut` would take.
    static bool hasWhole(const char* data, std::size_t size);
};
