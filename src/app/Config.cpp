#include "app/Config.h"

#include <fstream>

namespace {

// Only space and tab count as blanks: a carriage return from a CR LF file stays
// in the value.
std::string trimBlanks(const std::string& text) {
    std::string::size_type begin = 0;
    while (begin < text.size() && (text[begin] == ' ' || text[begin] == '\t')) {
        ++begin;
    }
    std::string::size_type end = text.size();
    while (end > begin && (text[end - 1] == ' ' || text[end - 1] == '\t')) {
        --end;
    }
    return text.substr(begin, end - begin);
}

bool isTrueWord(const std::string& value) {
    return value == "true" || value == "1" || value == "yes";
}

}  // namespace

bool forEachSetting(const std::string& path,
                    const std::function<void(const std::string&, const std::string&)>& apply) {
    std::ifstream file(path);
    if (!file.is_open()) {
        return false;
    }

    std::string line;
    while (std::getline(file, line)) {
        // A comment only when "#" stands in the very first column.
        if (line.empty() || line[0] == '#') {
            continue;
        }
        const std::string::size_type equals = line.find('=');
        if (equals == std::string::npos) {
            continue;
        }
        apply(trimBlanks(line.substr(0, equals)), trimBlanks(line.substr(equals + 1)));
    }
    return true;
}

bool loadConfig(const std::string& path, std::string& inputPath, std::string& outputPath,
                bool& debug) {
    return forEachSetting(path, [&](const std::string& key, const std::string& value) {
        if (key == "input_log") {
            inputPath = value;
        } else if (key == "output_log") {
            outputPath = value;
        } else if (key == "debug") {
            debug = isTrueWord(value);
        }
    });
}
