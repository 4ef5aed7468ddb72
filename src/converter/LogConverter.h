#pragma once
// Turns raw audit lines into compact per-container event lines: filters on the
// audit type, extracts and classifies the fields, converts the time and
// suppresses repeats through a bounded cache of record keys.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

#include "converter/AuditType.h"
#include "converter/EventWords.h"
#include "converter/KeyCache.h"

class LogConverter {
public:
    using EventType = EventWords::EventType;
    using StatusType = EventWords::StatusType;

    struct ParseResult {
        std::string timestamp;
        std::string containerId;
        EventType eventType = EventType::UNKNOWN;
        StatusType statusType = StatusType::UNKNOWN;
        std::string path;
        // Part of the record's layout with no settled use yet: kept, and always
        // empty, so that a later use does not change the record's shape.
        std::string spare;
        bool valid = false;
    };

    // The step that stopped a line that gave no event, which says why:
    // parsing (OTHER_TYPE to EXCEPTION) or output (NOT_VALID to NO_WORD).
    enum class Stop : int32_t {
        NONE,            // a valid record, or an output line
        OTHER_TYPE,      // the filter: not one of the two handled audit types
        NO_CONTAINER,    // no container_id value
        NO_STAMP,        // no audit stamp text
        BAD_STAMP,       // a stamp that does not convert to a time
        NO_PATH,         // no path for the record's type
        UNKNOWN_EVENT,   // type and operation name no event kind
        UNKNOWN_STATUS,  // no decision word, or one that is neither kind
        EXCEPTION,       // a standard exception, caught and logged
        NOT_VALID,       // output asked of a record that is not valid
        DUPLICATE,       // the record's key is already in the cache
        NO_WORD,         // the record's event or status value has no word
    };

    // What the step that rejected a line saw, for a caller that explains
    // rejections; each reason fills only its own fields, the others keep what
    // they held. Views point into the parsed line.
    struct Rejection {
        std::string_view type;      // NO_PATH, UNKNOWN_EVENT: the audit type
        std::string operation;      // UNKNOWN_EVENT: the operation classified
        bool statusMarker = false;  // UNKNOWN_STATUS: whether the line has "avc:"
        std::string statusWord;     // UNKNOWN_STATUS with "avc:": the word, lower-cased
        std::string error;          // EXCEPTION: the exception's message
    };

    // Where a line's audit stamp is and what it says: the text between "audit("
    // and the next ":" (or, lacking one, the next ")"), its seconds after the
    // millisecond rule, and the serial number after the ":" when there is one.
    struct AuditStamp {
        bool found = false;       // a non-empty stamp text exists
        std::string_view text;    // points into the line it was found in
        bool hasSeconds = false;  // the text starts with a readable integer
        long long seconds = 0;
        bool hasSerial = false;
        unsigned long long serial = 0;
    };

    // The cache is emptied as soon as it holds more than this many keys.
    static constexpr std::size_t MAX_CACHE_SIZE = 1000;

    static LogConverter& getInstance();
    static void setDebugMode(bool enabled);

    // One instance holds the duplicate cache for the whole process, so copies
    // and moves, which would split it, are refused.
    LogConverter(const LogConverter&) = delete;
    LogConverter& operator=(const LogConverter&) = delete;
    LogConverter(LogConverter&&) = delete;
    LogConverter& operator=(LogConverter&&) = delete;

    bool shouldProcess(const std::string& line) const { return AuditType::isHandled(line); }
    // shouldProcess on any text, for callers that hold a line without a
    // string of its own; the answers are the same.
    static bool isHandledType(std::string_view line) { return AuditType::isHandled(line); }
    std::string extractField(const std::string& line, const std::string& key) const;
    std::string extractQuotedField(const std::string& line, const std::string& key) const;
    // True when parseLine would return an invalid record and do nothing else
    // (no trace to write, and the first bytes name another audit type); lets
    // a caller skip the common line without building a record for it.
    bool rejectsAtOnce(const std::string& line) const {
        return !debugMode_ && AuditType::isOtherAtOnce(line);
    }
    ParseResult parseLine(const std::string& line) const {
        ParseResult result;
        // Most lines are records of other types: with no trace to write,
        // nothing of them is observable but the invalid record.
        if (!rejectsAtOnce(line)) {
            parse(line, result, nullptr);
        }
        return result;
    }
    // parseLine, also saying why the record is not valid and, given
    // `rejection`, what the rejecting step saw.
    ParseResult parseLine(const std::string& line, Stop& reason,
                          Rejection* rejection = nullptr) const;
    // The stamp step of parseLine, on its own; `line` must outlive the result.
    // Without `withSerial` the serial number is left unread.
    static AuditStamp findAuditStamp(std::string_view line, bool withSerial = true);
    std::string convertToOutputFormat(const ParseResult& result);
    // convertToOutputFormat, also saying why the line is empty.
    std::string convertToOutputFormat(const ParseResult& result, Stop& reason);
    std::string convertTimestamp(const std::string& text) const;
    std::string generateLogHash(const ParseResult& result) const;
    EventType determineEventType(const std::string& type, const std::string& operation) const;
    StatusType determineStatusType(const std::string& line) const;
    // The words an event line gives each classification; empty for UNKNOWN.
    static std::string_view eventWord(EventType event) { return EventWords::eventWord(event); }
    static std::string_view statusWord(StatusType status) { return EventWords::statusWord(status); }

private:
    // Private so that getInstance is the only way to reach the cache.
    LogConverter();
    // Members go in reverse order of declaration: the cache, then the unused map.
    ~LogConverter() = default;

    // The parse after the header's shortcut, and its steps after the filter
    // (container and stamp, type and path, operation and classification);
    // apart so that the common line of another type is settled in the
    // caller's frame.
    Stop parse(const std::string& line, ParseResult& result, Rejection* rejection) const;
    Stop parseRecord(const std::string& line, std::string_view type, ParseResult& result,
                     Rejection* rejection) const;
    Stop parsePath(const std::string& line, std::string_view type, ParseResult& result,
                   Rejection* rejection) const;
    Stop classify(const std::string& line, const std::string& type, bool isAvc, ParseResult& result,
                  Rejection* rejection) const;
    // determineStatusType, telling a rejection what it saw.
    StatusType classifyStatus(const std::string& line, Rejection* rejection) const;

    std::unordered_map<std::string, std::string> fieldCache_;  // never used; kept empty
    KeyCache processedLogs_{MAX_CACHE_SIZE};
    static bool debugMode_;
};
