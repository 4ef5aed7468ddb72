#include "converter/LogConverter.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <initializer_list>
#include <limits>
#include <string>
#include <string_view>
#include <utility>

#include "logging/Trace.h"

namespace {

constexpr std::string_view TYPE_MARKER = "type=";
constexpr std::string_view AVC_TYPE = "QIRN_AVC";
constexpr std::string_view NETCTL_TYPE = "QIRN_NETCTL";
// What both handled types begin with.
constexpr std::string_view QIRN_PREFIX = "QIRN_";
constexpr std::string_view CONTAINER_ID_KEY = "container_id";
constexpr std::string_view PROC_PATH_KEY = "proc_path";
constexpr std::string_view STAMP_MARKER = "audit(";
constexpr std::string_view NAME_MARKER = "name=";
constexpr std::string_view STATUS_MARKER = "avc:";
constexpr std::string_view KEY_SEPARATOR = "|";
// Operations that are one word of each event kind.
constexpr std::string_view EXEC_OPERATIONS[] = {"exec", "execute", "execmod", "interpret"};
constexpr std::string_view FILE_OPERATIONS[] = {"write", "truncate", "setattr", "unlink", "rename"};
constexpr std::size_t KEY_TIMESTAMP_LENGTH = 16;
// Stamps above this are milliseconds; exactly this value still counts as seconds.
constexpr long long MILLISECONDS_THRESHOLD = 10000000000LL;
constexpr long long MILLISECONDS_PER_SECOND = 1000;
constexpr std::size_t TIME_BUFFER_SIZE = 256;
constexpr const char* TIME_FORMAT = "%b %d %H:%M:%S";

// The service never changes its locale, so tolower and isspace are those of
// the C locale; answering here saves a library call per character.
char lowerChar(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool isCSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// Copies a piece of a composed text: most pieces are short, and two
// overlapping fixed-size moves copy them without a library call.
void copyPiece(char* out, const char* from, std::size_t size) {
    constexpr std::size_t WORD = sizeof(std::uint64_t);
    constexpr std::size_t HALF = sizeof(std::uint32_t);
    if (size > 2 * WORD) {
        std::memcpy(out, from, size);
    } else if (size >= WORD) {
        std::uint64_t head = 0;
        std::uint64_t tail = 0;
        std::memcpy(&head, from, WORD);
        std::memcpy(&tail, from + size - WORD, WORD);
        std::memcpy(out, &head, WORD);
        std::memcpy(out + size - WORD, &tail, WORD);
    } else if (size >= HALF) {
        std::uint32_t head = 0;
        std::uint32_t tail = 0;
        std::memcpy(&head, from, HALF);
        std::memcpy(&tail, from + size - HALF, HALF);
        std::memcpy(out, &head, HALF);
        std::memcpy(out + size - HALF, &tail, HALF);
    } else {
        for (std::size_t i = 0; i < size; ++i) {
            out[i] = from[i];
        }
    }
}

// One allocation of the exact size instead of one append per piece.
std::string concat(std::initializer_list<std::string_view> pieces) {
    std::size_t size = 0;
    for (const std::string_view piece : pieces) {
        size += piece.size();
    }
    std::string text(size, '\0');
    char* out = text.data();
    for (const std::string_view piece : pieces) {
        copyPiece(out, piece.data(), piece.size());
        out += piece.size();
    }
    return text;
}

std::string lowerCopy(std::string_view text) {
    std::string lowered(text);
    for (char& c : lowered) {
        c = lowerChar(c);
    }
    return lowered;
}

// Compares as if `text` had been lower-cased first; `lowered` is already lower
// case. Avoids a copy per classified line.
bool equalsLowered(std::string_view text, std::string_view lowered) {
    if (text.size() != lowered.size()) {
        return false;
    }
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (lowerChar(text[i]) != lowered[i]) {
            return false;
        }
    }
    return true;
}

bool contains(std::string_view text, std::string_view part) {
    return text.find(part) != std::string_view::npos;
}

bool startsWith(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() &&
           std::memcmp(text.data(), prefix.data(), prefix.size()) == 0;
}

// The value after the first "type=", up to the next blank; only a blank ends it.
// Returns false when the line has no "type=" at all.
bool findAuditType(std::string_view line, std::string_view& type) {
    // Audit records begin with "type=": checking the start first spares a
    // search on nearly every line, and gives the same first occurrence.
    const std::size_t marker = startsWith(line, TYPE_MARKER) ? 0 : line.find(TYPE_MARKER);
    if (marker == std::string_view::npos) {
        return false;
    }
    const std::size_t start = marker + TYPE_MARKER.size();
    const std::size_t end = line.find(' ', start);
    type = line.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start);
    return true;
}

