#include "converter/LogConverter.h"

#include <ctime>
#include <exception>
#include <string>
#include <string_view>

#include "common/EventLine.h"
#include "common/TextCopy.h"
#include "converter/ByteScan.h"
#include "converter/LocalTimeText.h"
#include "logging/Trace.h"

// The rules, in the order a line meets them: the type filter (AuditType), the
// container and the stamp, the type's path, the operation and the decision
// (EventWords), then the record key (KeyCache) and the output line. How bytes
// are searched and read lives in ByteScan, the time text in LocalTimeText.

using EventType = LogConverter::EventType;
using StatusType = LogConverter::StatusType;
using Stop = LogConverter::Stop;

bool LogConverter::debugMode_ = false;

LogConverter& LogConverter::getInstance() {
    static LogConverter instance;
    return instance;
}

void LogConverter::setDebugMode(bool enabled) { debugMode_ = enabled; }

LogConverter::LogConverter() { trace(Logger::INFO, "LogConverter initialized"); }

// ---------------------------------------------------------------------------
// What the steps read off a line

namespace {

// Markers searched through one of their bytes (ByteScan::findThrough), chosen
// rare in audit records: the underscore of the two field keys, "(", "n", "v".
constexpr char CONTAINER_ID_NEEDLE[] = "container_id=";
constexpr std::size_t CONTAINER_ID_ANCHOR = 9;
constexpr char PROC_PATH_NEEDLE[] = "proc_path=";
constexpr std::size_t PROC_PATH_ANCHOR = 4;
constexpr std::string_view PROC_PATH_KEY = "proc_path";
constexpr char STAMP_NEEDLE[] = "audit(";
constexpr std::size_t STAMP_ANCHOR = 5;
constexpr char NAME_NEEDLE[] = "name=";
constexpr std::size_t NAME_ANCHOR = 0;
constexpr char STATUS_NEEDLE[] = "avc:";
constexpr std::size_t STATUS_ANCHOR = 1;

// Stamps above this are milliseconds; exactly this value still counts as seconds.
constexpr long long MILLISECONDS_THRESHOLD = 10000000000LL;
constexpr long long MILLISECONDS_PER_SECOND = 1000;

// From `start` to the next blank or the line's end (a count past it takes the rest).
std::string_view upToBlank(std::string_view line, std::size_t start) {
    return line.substr(start, line.find(' ', start) - start);
}

// Between the double quote at `quote` and the next one; nothing without one.
std::string_view quotedAt(std::string_view line, std::size_t quote) {
    const std::size_t closing = line.find('"', quote + 1);
    return closing == std::string_view::npos ? std::string_view()
                                             : line.substr(quote + 1, closing - quote - 1);
}

// The value of a field whose "=" ends just before `start` (npos: no field):
// between double quotes when it opens with one (nothing when unterminated),
// else up to a blank, tab, comma or colon.
std::string_view valueAt(std::string_view line, std::size_t start) {
    if (start == std::string_view::npos || start >= line.size()) {
        return {};
    }
    if (line[start] == '"') {
        return quotedAt(line, start);
    }
    return line.substr(start, ByteScan::firstOf<' ', '\t', ',', ':'>(line, start) - start);
}

template <std::size_t ANCHOR, std::size_t SIZE>
std::string_view valueOf(std::string_view line, const char (&needle)[SIZE], std::size_t from = 0) {
    const std::size_t at = ByteScan::findThrough<ANCHOR>(line, needle, from);
    return valueAt(line, at == std::string_view::npos ? at : at + SIZE - 1);
}

std::string_view containerIdValue(std::string_view line) {
    // No "container_id=" can begin inside the handled opening, which has no
    // "c": the search starts after it, past that first underscore.
    constexpr std::string_view OPENING = AuditType::HANDLED_OPENING;
    return valueOf<CONTAINER_ID_ANCHOR>(line, CONTAINER_ID_NEEDLE,
                                        ByteScan::startsWith(line, OPENING) ? OPENING.size() : 0);
}

// Seconds of a stamp text after the millisecond rule.
bool stampSeconds(std::string_view text, long long& seconds) {
    if (!ByteScan::parseLeadingInteger(text, seconds)) {
        return false;
    }
    if (seconds > MILLISECONDS_THRESHOLD) {
        seconds /= MILLISECONDS_PER_SECOND;
    }
    return true;
}

// Appends the converted time to `out`, left empty when the time does not
// convert; running out of memory ends the same way, not in an exception.
void appendConvertedTime(long long seconds, std::string& out) {
    try {
        const std::string_view text = LocalTimeText::of(static_cast<time_t>(seconds));
        out.append(text.data(), text.size());
    } catch (...) {
        out.clear();
    }
}

// Unlike a field's value, an unquoted name ends only at a blank: commas,
// colons and tabs are part of a file name.
std::string_view nameValue(std::string_view line) {
    const std::size_t marker = ByteScan::findThrough<NAME_ANCHOR>(line, NAME_NEEDLE);
    const std::size_t start = marker + sizeof(NAME_NEEDLE) - 1;
    if (marker == std::string_view::npos || start >= line.size()) {
        return {};
    }
    return line[start] == '"' ? quotedAt(line, start) : upToBlank(line, start);
}

// Contents of the first braces, white space removed and lower-cased.
std::string extractOperation(std::string_view line) {
    std::string operation;
    const std::size_t open = line.find('{');
    const std::size_t close = open == std::string_view::npos ? open : line.find('}', open + 1);
    if (close != std::string_view::npos) {
        ByteScan::assignLoweredWithoutSpace(line.substr(open + 1, close - open - 1), operation);
    }
    return operation;
}

bool isBlankOrTab(char c) { return c == ' ' || c == '\t'; }

}  // namespace

