// Fuzz target: one arbitrary input line through parseLine and, when valid,
// convertToOutputFormat, the way the line callback drives them.
//
// Checks beyond "no crash, no sanitizer report":
//  - the debug trace never changes the parse result (the line is parsed with
//    the trace off and on, and both records must be equal);
//  - a valid record has every field the output needs, and a non-empty output
//    line is exactly the documented concatenation of those fields;
//  - the same record given again straight away is suppressed as a duplicate,
//    unless its insertion was the one that emptied the cache.

#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "converter/LogConverter.h"

namespace {

bool sameRecord(const LogConverter::ParseResult& a, const LogConverter::ParseResult& b) {
    return a.timestamp == b.timestamp && a.containerId == b.containerId &&
           a.eventType == b.eventType && a.statusType == b.statusType && a.path == b.path &&
           a.spare == b.spare && a.valid == b.valid;
}

std::string eventWord(LogConverter::EventType type) {
    switch (type) {
        case LogConverter::EventType::EXECTL:
            return "exectl";
        case LogConverter::EventType::FILECTL:
            return "filectl";
        case LogConverter::EventType::NETCTL:
            return "netctl";
        case LogConverter::EventType::UNKNOWN:
            break;
    }
    return "";
}

std::string statusWord(LogConverter::StatusType type) {
    switch (type) {
        case LogConverter::StatusType::ENFORCING:
            return "enforcing";
        case LogConverter::StatusType::PERMISSIVE:
            return "permissive";
        case LogConverter::StatusType::UNKNOWN:
            break;
    }
    return "";
}

// Distinct keys inserted since the cache was last emptied, mirrored here so
// that the duplicate check knows when a clearing took the key away again.
std::size_t keysSinceClear = 0;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    fuzz_support::quietLogger();
    LogConverter::setDebugMode(false);
    LogConverter::getInstance();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string line(reinterpret_cast<const char*>(data), size);
    LogConverter& converter = LogConverter::getInstance();

    LogConverter::setDebugMode(false);
    const LogConverter::ParseResult plain = converter.parseLine(line);
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult traced = converter.parseLine(line);
    LogConverter::setDebugMode(false);
    FUZZ_CHECK(sameRecord(plain, traced));
    FUZZ_CHECK(plain.spare.empty());

    if (!plain.valid) {
        FUZZ_CHECK(converter.convertToOutputFormat(plain).empty());
        return 0;
    }
    FUZZ_CHECK(!plain.containerId.empty());
    FUZZ_CHECK(!plain.timestamp.empty());
    FUZZ_CHECK(!plain.path.empty());
    FUZZ_CHECK(!eventWord(plain.eventType).empty());
    FUZZ_CHECK(!statusWord(plain.statusType).empty());

    const std::string output = converter.convertToOutputFormat(plain);
    if (output.empty()) {
        // Seen before: a duplicate of an earlier input.
        return 0;
    }
    ++keysSinceClear;
    const bool cacheCleared = keysSinceClear > LogConverter::MAX_CACHE_SIZE;
    if (cacheCleared) {
        keysSinceClear = 0;
    }
    FUZZ_CHECK(output == plain.timestamp + ",container_id=" + plain.containerId +
                             ",Event=" + eventWord(plain.eventType) + ",path=" + plain.path +
                             ",status=" + statusWord(plain.statusType));
    FUZZ_CHECK(converter.convertToOutputFormat(plain).empty() != cacheCleared);
    if (cacheCleared) {
        // The repeat was written again and its key is now the only one cached.
        keysSinceClear = 1;
    }
    return 0;
}