bool isFieldDelimiter(char c) { return c == ' ' || c == '\t' || c == ',' || c == ':'; }

// First occurrence of key immediately followed by "=", without building the
// needle; the position returned is just after the "=".
std::size_t findValueStart(std::string_view line, std::string_view key) {
    std::size_t position = line.find(key);
    while (position != std::string_view::npos) {
        const std::size_t equals = position + key.size();
        if (equals < line.size() && line[equals] == '=') {
            return equals + 1;
        }
        position = line.find(key, position + 1);
    }
    return std::string_view::npos;
}

std::string_view fieldValue(std::string_view line, std::string_view key) {
    const std::size_t start = findValueStart(line, key);
    if (start == std::string_view::npos || start >= line.size()) {
        return {};
    }
    if (line[start] == '"') {
        const std::size_t valueStart = start + 1;
        if (valueStart >= line.size()) {
            return {};
        }
        const std::size_t closing = line.find('"', valueStart);
        if (closing == std::string_view::npos) {
            return {};
        }
        return line.substr(valueStart, closing - valueStart);
    }
    std::size_t end = start;
    while (end < line.size() && !isFieldDelimiter(line[end])) {
        ++end;
    }
    return line.substr(start, end - start);
}

// Reads the leading integer the way std::stoll does in base 10 (leading white
// space, an optional sign, then digits), but on a view and without exceptions.
// Decimal digits that always fit a signed 64-bit number.
constexpr std::size_t SAFE_DIGITS = 18;

bool parseLeadingInteger(std::string_view text, long long& value) {
    std::size_t i = 0;
    while (i < text.size() && isCSpace(text[i])) {
        ++i;
    }
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
        negative = text[i] == '-';
        ++i;
    }
    // Accumulated as a negative number so that the minimum value fits.
    constexpr long long lowest = std::numeric_limits<long long>::min();
    long long accumulated = 0;
    bool anyDigit = false;
    // The first 18 digits cannot overflow, so they need no check.
    const std::size_t unchecked = std::min(text.size(), i + SAFE_DIGITS);
    const std::size_t firstDigit = i;
    for (; i < unchecked; ++i) {
        const unsigned digit = static_cast<unsigned char>(text[i]) - static_cast<unsigned>('0');
        if (digit > 9) {
            break;
        }
        accumulated = accumulated * 10 - static_cast<long long>(digit);
    }
    anyDigit = i > firstDigit;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        const int digit = text[i] - '0';
        if (accumulated < (lowest + digit) / 10) {
            return false;
        }
        accumulated = accumulated * 10 - digit;
        anyDigit = true;
    }
    if (!anyDigit) {
        return false;
    }
    if (!negative) {
        if (accumulated == lowest) {
            return false;
        }
        accumulated = -accumulated;
    }
    value = accumulated;
    return true;
}