// ---------------------------------------------------------------------------
// The parse, in the order a line travels. The steps are apart for reading
// only, and inlined into one frame, as a call each measurably costs a
// matching line.

LogConverter::ParseResult LogConverter::parseLine(const std::string& line, Stop& reason,
                                                  Rejection* rejection) const {
    ParseResult result;
    reason = rejectsAtOnce(line) ? Stop::OTHER_TYPE : parse(line, result, rejection);
    return result;
}

Stop LogConverter::parse(const std::string& line, ParseResult& result, Rejection* rejection) const {
    try {
        trace(debugMode_, Logger::DEBUG, [&] { return "Parsing line: " + line; });
        // The filter's own test, with the type it found kept for the parse,
        // which would otherwise look for the same first "type=" again.
        std::string_view type;
        if (!AuditType::findHandled(line, type)) {
            trace(debugMode_, Logger::DEBUG, [&] { return "Line should not be processed"; });
            return Stop::OTHER_TYPE;
        }
        return parseRecord(line, type, result, rejection);
    } catch (const std::exception& e) {
        trace(Logger::ERROR, std::string("Exception in parseLine: ") + e.what());
        if (rejection != nullptr) {
            rejection->error = e.what();
        }
        return Stop::EXCEPTION;
    }
}

Stop LogConverter::parseRecord(const std::string& line, std::string_view typeView,
                               ParseResult& result, Rejection* rejection) const {
    const std::string_view containerId = containerIdValue(line);
    if (containerId.empty()) {
        trace(debugMode_, Logger::DEBUG,
              [&] { return "container_id field not found in log, skipping"; });
        return Stop::NO_CONTAINER;
    }
    TextCopy::replace(result.containerId, containerId);
    trace(debugMode_, Logger::DEBUG,
          [&] { return "Container ID from container_id field: " + result.containerId; });

    // The parser has no use for the serial number.
    const AuditStamp stamp = findAuditStamp(line, false);
    if (!stamp.found) {
        trace(debugMode_, Logger::DEBUG, [&] { return "No timestamp found"; });
        return Stop::NO_STAMP;
    }
    if (stamp.hasSeconds) {
        appendConvertedTime(stamp.seconds, result.timestamp);
    }
    if (result.timestamp.empty()) {
        trace(debugMode_, Logger::DEBUG, [&] { return "Failed to convert timestamp"; });
        return Stop::BAD_STAMP;
    }
    trace(debugMode_, Logger::DEBUG, [&] { return "Converted timestamp: " + result.timestamp; });
    return parsePath(line, typeView, result, rejection);
}

[[gnu::always_inline]] inline Stop LogConverter::parsePath(const std::string& line,
                                                           std::string_view typeView,
                                                           ParseResult& result,
                                                           Rejection* rejection) const {
    // The filter passed one of the two types, spelled alike on every line:
    // their strings are made once.
    static const std::string avcType(AuditType::AVC);
    static const std::string netctlType(AuditType::NETCTL);
    const bool isAvc = typeView == AuditType::AVC;
    const std::string& type = isAvc ? avcType : netctlType;
    trace(debugMode_, Logger::DEBUG, [&] { return "Type: " + type; });
    if (rejection != nullptr) {
        rejection->type = typeView;
    }

    if (isAvc) {
        const std::string_view name = nameValue(line);
        result.path.append(name.data(), name.size());
    } else {
        const std::string_view procPath = valueOf<PROC_PATH_ANCHOR>(line, PROC_PATH_NEEDLE);
        result.path.append(procPath.data(), procPath.size());
        if (result.path.empty()) {
            // The second attempt gives the same result; it is the parser's
            // established order and costs nothing on a line that has the field.
            result.path = extractQuotedField(line, std::string(PROC_PATH_KEY));
        }
        trace(debugMode_ && !result.path.empty(), Logger::DEBUG,
              [&] { return "NETCTL path extracted from proc_path: " + result.path; });
    }
    if (result.path.empty()) {
        trace(debugMode_, Logger::DEBUG, [&] { return "No path found"; });
        return Stop::NO_PATH;
    }
    trace(debugMode_, Logger::DEBUG, [&] { return "Path: " + result.path; });
    return classify(line, type, isAvc, result, rejection);
}

