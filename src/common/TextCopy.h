#pragma once
// Replacing a reused string's text. clear() and append() copy into the room
// the string has without the general replacement that assign() goes through
// (which allows for the source overlapping the string); on the hot paths that
// reuse a string per line that difference is measurable.

#include <cstddef>
#include <string>
#include <string_view>

class TextCopy {
public:
    template <typename Text>
    static void replace(Text& out, const char* data, std::size_t size) {
        out.clear();
        out.append(data, size);
    }
    template <typename Text>
    static void replace(Text& out, std::string_view text) {
        replace(out, text.data(), text.size());
    }
};