// What decides the zone of localtime_r: the TZ entry of the environment,
// which tzset() reads, and the zone that tzset() loaded from it. The text of a
// second is reused only while both are unchanged, checked without a search:
// setenv installs a new entry for a new value and never rewrites one it
// installed, unsetenv moves the entries behind the one it removes, adding a
// variable reallocates the array or fills the place of its terminator, and
// loading another zone sets the names and offset that tzset() publishes.
struct ZoneProbe {
    char** environment = nullptr;
    // Of the TZ entry; without one, of the terminating null.
    std::size_t index = 0;
    // The TZ entry; without one, the entry before the terminator (or null).
    const char* entry = nullptr;
    bool zoneSet = false;
    const char* standardName = nullptr;
    const char* daylightName = nullptr;
    long offset = 0;
    int hasDaylight = 0;
};

bool isZoneEntry(const char* entry) {
    return entry[0] == 'T' && entry[1] == 'Z' && entry[2] == '=';
}

bool sameLoadedZone(const ZoneProbe& probe) {
    return tzname[0] == probe.standardName && tzname[1] == probe.daylightName &&
           timezone == probe.offset && daylight == probe.hasDaylight;
}

// Taken after localtime_r, which loads the zone on its first call.
ZoneProbe probeZone() {
    ZoneProbe probe;
    probe.standardName = tzname[0];
    probe.daylightName = tzname[1];
    probe.offset = timezone;
    probe.hasDaylight = daylight;
    probe.environment = environ;
    if (environ == nullptr) {
        return probe;
    }
    std::size_t index = 0;
    for (; environ[index] != nullptr; ++index) {
        if (isZoneEntry(environ[index])) {
            probe.index = index;
            probe.entry = environ[index];
            probe.zoneSet = true;
            return probe;
        }
    }
    probe.index = index;
    probe.entry = index > 0 ? environ[index - 1] : nullptr;
    return probe;
}

bool zoneUnchanged(const ZoneProbe& probe) {
    if (environ != probe.environment || !sameLoadedZone(probe)) {
        return false;
    }
    if (environ == nullptr) {
        return true;
    }
    if (probe.zoneSet) {
        return environ[probe.index] == probe.entry;
    }
    return environ[probe.index] == nullptr &&
           (probe.index == 0 || environ[probe.index - 1] == probe.entry);
}

constexpr std::size_t TIME_TEXT_LENGTH = 15;
constexpr std::string_view MONTH_NAMES = "JanFebMarAprMayJunJulAugSepOctNovDec";
constexpr std::size_t MONTH_NAME_LENGTH = 3;

void putTwoDigits(char* out, int value) {
    out[0] = static_cast<char>('0' + value / 10);
    out[1] = static_cast<char>('0' + value % 10);
}

// "%b %d %H:%M:%S" in the C locale, which the service never leaves: every
// field has a fixed width, so the text is written directly. Out-of-range
// fields (localtime_r never produces them) fall back to strftime.
std::string formatLocalTime(const struct tm& local) {
    const bool inRange = local.tm_mon >= 0 && local.tm_mon < 12 && local.tm_mday >= 0 &&
                         local.tm_mday < 100 && local.tm_hour >= 0 && local.tm_hour < 100 &&
                         local.tm_min >= 0 && local.tm_min < 100 && local.tm_sec >= 0 &&
                         local.tm_sec < 100;
    if (!inRange) {
        char buffer[TIME_BUFFER_SIZE];
        const std::size_t length = std::strftime(buffer, sizeof(buffer), TIME_FORMAT, &local);
        return std::string(buffer, length);
    }
    char text[TIME_TEXT_LENGTH];
    std::memcpy(
        text, MONTH_NAMES.substr(MONTH_NAME_LENGTH * static_cast<std::size_t>(local.tm_mon)).data(),
        MONTH_NAME_LENGTH);
    text[3] = ' ';
    putTwoDigits(text + 4, local.tm_mday);
    text[6] = ' ';
    putTwoDigits(text + 7, local.tm_hour);
    text[9] = ':';
    putTwoDigits(text + 10, local.tm_min);
    text[12] = ':';
    putTwoDigits(text + 13, local.tm_sec);
    return std::string(text, TIME_TEXT_LENGTH);
}

// The last second converted on this thread, with where the zone came from.
struct LastConversion {
    bool filled = false;
    time_t seconds = 0;
    ZoneProbe zone;
    std::string text;
};