[[gnu::always_inline]] inline Stop LogConverter::classify(const std::string& line,
                                                          const std::string& type, bool isAvc,
                                                          ParseResult& result,
                                                          Rejection* rejection) const {
    // A network-control record is classified without its operation, which
    // only the trace shows: it is taken for the trace alone.
    const std::string operation = isAvc || debugMode_ ? extractOperation(line) : std::string();
    trace(debugMode_, Logger::DEBUG, [&] { return "Operation: " + operation; });

    result.eventType = determineEventType(type, operation);
    if (result.eventType == EventType::UNKNOWN) {
        trace(debugMode_, Logger::DEBUG,
              [&] { return "Unknown event type: type=" + type + ", operation=" + operation; });
        if (rejection != nullptr) {
            rejection->operation = operation;
        }
        return Stop::UNKNOWN_EVENT;
    }

    result.statusType = classifyStatus(line, rejection);
    if (result.statusType == StatusType::UNKNOWN) {
        trace(debugMode_, Logger::DEBUG, [&] { return "Unknown status"; });
        return Stop::UNKNOWN_STATUS;
    }

    result.valid = true;
    trace(debugMode_, Logger::DEBUG, [&] {
        return "Parse successful - container_id: " + result.containerId + ", type: " + type +
               ", event: " + std::to_string(static_cast<int32_t>(result.eventType)) +
               ", path: " + result.path +
               ", status: " + std::to_string(static_cast<int32_t>(result.statusType));
    });
    return Stop::NONE;
}

EventType LogConverter::determineEventType(const std::string& type,
                                           const std::string& operation) const {
    EventType event = EventType::UNKNOWN;
    // The exact spelling, which the filter passes, before ignoring case.
    if (type == AuditType::NETCTL || ByteScan::equalsIgnoringCase(type, AuditType::NETCTL)) {
        event = EventType::NETCTL;
        trace(debugMode_, Logger::DEBUG, [&] {
            return "Type is " + std::string(AuditType::NETCTL) + " -> " +
                   std::string(eventWord(event));
        });
    } else if (type == AuditType::AVC || ByteScan::equalsIgnoringCase(type, AuditType::AVC)) {
        event = EventWords::operationEvent(operation);
        trace(debugMode_ && event != EventType::UNKNOWN, Logger::DEBUG, [&] {
            return "Operation is " + EventWords::wordsOf(event) + " -> " +
                   std::string(eventWord(event));
        });
    }
    // Also the message for an access-vector line whose operation matched
    // nothing, although its type is supported.
    trace(debugMode_ && event == EventType::UNKNOWN, Logger::DEBUG,
          [&] { return "Unsupported type: " + type; });
    return event;
}

StatusType LogConverter::determineStatusType(const std::string& line) const {
    return classifyStatus(line, nullptr);
}

StatusType LogConverter::classifyStatus(const std::string& line, Rejection* rejection) const {
    const std::string_view text = line;
    const std::size_t marker = ByteScan::findThrough<STATUS_ANCHOR>(text, STATUS_NEEDLE);
    if (rejection != nullptr) {
        rejection->statusMarker = marker != std::string_view::npos;
    }
    if (marker == std::string_view::npos) {
        trace(debugMode_, Logger::DEBUG, [&] { return "No 'avc:' found in line"; });
        return StatusType::UNKNOWN;
    }
    std::size_t start = marker + sizeof(STATUS_NEEDLE) - 1;
    while (start < text.size() && isBlankOrTab(text[start])) {
        ++start;
    }
    std::string_view word;
    const EventWords::Decision* const decision = EventWords::decide(text.substr(start), word);
    trace(debugMode_, Logger::DEBUG, [&] { return "Extracted status word: " + std::string(word); });
    if (decision != nullptr) {
        trace(debugMode_, Logger::DEBUG, [&] {
            return "Status mapping (contains " + std::string(decision->part) +
                   "): " + ByteScan::lowerCopy(word) + " -> " +
                   std::string(statusWord(decision->status));
        });
        return decision->status;
    }
    const std::string lowered = ByteScan::lowerCopy(word);
    constexpr const auto& DECISIONS = EventWords::DECISIONS;
    trace(Logger::ERROR, "Unexpected status word (neither " + std::string(DECISIONS[0].part) +
                             " nor " + std::string(DECISIONS[1].part) + "): " + lowered +
                             " in line: " + line);
    if (rejection != nullptr) {
        rejection->statusWord = lowered;
    }
    return StatusType::UNKNOWN;
}

