#pragma once
// Makes any bytes safe for the two outputs that carry them: a tab-separated
// row (tabs, backslashes and control characters escaped) and a JSON string
// (valid UTF-8 kept, anything else replaced by U+FFFD).

#include <string>
#include <string_view>

class FieldEscaper {
public:
    // \t, \\ and \xNN for the other control characters (and DEL).
    static void appendTabField(std::string& out, std::string_view text);
    // A JSON string, quotes included. Returns false when some bytes were not
    // valid UTF-8 (they became U+FFFD).
    static bool appendJsonString(std::string& out, std::string_view text);
    static void appendHex(std::string& out, std::string_view bytes);
};