// Audit records come in bursts within one second, and localtime_r is the
// largest part of converting a matching line, so the text of the last second
// is reused. It is the text a fresh conversion gives as long as the zone did
// not change since (ZoneProbe). The one change it cannot see: TZ switched
// between two zones of the same names and offsets with a conversion between
// setenv() and tzset(); that second keeps the first zone's text, which differs
// only for dates when the two zones' rules differed. The service never
// changes its zone or its LC_TIME locale. Per thread, so that conversions
// share no state.
std::string localTimeText(time_t seconds) {
    thread_local LastConversion last;
    if (last.filled && last.seconds == seconds && zoneUnchanged(last.zone)) {
        return last.text;
    }
    // localtime_r instead of localtime: same result without the shared static buffer.
    struct tm local {};
    if (localtime_r(&seconds, &local) == nullptr) {
        last.filled = false;
        return {};
    }
    last.text = formatLocalTime(local);
    last.seconds = seconds;
    last.zone = probeZone();
    last.filled = true;
    return last.text;
}

// Seconds of a stamp text after the millisecond rule.
bool stampSeconds(std::string_view text, long long& seconds) {
    if (!parseLeadingInteger(text, seconds)) {
        return false;
    }
    if (seconds > MILLISECONDS_THRESHOLD) {
        seconds /= MILLISECONDS_PER_SECOND;
    }
    return true;
}

// Running out of memory ends in an empty result, like any other failure of
// the conversion, rather than in an exception leaving it.
std::string convertedTime(long long seconds) {
    try {
        return localTimeText(static_cast<time_t>(seconds));
    } catch (...) {
        return {};
    }
}

std::string formatStamp(std::string_view text) {
    long long seconds = 0;
    if (!stampSeconds(text, seconds)) {
        return {};
    }
    return convertedTime(seconds);
}

// The leading decimal digits of `text`, if any.
bool leadingSerial(std::string_view text, unsigned long long& serial) {
    constexpr unsigned long long highest = std::numeric_limits<unsigned long long>::max();
    unsigned long long value = 0;
    std::size_t i = 0;
    // The first 18 digits cannot overflow, so they need no check.
    const std::size_t unchecked = std::min(text.size(), SAFE_DIGITS);
    for (; i < unchecked; ++i) {
        const unsigned digit = static_cast<unsigned char>(text[i]) - static_cast<unsigned>('0');
        if (digit > 9) {
            break;
        }
        value = value * 10 + digit;
    }
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        const unsigned digit = static_cast<unsigned>(text[i] - '0');
        if (value > (highest - digit) / 10) {
            return false;
        }
        value = value * 10 + digit;
    }
    if (i == 0) {
        return false;
    }
    serial = value;
    return true;
}

// Unlike fieldValue, an unquoted name ends only at a blank: commas, colons and
// tabs are part of a file name.
std::string_view nameValue(std::string_view line) {
    const std::size_t marker = line.find(NAME_MARKER);
    if (marker == std::string_view::npos) {
        return {};
    }
    const std::size_t start = marker + NAME_MARKER.size();
    if (start >= line.size()) {
        return {};
    }
    if (line[start] == '"') {
        const std::size_t closing = line.find('"', start + 1);
        if (closing == std::string_view::npos) {
            return {};
        }
        return line.substr(start + 1, closing - start - 1);
    }
    const std::size_t end = line.find(' ', start);
    return line.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start);
}

// Contents of the first braces, white space removed and lower-cased.
std::string extractOperation(std::string_view line) {
    std::string operation;
    const std::size_t open = line.find('{');
    if (open == std::string_view::npos) {
        return operation;
    }
    const std::size_t close = line.find('}', open + 1);
    if (close == std::string_view::npos) {
        return operation;
    }
    // Sized once, then filled, instead of one append per character.
    const std::string_view inside = line.substr(open + 1, close - open - 1);
    operation.resize(inside.size());
    std::size_t length = 0;
    for (const char c : inside) {
        if (!isCSpace(c)) {
            operation[length++] = lowerChar(c);
        }
    }
    operation.resize(length);
    return operation;
}