// ---------------------------------------------------------------------------
// The steps on their own, for callers that need one of them

LogConverter::AuditStamp LogConverter::findAuditStamp(std::string_view line, bool withSerial) {
    AuditStamp stamp;
    const std::size_t marker = ByteScan::findThrough<STAMP_ANCHOR>(line, STAMP_NEEDLE);
    const std::size_t start = marker + sizeof(STAMP_NEEDLE) - 1;
    if (marker == std::string_view::npos || start >= line.size()) {
        return stamp;
    }
    const std::size_t colon = line.find(':', start);
    const std::size_t end = colon != std::string_view::npos ? colon : line.find(')', start);
    if (end == std::string_view::npos || end == start) {
        return stamp;
    }
    stamp.found = true;
    stamp.text = line.substr(start, end - start);
    stamp.hasSeconds = stampSeconds(stamp.text, stamp.seconds);
    if (withSerial && colon != std::string_view::npos) {
        stamp.hasSerial = ByteScan::parseLeadingUnsigned(line.substr(colon + 1), stamp.serial);
    }
    return stamp;
}

std::string LogConverter::convertTimestamp(const std::string& text) const {
    std::string converted;
    long long seconds = 0;
    if (stampSeconds(text, seconds)) {
        appendConvertedTime(seconds, converted);
    }
    return converted;
}

std::string LogConverter::extractField(const std::string& line, const std::string& key) const {
    // The first occurrence of key immediately followed by "=".
    for (std::size_t at = line.find(key); at != std::string::npos; at = line.find(key, at + 1)) {
        const std::size_t equals = at + key.size();
        if (equals < line.size() && line[equals] == '=') {
            return std::string(valueAt(line, equals + 1));
        }
    }
    return {};
}

std::string LogConverter::extractQuotedField(const std::string& line,
                                             const std::string& key) const {
    // The quotes are extractField's; the parser calls this as its second attempt.
    return extractField(line, key);
}

// ---------------------------------------------------------------------------
// The record key and the output line

namespace {

// The key holds at most this much of the time: all of a converted one.
constexpr std::size_t KEY_TIME_LENGTH = 16;
constexpr std::string_view DUPLICATE_MESSAGE = "Skipping duplicate log entry: ";

// The record key, empty for a record that is not valid.
template <typename Text>
void composeKey(const LogConverter::ParseResult& result, Text& key) {
    if (!result.valid) {
        key.clear();
        return;
    }
    EventLine::composeKey(key, result.containerId, result.path,
                          std::string_view(result.timestamp).substr(0, KEY_TIME_LENGTH));
}

}  // namespace

std::string LogConverter::generateLogHash(const ParseResult& result) const {
    std::string key;
    composeKey(result, key);
    return key;
}

std::string LogConverter::convertToOutputFormat(const ParseResult& result) {
    Stop reason = Stop::NONE;
    return convertToOutputFormat(result, reason);
}

std::string LogConverter::convertToOutputFormat(const ParseResult& result, Stop& reason) {
    if (!result.valid) {
        reason = Stop::NOT_VALID;
        return {};
    }
    composeKey(result, processedLogs_.text());
    // Copied into the cache only when new; on a duplicate the cache keeps its
    // own, equal copy, which is the one reported.
    std::string_view held;
    if (!processedLogs_.add(held)) {
        std::string message;
        message.reserve(DUPLICATE_MESSAGE.size() + held.size());
        trace(Logger::DEBUG, message.append(DUPLICATE_MESSAGE).append(held));
        reason = Stop::DUPLICATE;
        return {};
    }
    if (processedLogs_.overfull()) {
        processedLogs_.clear();
        trace(Logger::DEBUG, "Cleared duplicate cache (size limit reached)");
    }

    // A record without words keeps its key in the cache: it stays remembered
    // although nothing is written for it.
    const std::string_view event = eventWord(result.eventType);
    const std::string_view status = statusWord(result.statusType);
    if (event.empty() || status.empty()) {
        reason = Stop::NO_WORD;
        return {};
    }
    std::string line =
        EventLine::composed(result.timestamp, result.containerId, event, result.path, status);
    trace(debugMode_, Logger::DEBUG, [&] { return "Output: " + line; });
    reason = Stop::NONE;
    return line;
}
