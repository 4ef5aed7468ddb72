#include "converter/LogConverter.h"

#include <array>
#include <cstdint>
#include <ctime>
#include <exception>
#include <string>
#include <string_view>

#include "common/EventLine.h"
#include "converter/ByteScan.h"
#include "converter/LocalTimeText.h"
#include "logging/Trace.h"

// The rules, in the order a line meets them: the type filter, the fields,
// the stamp, the operation and the classification, then the record key and
// the output line. How bytes are searched and read lives in ByteScan, the
// time text in LocalTimeText.

using EventType = LogConverter::EventType;
using StatusType = LogConverter::StatusType;
using Reason = LogConverter::Reason;

bool LogConverter::debugMode_ = false;

LogConverter& LogConverter::getInstance() {
    static LogConverter instance;
    return instance;
}

void LogConverter::setDebugMode(bool enabled) { debugMode_ = enabled; }

LogConverter::LogConverter()
    : keyBuffer_(new std::byte[KEY_BUFFER_BYTES]), keyArena_(keyBuffer_.get(), KEY_BUFFER_BYTES) {
    reserveCache();
    trace(Logger::INFO, "LogConverter initialized");
}

// ---------------------------------------------------------------------------
// The type filter

namespace {

constexpr std::string_view AVC_TYPE = "QIRN_AVC";
constexpr std::string_view NETCTL_TYPE = "QIRN_NETCTL";
constexpr std::string_view TYPE_MARKER = LogConverter::TYPE_MARKER;

// Whether the line opens with "type=" and `type` as a whole value.
[[gnu::always_inline]] inline bool opensWithType(std::string_view line, std::string_view type) {
    const std::size_t end = TYPE_MARKER.size() + type.size();
    return line.size() >= end &&
           std::memcmp(line.data(), TYPE_MARKER.data(), TYPE_MARKER.size()) == 0 &&
           std::memcmp(line.data() + TYPE_MARKER.size(), type.data(), type.size()) == 0 &&
           (line.size() == end || line[end] == ' ');
}

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

// The value after the first "type=", up to the next blank; only a blank ends
// it. False when the line has no "type=" at all.
bool findAuditType(std::string_view line, std::string_view& type) {
    // The two handled types at the start of the line, as records carry them,
    // are recognised without a search for the blank.
    if (opensWithType(line, AVC_TYPE)) {
        type = line.substr(TYPE_MARKER.size(), AVC_TYPE.size());
        return true;
    }
    if (opensWithType(line, NETCTL_TYPE)) {
        type = line.substr(TYPE_MARKER.size(), NETCTL_TYPE.size());
        return true;
    }
    const std::size_t marker = line.find(TYPE_MARKER);
    if (marker == std::string_view::npos) {
        return false;
    }
    type = upToBlank(line, marker + TYPE_MARKER.size());
    return true;
}

// The filter's rule: the first "type=" carries one of the two handled types,
// which is kept in `type` for the parse.
bool findHandledType(std::string_view line, std::string_view& type) {
    return findAuditType(line, type) && (type == AVC_TYPE || type == NETCTL_TYPE);
}

}  // namespace

bool LogConverter::isHandledType(std::string_view line) {
    std::string_view type;
    return !isOtherTypeAtOnce(line) && findHandledType(line, type);
}

bool LogConverter::shouldProcess(const std::string& line) const { return isHandledType(line); }

// ---------------------------------------------------------------------------
// Fields

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

// First occurrence of key immediately followed by "=", without building the
// needle; the position returned is just after the "=".
std::size_t findValueStart(std::string_view line, std::string_view key) {
    for (std::size_t at = line.find(key); at != std::string_view::npos;
         at = line.find(key, at + 1)) {
        const std::size_t equals = at + key.size();
        if (equals < line.size() && line[equals] == '=') {
            return equals + 1;
        }
    }
    return std::string_view::npos;
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
    // No "container_id=" can begin inside an opening "type=QIRN_", which has
    // no "c": the search starts after it, past that first underscore.
    constexpr std::string_view OPENING = "type=QIRN_";
    return valueOf<CONTAINER_ID_ANCHOR>(line, CONTAINER_ID_NEEDLE,
                                        ByteScan::startsWith(line, OPENING) ? OPENING.size() : 0);
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

}  // namespace

std::string LogConverter::extractField(const std::string& line, const std::string& key) const {
    return std::string(valueAt(line, findValueStart(line, key)));
}

std::string LogConverter::extractQuotedField(const std::string& line,
                                             const std::string& key) const {
    // The quotes are extractField's; the parser calls this as its second attempt.
    return extractField(line, key);
}

// ---------------------------------------------------------------------------
// The stamp