// An empty word means the value has none.
std::string_view eventWord(LogConverter::EventType type) {
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
    return {};
}

std::string_view statusWord(LogConverter::StatusType type) {
    switch (type) {
        case LogConverter::StatusType::ENFORCING:
            return "enforcing";
        case LogConverter::StatusType::PERMISSIVE:
            return "permissive";
        case LogConverter::StatusType::UNKNOWN:
            break;
    }
    return {};
}

}  // namespace

bool LogConverter::debugMode_ = false;

LogConverter& LogConverter::getInstance() {
    static LogConverter instance;
    return instance;
}

void LogConverter::setDebugMode(bool enabled) { debugMode_ = enabled; }

LogConverter::LogConverter() { trace(Logger::INFO, "LogConverter initialized"); }

LogConverter::~LogConverter() {
    processedLogs_.clear();
    fieldCache_.clear();
}

bool LogConverter::shouldProcess(const std::string& line) const { return isHandledType(line); }

bool LogConverter::isHandledType(std::string_view line) {
    // Nearly every audit record begins with "type=", and both handled types
    // begin with "QIRN_": for a record of another kind the bytes after the
    // marker settle the answer without any search.
    if (startsWith(line, TYPE_MARKER) &&
        !startsWith(line.substr(TYPE_MARKER.size()), QIRN_PREFIX)) {
        return false;
    }
    std::string_view type;
    if (!findAuditType(line, type)) {
        return false;
    }
    return type == AVC_TYPE || type == NETCTL_TYPE;
}

std::string LogConverter::extractField(const std::string& line, const std::string& key) const {
    return std::string(fieldValue(line, key));
}

std::string LogConverter::extractQuotedField(const std::string& line,
                                             const std::string& key) const {
    // Quotes are already handled by extractField; this stays a separate entry
    // point because the parser uses it as its second attempt.
    return extractField(line, key);
}

void LogConverter::parseLineFully(const std::string& line, ParseResult& result) const {
    // Both start empty; clear() makes the reset without the library call that
    // assigning "" costs.
    result.spare.clear();
    result.containerId.clear();
    try {
        trace(debugMode_, Logger::DEBUG, [&] { return "Parsing line: " + line; });
        if (!shouldProcess(line)) {
            trace(debugMode_, Logger::DEBUG, [&] { return "Line should not be processed"; });
            return;
        }

        parseRecord(line, result);
    } catch (const std::exception& e) {
        trace(Logger::ERROR, std::string("Exception in parseLine: ") + e.what());
    }
}

