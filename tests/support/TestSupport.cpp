#include "support/TestSupport.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

#include "converter/LogConverter.h"
#include "logging/Logger.h"

namespace testing_support {

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

void appendFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::app);
    out << content;
}

void appendLines(const std::string& path, const std::vector<std::string>& lines) {
    std::string content;
    for (const auto& line : lines) {
        content += line;
        content += '\n';
    }
    appendFile(path, content);
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

std::vector<std::string> readLines(const std::string& path) {
    std::vector<std::string> lines;
    std::ifstream in(path, std::ios::binary);
    std::string line;
    while (std::getline(in, line)) {
        lines.push_back(line);
    }
    return lines;
}

bool fileExists(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0;
}

long long fileSize(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 ? static_cast<long long>(info.st_size) : -1;
}

bool waitUntil(const std::function<bool()>& predicate, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
        if (predicate()) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return predicate();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

std::vector<std::string> stripTimestamps(const std::vector<std::string>& lines) {
    std::vector<std::string> stripped;
    stripped.reserve(lines.size());
    for (const auto& line : lines) {
        // "[YYYY-MM-DD HH:MM:SS.mmm] " is 26 characters.
        if (line.size() >= 26 && line[0] == '[' && line[24] == ']' && line[25] == ' ') {
            stripped.push_back(line.substr(26));
        } else {
            stripped.push_back(line);
        }
    }
    return stripped;
}

bool containsLine(const std::vector<std::string>& lines, const std::string& line) {
    for (const auto& candidate : lines) {
        if (candidate == line) {
            return true;
        }
    }
    return false;
}

bool containsSubstring(const std::vector<std::string>& lines, const std::string& part) {
    return countSubstring(lines, part) > 0;
}

int countSubstring(const std::vector<std::string>& lines, const std::string& part) {
    int count = 0;
    for (const auto& candidate : lines) {
        if (candidate.find(part) != std::string::npos) {
            ++count;
        }
    }
    return count;
}

void initLogger(const std::string& path, bool debug) {
    Logger::getInstance().closeFile();
    Logger::getInstance().init(path, debug);
}

bool emptyDuplicateCache(const std::string& scratchLogPath) {
    initLogger(scratchLogPath, true);
    LogConverter::setDebugMode(false);
    // With the converter's trace off, the clearing message is the only line a
    // new key can log, so the log growing means the cache has just been emptied.
    const long long sizeBefore = fileSize(scratchLogPath);
    LogConverter& converter = LogConverter::getInstance();
    LogConverter::ParseResult record;
    record.timestamp = "Nov 15 13:10:05";
    record.path = "/drain";
    record.eventType = LogConverter::EventType::FILECTL;
    record.statusType = LogConverter::StatusType::ENFORCING;
    record.valid = true;
    for (std::size_t i = 0;
         i <= LogConverter::MAX_CACHE_SIZE && fileSize(scratchLogPath) == sizeBefore; ++i) {
        record.containerId = "drain" + std::to_string(i);
        converter.convertToOutputFormat(record);
    }
    return fileSize(scratchLogPath) != sizeBefore;
}

}  // namespace testing_support