namespace {

// Stamps above this are milliseconds; exactly this value still counts as seconds.
constexpr long long MILLISECONDS_THRESHOLD = 10000000000LL;
constexpr long long MILLISECONDS_PER_SECOND = 1000;

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

}  // namespace

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

// ---------------------------------------------------------------------------
// Operation and classification

namespace {

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

// The event kind of an access-vector operation: that of the first word of
// this table the operation contains, compared as if lower-cased.
struct OperationWord {
    std::string_view word;
    EventType event;
};
constexpr std::array<OperationWord, 7> OPERATION_WORDS = {{
    {"exec", EventType::EXECTL},
    {"interpret", EventType::EXECTL},
    {"write", EventType::FILECTL},
    {"truncate", EventType::FILECTL},
    {"setattr", EventType::FILECTL},
    {"unlink", EventType::FILECTL},
    {"rename", EventType::FILECTL},
}};

// No word of the table holds a word of an earlier kind, so an operation that
// is exactly one of the words, as most are, is of that word's kind.
constexpr bool exactWordsDecide() {
    for (std::size_t i = 0; i < OPERATION_WORDS.size(); ++i) {
        for (std::size_t earlier = 0; earlier < i; ++earlier) {
            if (OPERATION_WORDS[earlier].event != OPERATION_WORDS[i].event &&
                OPERATION_WORDS[i].word.find(OPERATION_WORDS[earlier].word) !=
                    std::string_view::npos) {
                return false;
            }
        }
    }
    return true;
}
static_assert(exactWordsDecide(), "an exact word settles its operation");

// For each byte, the words of the table that begin with it.
constexpr std::array<std::uint8_t, 256> makeFirstLetters() {
    std::array<std::uint8_t, 256> words{};
    for (std::size_t i = 0; i < OPERATION_WORDS.size(); ++i) {
        words[static_cast<unsigned char>(OPERATION_WORDS[i].word[0])] |=
            static_cast<std::uint8_t>(1U << i);
    }
    return words;
}
constexpr std::array<std::uint8_t, 256> FIRST_LETTERS = makeFirstLetters();

EventType operationEvent(std::string_view operation) {
    for (const OperationWord& entry : OPERATION_WORDS) {
        if (operation == entry.word) {
            return entry.event;
        }
    }
    // One walk over the operation, each word tried only where its first
    // letter stands, until the first word of the table settles it.
    unsigned found = 0;
    for (std::size_t i = 0; i < operation.size() && (found & 1U) == 0; ++i) {
        unsigned words = FIRST_LETTERS[static_cast<unsigned char>(ByteScan::lower(operation[i]))];
        for (; words != 0; words &= words - 1) {
            const auto index = static_cast<unsigned>(__builtin_ctz(words));
            if (ByteScan::startsWithLowered(operation.substr(i), OPERATION_WORDS[index].word)) {
                found |= 1U << index;
            }
        }
    }
    return found == 0 ? EventType::UNKNOWN
                      : OPERATION_WORDS[static_cast<unsigned>(__builtin_ctz(found))].event;
}

// "exec/interpret": the words of one kind, as the trace names them.
std::string wordsOf(EventType event) {
    std::string words;
    for (const OperationWord& entry : OPERATION_WORDS) {
        if (entry.event == event) {
            words.append(words.empty() ? "" : "/").append(entry.word);
        }
    }
    return words;
}

// The status of a decision word: the first entry whose part the word
// contains, compared as if lower-cased. `usual` is the whole word as audit
// records carry it, which settles the word without a search.
struct Decision {
    std::string_view part;
    std::string_view usual;
    StatusType status;
};
constexpr std::array<Decision, 2> DECISIONS = {{
    {"denied", "denied", StatusType::ENFORCING},
    {"detect", "detected", StatusType::PERMISSIVE},
}};

// Each usual word holds its own part and no earlier one.
constexpr bool usualWordsDecide() {
    for (std::size_t i = 0; i < DECISIONS.size(); ++i) {
        for (std::size_t part = 0; part <= i; ++part) {
            const bool holds =
                DECISIONS[i].usual.find(DECISIONS[part].part) != std::string_view::npos;
            if (holds != (part == i)) {
                return false;
            }
        }
    }
    return true;
}
static_assert(usualWordsDecide(), "a usual word settles its decision");

// A blank, tab or colon ends a decision word; a comma does not, so "denied,"
// still counts as denied.
bool endsDecisionWord(char c) { return c == ' ' || c == '\t' || c == ':'; }

// The decision word that opens `rest`, and the entry that settles it, if any.
const Decision* decide(std::string_view rest, std::string_view& word) {
    for (const Decision& decision : DECISIONS) {
        const std::size_t size = decision.usual.size();
        if (ByteScan::startsWith(rest, decision.usual) &&
            (rest.size() == size || endsDecisionWord(rest[size]))) {
            word = rest.substr(0, size);
            return &decision;
        }
    }
    std::size_t end = 0;
    while (end < rest.size() && !endsDecisionWord(rest[end])) {
        ++end;
    }
    word = rest.substr(0, end);
    for (const Decision& decision : DECISIONS) {
        if (ByteScan::containsLowered(word, decision.part)) {
            return &decision;
        }
    }
    return nullptr;
}

bool isBlankOrTab(char c) { return c == ' ' || c == '\t'; }

}  // namespace

