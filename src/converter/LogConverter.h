#pragma once
// Turns raw audit lines into compact per-container event lines: filters on the
// audit type, extracts and classifies the fields, converts the time and
// suppresses repeats through a bounded cache of record keys.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

class LogConverter {
public:
    enum class EventType : int32_t { UNKNOWN = 0, EXECTL = 1, FILECTL = 2, NETCTL = 3 };
    enum class StatusType : int32_t { UNKNOWN = 0, ENFORCING = 1, PERMISSIVE = 2 };

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

    bool shouldProcess(const std::string& line) const;
    // shouldProcess on any text, for callers that hold a line without a
    // string of its own; the answers are the same.
    static bool isHandledType(std::string_view line);
    std::string extractField(const std::string& line, const std::string& key) const;
    std::string extractQuotedField(const std::string& line, const std::string& key) const;
    ParseResult parseLine(const std::string& line) const;
    // The stamp step of parseLine, on its own; `line` must outlive the result.
    static AuditStamp findAuditStamp(std::string_view line);
    std::string convertToOutputFormat(const ParseResult& result);
    std::string convertTimestamp(const std::string& text) const;
    std::string generateLogHash(const ParseResult& result) const;
    EventType determineEventType(const std::string& type, const std::string& operation) const;
    StatusType determineStatusType(const std::string& line) const;

private:
    // Private so that getInstance is the only way to reach the cache.
    LogConverter();
    ~LogConverter();

    // parseLine after the filter: kept apart so that the rejection of a
    // record of another type, the common case, runs in a small frame.
    void parseRecord(const std::string& line, ParseResult& result) const;

    std::unordered_map<std::string, std::string> fieldCache_;  // never used; kept empty
    std::unordered_set<std::string> processedLogs_;
    static bool debugMode_;
};
