#pragma once
// Cuts a block of bytes into lines by the one set of rules that the reader and
// the companion command share, so that both hand on exactly the same texts.
// Allocation-free: each line is passed on as a pointer and a length.

#include <cstddef>
#include <cstring>

class LineCutter {
public:
    // What one walk over a block left behind.
    struct Walk {
        // First byte not consumed: just after the last newline walked over, or
        // where the walk stopped at the line limit.
        const char* rest;
        // Lines for which the delivery counted itself.
        std::size_t counted;
    };

    // Walks [data, data + size), which must be followed by a zero byte at
    // data[size]. Lines end at a newline. A zero byte ends a line's text: the
    // rest of that line up to its newline is dropped, so a line that starts
    // with a zero byte is handed on as an empty text. A carriage return stays.
    // An empty line is skipped: `skipped` is called and nothing is counted.
    // `deliver(text, length)` returns whether the line counts; the walk stops
    // as soon as `maxLines` lines have counted. Bytes after the last newline
    // are not delivered: they are the caller's, from `rest` on.
    template <typename Deliver, typename Skipped>
    static Walk cut(const char* data, std::size_t size, std::size_t maxLines, Deliver&& deliver,
                    Skipped&& skipped);

    template <typename Deliver>
    static Walk cut(const char* data, std::size_t size, std::size_t maxLines, Deliver&& deliver) {
        return cut(data, size, maxLines, deliver, [] {});
    }

    // Walks [data, data + size) as `cut` does, but keeps every byte of a line:
    // a zero byte stays in the text and an empty line is delivered too. For a
    // shipper that must hand on exactly what was written; no zero byte is
    // needed after the data. Stops after `maxLines` lines or at the last newline.
    template <typename Deliver>
    static Walk cutWhole(const char* data, std::size_t size, std::size_t maxLines,
                         Deliver&& deliver);

    // Length of the text of an unfinished last line of `size` bytes: up to its
    // first zero byte, the same rule as for a whole line.
    static std::size_t textLength(const char* start, std::size_t size);
};

template <typename Deliver, typename Skipped>
LineCutter::Walk LineCutter::cut(const char* data, std::size_t size, std::size_t maxLines,
                                 Deliver&& deliver, Skipped&& skipped) {
    const char* const end = data + size;
    const char* lineStart = data;
    std::size_t counted = 0;
    while (counted < maxLines) {
        // One pass finds the newline or a zero byte, whichever comes first; the
        // zero byte after the data keeps it inside the block.
        const char* const textEnd = strchrnul(lineStart, '\n');
        const char* newline = textEnd;
        if (*textEnd == '\0') {
            if (textEnd == end) {
                break;
            }
            const void* found = std::memchr(textEnd, '\n', static_cast<std::size_t>(end - textEnd));
            if (found == nullptr) {
                break;
            }
            newline = static_cast<const char*>(found);
        }
        if (newline == lineStart) {
            skipped();
        } else if (deliver(static_cast<const char*>(lineStart),
                           static_cast<std::size_t>(textEnd - lineStart))) {
            ++counted;
        }
        lineStart = newline + 1;
    }
    return Walk{lineStart, counted};
}

template <typename Deliver>
LineCutter::Walk LineCutter::cutWhole(const char* data, std::size_t size, std::size_t maxLines,
                                      Deliver&& deliver) {
    const char* const end = data + size;
    const char* lineStart = data;
    std::size_t counted = 0;
    while (counted < maxLines && lineStart < end) {
        const void* found = std::memchr(lineStart, '\n', static_cast<std::size_t>(end - lineStart));
        if (found == nullptr) {
            break;
        }
        const char* const newline = static_cast<const char*>(found);
        deliver(static_cast<const char*>(lineStart), static_cast<std::size_t>(newline - lineStart));
        ++counted;
        lineStart = newline + 1;
    }
    return Walk{lineStart, counted};
}