// The enumerators count from 1 in the order of the line's words; UNKNOWN, 0,
// wraps past the end and has none.
std::string_view LogConverter::eventWord(EventType event) {
    const std::size_t at = static_cast<std::size_t>(event) - 1;
    return at < EventLine::EVENT_WORDS.size() ? EventLine::EVENT_WORDS[at] : std::string_view();
}

std::string_view LogConverter::statusWord(StatusType status) {
    const std::size_t at = static_cast<std::size_t>(status) - 1;
    return at < EventLine::STATUS_WORDS.size() ? EventLine::STATUS_WORDS[at] : std::string_view();
}

EventType LogConverter::determineEventType(const std::string& type,
                                           const std::string& operation) const {
    EventType event = EventType::UNKNOWN;
    // The exact spelling, which the filter passes, before ignoring case.
    if (type == NETCTL_TYPE || ByteScan::equalsIgnoringCase(type, NETCTL_TYPE)) {
        event = EventType::NETCTL;
        trace(debugMode_, Logger::DEBUG, [&] {
            return "Type is " + std::string(NETCTL_TYPE) + " -> " + std::string(eventWord(event));
        });
    } else if (type == AVC_TYPE || ByteScan::equalsIgnoringCase(type, AVC_TYPE)) {
        event = operationEvent(operation);
        trace(debugMode_ && event != EventType::UNKNOWN, Logger::DEBUG, [&] {
            return "Operation is " + wordsOf(event) + " -> " + std::string(eventWord(event));
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
    const Decision* const decision = decide(text.substr(start), word);
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
    trace(Logger::ERROR, "Unexpected status word (neither " + std::string(DECISIONS[0].part) +
                             " nor " + std::string(DECISIONS[1].part) + "): " + lowered +
                             " in line: " + line);
    if (rejection != nullptr) {
        rejection->statusWord = lowered;
    }
    return StatusType::UNKNOWN;
}

// ---------------------------------------------------------------------------
// The parse, its steps first: apart for reading only, and inlined into one
// frame, as a call each measurably costs a matching line.

[[gnu::always_inline]] inline Reason LogConverter::classify(const std::string& line,
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
        return Reason::UNKNOWN_EVENT;
    }

    result.statusType = classifyStatus(line, rejection);
    if (result.statusType == StatusType::UNKNOWN) {
        trace(debugMode_, Logger::DEBUG, [&] { return "Unknown status"; });
        return Reason::UNKNOWN_STATUS;
    }

    result.valid = true;
    trace(debugMode_, Logger::DEBUG, [&] {
        return "Parse successful - container_id: " + result.containerId + ", type: " + type +
               ", event: " + std::to_string(static_cast<int32_t>(result.eventType)) +
               ", path: " + result.path +
               ", status: " + std::to_string(static_cast<int32_t>(result.statusType));
    });
    return Reason::NONE;
}

[[gnu::always_inline]] inline Reason LogConverter::parsePath(const std::string& line,
                                                             std::string_view typeView,
                                                             ParseResult& result,
                                                             Rejection* rejection) const {
    // The filter passed one of the two types, spelled alike on every line:
    // their strings are made once.
    static const std::string avcType(AVC_TYPE);
    static const std::string netctlType(NETCTL_TYPE);
    const bool isAvc = typeView == AVC_TYPE;
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
        return Reason::NO_PATH;
    }
    trace(debugMode_, Logger::DEBUG, [&] { return "Path: " + result.path; });
    return classify(line, type, isAvc, result, rejection);
}

Reason LogConverter::parseRecord(const std::string& line, std::string_view typeView,
                                 ParseResult& result, Rejection* rejection) const {
    const std::string_view containerId = containerIdValue(line);
    if (containerId.empty()) {
        trace(debugMode_, Logger::DEBUG,
              [&] { return "container_id field not found in log, skipping"; });
        return Reason::NO_CONTAINER;
    }
    // The record's strings are empty here: appending to them spares the
    // general replacement that an assignment goes through.
    result.containerId.append(containerId.data(), containerId.size());
    trace(debugMode_, Logger::DEBUG,
          [&] { return "Container ID from container_id field: " + result.containerId; });

    // The parser has no use for the serial number.
    const AuditStamp stamp = findAuditStamp(line, false);
    if (!stamp.found) {
        trace(debugMode_, Logger::DEBUG, [&] { return "No timestamp found"; });
        return Reason::NO_STAMP;
    }
    if (stamp.hasSeconds) {
        appendConvertedTime(stamp.seconds, result.timestamp);
    }
    if (result.timestamp.empty()) {
        trace(debugMode_, Logger::DEBUG, [&] { return "Failed to convert timestamp"; });
        return Reason::BAD_STAMP;
    }
    trace(debugMode_, Logger::DEBUG, [&] { return "Converted timestamp: " + result.timestamp; });
    return parsePath(line, typeView, result, rejection);
}

Reason LogConverter::parse(const std::string& line, ParseResult& result,
                           Rejection* rejection) const {
    // Both start empty; clear() makes the reset without the library call that
    // assigning "" costs.
    result.spare.clear();
    result.containerId.clear();
    try {
        trace(debugMode_, Logger::DEBUG, [&] { return "Parsing line: " + line; });
        // The filter's own test, with the type it found kept for the parse,
        // which would otherwise look for the same first "type=" again.
        std::string_view type;
        if (!findHandledType(line, type)) {
            trace(debugMode_, Logger::DEBUG, [&] { return "Line should not be processed"; });
            return Reason::OTHER_TYPE;
        }
        return parseRecord(line, type, result, rejection);
    } catch (const std::exception& e) {
        trace(Logger::ERROR, std::string("Exception in parseLine: ") + e.what());
        if (rejection != nullptr) {
            rejection->error = e.what();
        }
        return Reason::EXCEPTION;
    }
}

LogConverter::ParseResult LogConverter::parseLine(const std::string& line, Reason& reason,
                                                  Rejection* rejection) const {
    ParseResult result;
    reason = rejectsAtOnce(line) ? Reason::OTHER_TYPE : parse(line, result, rejection);
    return result;
}

// ---------------------------------------------------------------------------
// The record key and the output line

namespace {

// The key holds at most this much of the time: all of a converted one.
constexpr std::size_t KEY_TIME_LENGTH = 16;
// The reused key text keeps at most this much room between records.
constexpr std::size_t KEPT_KEY_TEXT_BYTES = 4096;
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
    Reason reason = Reason::NONE;
    return convertToOutputFormat(result, reason);
}

std::string LogConverter::convertToOutputFormat(const ParseResult& result, Reason& reason) {
    if (!result.valid) {
        reason = Reason::NOT_VALID;
        return {};
    }
    composeKey(result, keyText_);
    // Copied into the cache only when new; on a duplicate the cache keeps its
    // own, equal copy, which is the one reported.
    const auto [entry, inserted] = processedLogs_.insert(keyText_);
    if (keyText_.capacity() > KEPT_KEY_TEXT_BYTES) {
        // The room a very long path needed is not kept for good.
        std::pmr::string().swap(keyText_);
    }
    if (!inserted) {
        std::string message;
        message.reserve(DUPLICATE_MESSAGE.size() + entry->size());
        trace(Logger::DEBUG, message.append(DUPLICATE_MESSAGE).append(*entry));
        reason = Reason::DUPLICATE;
        return {};
    }
    if (processedLogs_.size() > MAX_CACHE_SIZE) {
        clearCache();
        trace(Logger::DEBUG, "Cleared duplicate cache (size limit reached)");
    }

    // A record without words keeps its key in the cache: it stays remembered
    // although nothing is written for it.
    const std::string_view event = eventWord(result.eventType);
    const std::string_view status = statusWord(result.statusType);
    if (event.empty() || status.empty()) {
        reason = Reason::NO_WORD;
        return {};
    }
    std::string line =
        EventLine::composed(result.timestamp, result.containerId, event, result.path, status);
    trace(debugMode_, Logger::DEBUG, [&] { return "Output: " + line; });
    reason = Reason::NONE;
    return line;
}

void LogConverter::clearCache() {
    // A fresh set holds no memory of the arena, so the arena can start over.
    processedLogs_ = KeySet(&keyArena_);
    keyArena_.release();
    reserveCache();
}

void LogConverter::reserveCache() {
    // Buckets for a full cache at once: the set never rehashes, so each key is
    // hashed once, when it is looked up.
    processedLogs_.reserve(MAX_CACHE_SIZE + 1);
}