void LogConverter::parseRecord(const std::string& line, ParseResult& result) const {
    const std::string_view containerId = fieldValue(line, CONTAINER_ID_KEY);
    if (containerId.empty()) {
        trace(debugMode_, Logger::DEBUG,
              [&] { return "container_id field not found in log, skipping"; });
        return;
    }
    result.containerId = containerId;
    trace(debugMode_, Logger::DEBUG,
          [&] { return "Container ID from container_id field: " + result.containerId; });

    const AuditStamp stamp = findAuditStamp(line);
    if (!stamp.found) {
        trace(debugMode_, Logger::DEBUG, [&] { return "No timestamp found"; });
        return;
    }
    if (stamp.hasSeconds) {
        result.timestamp = convertedTime(stamp.seconds);
    }
    if (result.timestamp.empty()) {
        trace(debugMode_, Logger::DEBUG, [&] { return "Failed to convert timestamp"; });
        return;
    }
    trace(debugMode_, Logger::DEBUG, [&] { return "Converted timestamp: " + result.timestamp; });

    std::string_view typeView;
    if (!findAuditType(line, typeView) || typeView.empty()) {
        trace(debugMode_, Logger::DEBUG, [&] { return "No type found"; });
        return;
    }
    const std::string type(typeView);
    trace(debugMode_, Logger::DEBUG, [&] { return "Type: " + type; });

    if (type == AVC_TYPE) {
        result.path = nameValue(line);
    } else if (type == NETCTL_TYPE) {
        std::string procPath(fieldValue(line, PROC_PATH_KEY));
        if (procPath.empty()) {
            // The second attempt gives the same result; it is the parser's
            // established order and costs nothing on a line that has the field.
            procPath = extractQuotedField(line, std::string(PROC_PATH_KEY));
        }
        if (!procPath.empty()) {
            result.path = std::move(procPath);
            trace(debugMode_, Logger::DEBUG,
                  [&] { return "NETCTL path extracted from proc_path: " + result.path; });
        }
    }
    if (result.path.empty()) {
        trace(debugMode_, Logger::DEBUG, [&] { return "No path found"; });
        return;
    }
    trace(debugMode_, Logger::DEBUG, [&] { return "Path: " + result.path; });

    const std::string operation = extractOperation(line);
    trace(debugMode_, Logger::DEBUG, [&] { return "Operation: " + operation; });

    result.eventType = determineEventType(type, operation);
    if (result.eventType == EventType::UNKNOWN) {
        trace(debugMode_, Logger::DEBUG,
              [&] { return "Unknown event type: type=" + type + ", operation=" + operation; });
        return;
    }

    result.statusType = determineStatusType(line);
    if (result.statusType == StatusType::UNKNOWN) {
        trace(debugMode_, Logger::DEBUG, [&] { return "Unknown status"; });
        return;
    }

    result.valid = true;
    trace(debugMode_, Logger::DEBUG, [&] {
        return "Parse successful - container_id: " + result.containerId + ", type: " + type +
               ", event: " + std::to_string(static_cast<int32_t>(result.eventType)) +
               ", path: " + result.path +
               ", status: " + std::to_string(static_cast<int32_t>(result.statusType));
    });
}

