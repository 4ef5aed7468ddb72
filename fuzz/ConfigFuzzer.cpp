// Fuzz target: arbitrary bytes as the configuration file, read by loadConfig
// through a real file.
//
// The result is compared with a direct model of the file format: lines cut at
// newlines, "#" only in the first column, key before the first "=", blanks
// (space and tab only) trimmed, last occurrence wins, debug true only for
// "true", "1" or "yes".

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "app/Config.h"

namespace {

const std::string DEFAULT_INPUT = "/var/log/qirn_audit.log";
const std::string DEFAULT_OUTPUT = "/var/log/zarvo_container.log";

std::string configPath;

std::string trimBlanks(const std::string& text) {
    const std::size_t begin = text.find_first_not_of(" \t");
    if (begin == std::string::npos) {
        return "";
    }
    const std::size_t end = text.find_last_not_of(" \t");
    return text.substr(begin, end - begin + 1);
}

struct Settings {
    std::string input = DEFAULT_INPUT;
    std::string output = DEFAULT_OUTPUT;
    bool debug = false;
};

Settings model(const std::string& content) {
    Settings settings;
    std::size_t start = 0;
    while (start < content.size()) {
        std::size_t newline = content.find('\n', start);
        if (newline == std::string::npos) {
            newline = content.size();
        }
        const std::string line = content.substr(start, newline - start);
        start = newline + 1;
        if (line.empty() || line[0] == '#') {
            continue;
        }
        const std::size_t equals = line.find('=');
        if (equals == std::string::npos) {
            continue;
        }
        const std::string key = trimBlanks(line.substr(0, equals));
        const std::string value = trimBlanks(line.substr(equals + 1));
        if (key == "input_log") {
            settings.input = value;
        } else if (key == "output_log") {
            settings.output = value;
        } else if (key == "debug") {
            settings.debug = value == "true" || value == "1" || value == "yes";
        }
    }
    return settings;
}

void writeAll(const std::string& path, const uint8_t* data, size_t size) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    FUZZ_CHECK(fd >= 0);
    size_t written = 0;
    while (written < size) {
        const ssize_t n = write(fd, data + written, size - written);
        FUZZ_CHECK(n > 0);
        written += static_cast<size_t>(n);
    }
    close(fd);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    configPath = fuzz_support::scratchDirectory() + "/qirn-log-converter.conf";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    writeAll(configPath, data, size);

    Settings loaded;
    FUZZ_CHECK(loadConfig(configPath, loaded.input, loaded.output, loaded.debug));

    const Settings expected = model(std::string(reinterpret_cast<const char*>(data), size));
    FUZZ_CHECK(loaded.input == expected.input);
    FUZZ_CHECK(loaded.output == expected.output);
    FUZZ_CHECK(loaded.debug == expected.debug);

    // A missing file leaves every output untouched.
    Settings untouched;
    untouched.input = "in";
    untouched.output = "out";
    untouched.debug = true;
    FUZZ_CHECK(
        !loadConfig(configPath + ".absent", untouched.input, untouched.output, untouched.debug));
    FUZZ_CHECK(untouched.input == "in" && untouched.output == "out" && untouched.debug);
    return 0;
}
