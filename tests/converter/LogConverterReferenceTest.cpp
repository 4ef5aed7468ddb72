// The parser against a plain reading of its rules, over many generated lines:
// every search of the parser is written here the obvious way (find, a loop
// per byte, std::stoll, localtime_r and strftime), so any shortcut the
// parser takes must give the same record, field for field, for valid and
// rejected lines alike. With the trace on, the parser takes none of its
// shortcuts, which makes a second comparison.

#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <ctime>
#include <random>
#include <string>
#include <vector>

#include "converter/LogConverter.h"
#include "logging/Logger.h"
#include "support/AuditLines.h"
#include "support/ScopedTimeZone.h"

namespace {

using EventType = LogConverter::EventType;
using StatusType = LogConverter::StatusType;

constexpr std::size_t npos = std::string::npos;

bool isFieldEnd(char c) { return c == ' ' || c == '\t' || c == ',' || c == ':'; }
bool isStatusEnd(char c) { return c == ' ' || c == '\t' || c == ':'; }

std::string lowered(std::string text) {
    for (char& c : text) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

std::string field(const std::string& line, const std::string& key) {
    const std::size_t at = line.find(key + "=");
    if (at == npos) {
        return "";
    }
    const std::size_t start = at + key.size() + 1;
    if (start >= line.size()) {
        return "";
    }
    if (line[start] == '"') {
        if (start + 1 >= line.size()) {
            return "";
        }
        const std::size_t closing = line.find('"', start + 1);
        return closing == npos ? "" : line.substr(start + 1, closing - start - 1);
    }
    std::size_t end = start;
    while (end < line.size() && !isFieldEnd(line[end])) {
        ++end;
    }
    return line.substr(start, end - start);
}

std::string localText(const std::string& stamp) {
    try {
        long long seconds = std::stoll(stamp);
        if (seconds > 10000000000LL) {
            seconds /= 1000;
        }
        const auto when = static_cast<time_t>(seconds);
        struct tm local {};
        if (localtime_r(&when, &local) == nullptr) {
            return "";
        }
        char buffer[256];
        return std::string(buffer, std::strftime(buffer, sizeof(buffer), "%b %d %H:%M:%S", &local));
    } catch (...) {
        return "";
    }
}

bool typeOf(const std::string& line, std::string& type) {
    const std::size_t at = line.find("type=");
    if (at == npos) {
        return false;
    }
    const std::size_t end = line.find(' ', at + 5);
    type = line.substr(at + 5, end == npos ? npos : end - at - 5);
    return true;
}

EventType eventOf(const std::string& type, const std::string& operation) {
    const std::string kind = lowered(type);
    if (kind == "qirn_netctl") {
        return EventType::NETCTL;
    }
    if (kind == "qirn_avc") {
        const std::string op = lowered(operation);
        const auto has = [&](const char* word) { return op.find(word) != npos; };
        if (has("exec") || has("interpret")) {
            return EventType::EXECTL;
        }
        if (has("write") || has("truncate") || has("setattr") || has("unlink") || has("rename")) {
            return EventType::FILECTL;
        }
    }
    return EventType::UNKNOWN;
}

StatusType statusOf(const std::string& line) {
    const std::size_t at = line.find("avc:");
    if (at == npos) {
        return StatusType::UNKNOWN;
    }
    std::size_t start = at + 4;
    while (start < line.size() && (line[start] == ' ' || line[start] == '\t')) {
        ++start;
    }
    std::size_t end = start;
    while (end < line.size() && !isStatusEnd(line[end])) {
        ++end;
    }
    const std::string word = lowered(line.substr(start, end - start));
    if (word.find("denied") != npos) {
        return StatusType::ENFORCING;
    }
    if (word.find("detect") != npos) {
        return StatusType::PERMISSIVE;
    }
    return StatusType::UNKNOWN;
}

// The record as the rules build it, filled up to the step that fails.
LogConverter::ParseResult reference(const std::string& line) {
    LogConverter::ParseResult result;
    std::string type;
    if (!typeOf(line, type) || (type != "QIRN_AVC" && type != "QIRN_NETCTL")) {
        return result;
    }
    result.containerId = field(line, "container_id");
    if (result.containerId.empty()) {
        return result;
    }
    const std::size_t marker = line.find("audit(");
    if (marker == npos || marker + 6 >= line.size()) {
        return result;
    }
    const std::size_t start = marker + 6;
    std::size_t end = line.find(':', start);
    if (end == npos) {
        end = line.find(')', start);
    }
    if (end == npos || end == start) {
        return result;
    }
    result.timestamp = localText(line.substr(start, end - start));
    if (result.timestamp.empty()) {
        return result;
    }
    if (type == "QIRN_AVC") {
        const std::size_t name = line.find("name=");
        if (name != npos && name + 5 < line.size()) {
            const std::size_t from = name + 5;
            if (line[from] == '"') {
                const std::size_t closing = line.find('"', from + 1);
                if (closing != npos) {
                    result.path = line.substr(from + 1, closing - from - 1);
                }
            } else {
                const std::size_t blank = line.find(' ', from);
                result.path = line.substr(from, blank == npos ? npos : blank - from);
            }
        }
    } else {
        result.path = field(line, "proc_path");
    }
    if (result.path.empty()) {
        return result;
    }
    std::string operation;
    const std::size_t open = line.find('{');
    const std::size_t close = open == npos ? npos : line.find('}', open + 1);
    if (close != npos) {
        for (std::size_t i = open + 1; i < close; ++i) {
            const auto c = static_cast<unsigned char>(line[i]);
            if (!std::isspace(c)) {
                operation += static_cast<char>(std::tolower(c));
            }
        }
    }
    result.eventType = eventOf(type, operation);
    if (result.eventType == EventType::UNKNOWN) {
        return result;
    }
    result.statusType = statusOf(line);
    if (result.statusType == StatusType::UNKNOWN) {
        return result;
    }
    result.valid = true;
    return result;
}

// Pieces that real records are made of, the parser's markers, their near
// misses, and the bytes that end or quote values.
const std::vector<std::string> PIECES = {
    "type=",
    "QIRN_AVC",
    "QIRN_NETCTL",
    "QIRN_",
    "qirn_avc",
    "SYSCALL",
    "container_id=",
    "container_id",
    "container_",
    "_id=",
    "audit(",
    "audit",
    "1731676205",
    "1731676205.123",
    "1731676205123",
    "99999999999999999999",
    "12345678",
    "0000000000000000001",
    "-42",
    "+7",
    ":",
    ")",
    "(",
    "name=",
    "name",
    "nam",
    "proc_path=",
    "proc_path",
    "path=",
    "{",
    "}",
    "avc:",
    "avc",
    "denied",
    "DENIED",
    "Denied,",
    "detected",
    "detect",
    "undenied",
    "exec",
    "EXECUTE",
    "interpret",
    "write",
    "Write",
    "truncate",
    "setattr",
    "unlink",
    "rename",
    "read",
    "append",
    "\"",
    " ",
    "  ",
    "\t",
    ",",
    "=",
    "/usr/bin/curl",
    "/var/lib/a b",
    "3f2a9c",
    "x",
    "\xff",
    "\x80",
    "\r",
    "\v",
    "msg=",
};

std::string generated(std::mt19937& random) {
    std::string line;
    // Most lines open as records do, so that they get past the filter.
    switch (random() % 4) {
        case 0:
            line = "type=QIRN_AVC ";
            break;
        case 1:
            line = "type=QIRN_NETCTL ";
            break;
        default:
            break;
    }
    const std::size_t count = 1 + random() % 30;
    for (std::size_t i = 0; i < count; ++i) {
        if (random() % 8 == 0) {
            line += static_cast<char>(random() % 256);
        } else {
            line += PIECES[random() % PIECES.size()];
        }
    }
    return line;
}

// A realistic record with a few bytes changed, inserted or removed.
std::string mutated(std::mt19937& random) {
    static const std::vector<std::string> bases = {
        testing_support::avcLine(1731676205, "3f2a9c7b1e04", "/usr/bin/python3"),
        testing_support::netctlLine(1731676205, "3f2a9c", "/usr/bin/curl"),
        "type=QIRN_AVC msg=audit(1731676205.485:1006): avc:  denied  { write append } for  "
        "pid=3742 comm=\"bash\" name=\"/var/lib/a b\" dev=\"sda1\" ino=327160 "
        "container_id=97553a902931 tclass=file permissive=0",
    };
    std::string line = bases[random() % bases.size()];
    const std::size_t edits = 1 + random() % 4;
    for (std::size_t i = 0; i < edits && !line.empty(); ++i) {
        const std::size_t at = random() % line.size();
        switch (random() % 3) {
            case 0:
                line[at] = static_cast<char>(random() % 256);
                break;
            case 1:
                line.insert(at, PIECES[random() % PIECES.size()]);
                break;
            default:
                line.erase(at, 1 + random() % 8);
                break;
        }
    }
    return line;
}

void ignore(void*, Logger::Level, const std::string&) {}

class LogConverterReferenceTest : public ::testing::Test {
protected:
    void SetUp() override {
        Logger::getInstance().setCapture(&ignore, nullptr);
        LogConverter::setDebugMode(false);
    }
    void TearDown() override {
        LogConverter::setDebugMode(false);
        Logger::getInstance().setCapture(nullptr, nullptr);
    }

    static void expectSame(const LogConverter::ParseResult& expected,
                           const LogConverter::ParseResult& actual, const std::string& line) {
        ASSERT_EQ(expected.valid, actual.valid) << line;
        ASSERT_EQ(expected.containerId, actual.containerId) << line;
        ASSERT_EQ(expected.timestamp, actual.timestamp) << line;
        ASSERT_EQ(expected.path, actual.path) << line;
        ASSERT_EQ(expected.eventType, actual.eventType) << line;
        ASSERT_EQ(expected.statusType, actual.statusType) << line;
        ASSERT_TRUE(actual.spare.empty()) << line;
    }

    void compare(const std::string& line) {
        LogConverter& converter = LogConverter::getInstance();
        const LogConverter::ParseResult expected = reference(line);
        expectSame(expected, converter.parseLine(line), line);
        LogConverter::setDebugMode(true);
        expectSame(expected, converter.parseLine(line), line);
        LogConverter::setDebugMode(false);
    }

    testing_support::ScopedTimeZone zone_{"Asia/Kolkata"};
};

TEST_F(LogConverterReferenceTest, GeneratedLinesParseAsTheRulesSay) {
    std::mt19937 random(20261123);
    for (int i = 0; i < 100000; ++i) {
        compare(generated(random));
        if (HasFatalFailure()) {
            return;
        }
    }
}

TEST_F(LogConverterReferenceTest, EditedRecordsParseAsTheRulesSay) {
    std::mt19937 random(7);
    for (int i = 0; i < 100000; ++i) {
        compare(mutated(random));
        if (HasFatalFailure()) {
            return;
        }
    }
}

TEST_F(LogConverterReferenceTest, ValuesCutAtEveryLength) {
    // The field and digit readers look at eight bytes at a time: values and
    // stamps of every length up to past two words, each ended by every kind
    // of delimiter and by the end of the line.
    for (std::size_t length = 1; length <= 20; ++length) {
        const std::string value(length, 'a');
        const std::string digits = std::string("1731676205123456789").substr(0, length);
        for (const std::string end : {"", " ", "\t", ",", ":", ")", "x"}) {
            compare("type=QIRN_NETCTL msg=audit(" + digits + end +
                    "): avc: denied proc_path=" + value + end + " container_id=" + value + end);
            if (HasFatalFailure()) {
                return;
            }
        }
    }
}

}  // namespace