LogConverter::AuditStamp LogConverter::findAuditStamp(std::string_view line) {
    AuditStamp stamp;
    const std::size_t marker = line.find(STAMP_MARKER);
    if (marker == std::string_view::npos) {
        return stamp;
    }
    const std::size_t start = marker + STAMP_MARKER.size();
    if (start >= line.size()) {
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
    if (colon != std::string_view::npos) {
        stamp.hasSerial = leadingSerial(line.substr(colon + 1), stamp.serial);
    }
    return stamp;
}

std::string LogConverter::convertToOutputFormat(const ParseResult& result) {
    if (!result.valid) {
        return {};
    }
    std::string key = generateLogHash(result);
    if (!key.empty()) {
        // Moved into the set when new; on a duplicate the set keeps its own,
        // equal copy, which is the one reported.
        const auto [entry, inserted] = processedLogs_.insert(std::move(key));
        if (!inserted) {
            trace(Logger::DEBUG, concat({"Skipping duplicate log entry: ", *entry}));
            return {};
        }
        if (processedLogs_.size() > MAX_CACHE_SIZE) {
            processedLogs_.clear();
            trace(Logger::DEBUG, "Cleared duplicate cache (size limit reached)");
        }
    }

    // A record without words keeps its key in the cache: it stays remembered
    // although nothing is written for it.
    const std::string_view event = eventWord(result.eventType);
    if (event.empty()) {
        return {};
    }
    const std::string_view status = statusWord(result.statusType);
    if (status.empty()) {
        return {};
    }

    std::string line = concat({result.timestamp, ",container_id=", result.containerId,
                               ",Event=", event, ",path=", result.path, ",status=", status});

    trace(debugMode_, Logger::DEBUG, [&] { return "Output: " + line; });
    return line;
}

std::string LogConverter::convertTimestamp(const std::string& text) const {
    return formatStamp(text);
}

std::string LogConverter::generateLogHash(const ParseResult& result) const {
    if (!result.valid) {
        return {};
    }
    const std::string_view time =
        std::string_view(result.timestamp).substr(0, KEY_TIMESTAMP_LENGTH);
    return concat({result.containerId, KEY_SEPARATOR, result.path, KEY_SEPARATOR, time});
}

LogConverter::EventType LogConverter::determineEventType(const std::string& type,
                                                         const std::string& operation) const {
    if (equalsLowered(type, "qirn_netctl")) {
        trace(debugMode_, Logger::DEBUG, [&] { return "Type is QIRN_NETCTL -> netctl"; });
        return EventType::NETCTL;
    }
    if (equalsLowered(type, "qirn_avc")) {
        // With no trace to write, an operation that is exactly one of the
        // words is settled without a lower-cased copy and the searches in it;
        // each such word gives what the searches below would.
        if (!debugMode_) {
            for (const std::string_view word : EXEC_OPERATIONS) {
                if (equalsLowered(operation, word)) {
                    return EventType::EXECTL;
                }
            }
            for (const std::string_view word : FILE_OPERATIONS) {
                if (equalsLowered(operation, word)) {
                    return EventType::FILECTL;
                }
            }
        }
        // Lower-cased once, then searched for each word: an operation is short
        // enough to stay in the string's own buffer.
        const std::string lowered = lowerCopy(operation);
        if (contains(lowered, "exec") || contains(lowered, "interpret")) {
            trace(debugMode_, Logger::DEBUG,
                  [&] { return "Operation is exec/interpret -> exectl"; });
            return EventType::EXECTL;
        }
        if (contains(lowered, "write") || contains(lowered, "truncate") ||
            contains(lowered, "setattr") || contains(lowered, "unlink") ||
            contains(lowered, "rename")) {
            trace(debugMode_, Logger::DEBUG,
                  [&] { return "Operation is write/truncate/setattr/unlink/rename -> filectl"; });
            return EventType::FILECTL;
        }
    }
    // Also the message for an access-vector line whose operation matched
    // nothing, although its type is supported.
    trace(debugMode_, Logger::DEBUG, [&] { return "Unsupported type: " + type; });
    return EventType::UNKNOWN;
}

LogConverter::StatusType LogConverter::determineStatusType(const std::string& line) const {
    const std::string_view text = line;
    const std::size_t marker = text.find(STATUS_MARKER);
    if (marker == std::string_view::npos) {
        trace(debugMode_, Logger::DEBUG, [&] { return "No 'avc:' found in line"; });
        return StatusType::UNKNOWN;
    }
    std::size_t start = marker + STATUS_MARKER.size();
    while (start < text.size() && (text[start] == ' ' || text[start] == '\t')) {
        ++start;
    }
    std::size_t end = start;
    while (end < text.size() && text[end] != ' ' && text[end] != '\t' && text[end] != ':') {
        ++end;
    }
    // A comma does not end the word, so "denied," still counts as denied.
    const std::string_view word = text.substr(start, end - start);
    trace(debugMode_, Logger::DEBUG, [&] { return "Extracted status word: " + std::string(word); });

    // With no trace to write, the two words audit records carry are settled
    // without a lower-cased copy and a search in it.
    if (!debugMode_) {
        if (equalsLowered(word, "denied")) {
            return StatusType::ENFORCING;
        }
        if (equalsLowered(word, "detected")) {
            return StatusType::PERMISSIVE;
        }
    }
    const std::string lowered = lowerCopy(word);
    if (contains(lowered, "denied")) {
        trace(debugMode_, Logger::DEBUG,
              [&] { return "Status mapping (contains denied): " + lowered + " -> enforcing"; });
        return StatusType::ENFORCING;
    }
    if (contains(lowered, "detect")) {
        trace(debugMode_, Logger::DEBUG,
              [&] { return "Status mapping (contains detect): " + lowered + " -> permissive"; });
        return StatusType::PERMISSIVE;
    }
    trace(Logger::ERROR,
          "Unexpected status word (neither denied nor detect): " + lowered + " in line: " + line);
    return StatusType::UNKNOWN;
}
