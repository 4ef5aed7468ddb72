#include "companion/LineJudge.h"

#include <exception>
#include <string>
#include <utility>

namespace {

constexpr std::string_view EXCEPTION_PREFIX = "Exception in parseLine: ";
constexpr std::string_view STATUS_WORD_PREFIX =
    "Unexpected status word (neither denied nor detect): ";
constexpr std::string_view STATUS_LINE_SEPARATOR = " in line: ";
constexpr std::string_view INITIALIZED_MESSAGE = "LogConverter initialized";
constexpr std::string_view NO_STAMP_TRACE = "No timestamp found";
constexpr std::string_view BAD_STAMP_TRACE = "Failed to convert timestamp";
constexpr std::string_view TYPE_TRACE = "Type: ";
constexpr std::string_view UNKNOWN_EVENT_TRACE = "Unknown event type: ";
constexpr std::string_view NO_STATUS_MARKER_TRACE = "No 'avc:' found in line";
constexpr std::string_view STATUS_WORD_TRACE = "Extracted status word: ";

bool startsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

// Routes the logger into the judge before the converter exists, so that even
// its first line is captured.
LogConverter& capturedConverter(void* judge, Logger::Capture capture) {
    Logger::getInstance().setCapture(capture, judge);
    return LogConverter::getInstance();
}

}  // namespace

LineJudge::LineJudge(bool detailed)
    : converter_(capturedConverter(this, &LineJudge::capture)), detailed_(detailed) {
    // The converter says hello once per process; that line is expected.
    std::string ignored;
    takeCaptured(INITIALIZED_MESSAGE, &ignored);
}

LineJudge::~LineJudge() { Logger::getInstance().setCapture(nullptr, nullptr); }

void LineJudge::capture(void* context, Logger::Level level, const std::string& message) {
    (void)level;
    static_cast<LineJudge*>(context)->captured_.push_back(message);
}

const char* LineJudge::reasonName(Reason reason) {
    switch (reason) {
        case Reason::EVENT:
            return "-";
        case Reason::TYPE:
            return "type";
        case Reason::NO_CONTAINER:
            return "no-container";
        case Reason::NO_STAMP:
            return "no-stamp";
        case Reason::BAD_STAMP:
            return "bad-stamp";
        case Reason::NO_PATH:
            return "no-path";
        case Reason::UNKNOWN_EVENT:
            return "unknown-event";
        case Reason::UNKNOWN_STATUS:
            return "unknown-status";
        case Reason::DUPLICATE:
            return "duplicate";
        case Reason::TOO_LONG:
            return "too-long";
        case Reason::EXCEPTION:
            return "exception";
        case Reason::OUT_OF_RANGE:
            return "out-of-range";
        case Reason::PRESENT:
            return "present";
    }
    return "?";
}

void LineJudge::parse(const std::string& line, Verdict& verdict) {
    verdict.detail.clear();
    verdict.event.clear();
    try {
        // The filter alone decides most lines; parseLine would begin with it.
        if (!converter_.shouldProcess(line)) {
            // The record is left as it was: nothing reads it for this reason.
            verdict.reason = Reason::TYPE;
            return;
        }
    } catch (const std::exception& error) {
        verdict.reason = Reason::EXCEPTION;
        verdict.detail = error.what();
        return;
    }
    parseRecord(line, verdict);
}

void LineJudge::parseHandled(const std::string& line, Verdict& verdict) {
    verdict.detail.clear();
    verdict.event.clear();
    parseRecord(line, verdict);
}

void LineJudge::parseRecord(const std::string& line, Verdict& verdict) {
    try {
        verdict.record = converter_.parseLine(line);
        // Nearly always nothing was logged: no call to search the lines.
        if (!captured_.empty() && takeCaptured(EXCEPTION_PREFIX, &verdict.detail)) {
            verdict.reason = Reason::EXCEPTION;
            return;
        }
        if (verdict.record.valid) {
            verdict.reason = Reason::EVENT;
            return;
        }
        classifyRejected(line, verdict);
    } catch (const std::exception& error) {
        verdict.reason = Reason::EXCEPTION;
        verdict.detail = error.what();
    }
}

void LineJudge::emit(Verdict& verdict) {
    try {
        verdict.event = converter_.convertToOutputFormat(verdict.record);
        if (verdict.event.empty()) {
            verdict.reason = Reason::DUPLICATE;
            verdict.detail = converter_.generateLogHash(verdict.record);
        } else {
            verdict.reason = Reason::EVENT;
        }
    } catch (const std::exception& error) {
        verdict.reason = Reason::EXCEPTION;
        verdict.detail = error.what();
    }
}

// The record holds every field up to the step that failed.
void LineJudge::classifyRejected(const std::string& line, Verdict& verdict) {
    const LogConverter::ParseResult& record = verdict.record;
    if (record.containerId.empty()) {
        verdict.reason = Reason::NO_CONTAINER;
        return;
    }
    if (record.timestamp.empty()) {
        // The record cannot tell a missing stamp from one that does not
        // convert; the converter's trace of this line can.
        const std::vector<std::string> lines = trace(line);
        if (findTrace(lines, NO_STAMP_TRACE, nullptr) ||
            !findTrace(lines, BAD_STAMP_TRACE, nullptr)) {
            verdict.reason = Reason::NO_STAMP;
        } else {
            verdict.reason = Reason::BAD_STAMP;
            verdict.detail = std::string(LogConverter::findAuditStamp(line).text);
        }
        return;
    }
    if (record.path.empty()) {
        verdict.reason = Reason::NO_PATH;
        std::string type;
        if (detailed_ && findTrace(trace(line), TYPE_TRACE, &type)) {
            verdict.detail = "type=" + type;
        }
        return;
    }
    if (record.eventType == LogConverter::EventType::UNKNOWN) {
        verdict.reason = Reason::UNKNOWN_EVENT;
        if (detailed_) {
            findTrace(trace(line), UNKNOWN_EVENT_TRACE, &verdict.detail);
        }
        return;
    }
    verdict.reason = Reason::UNKNOWN_STATUS;
    // An unexpected word is reported by the converter whatever its trace says.
    std::string word;
    if (takeCaptured(STATUS_WORD_PREFIX, &word)) {
        verdict.detail = word.substr(0, word.find(STATUS_LINE_SEPARATOR));
    } else if (detailed_) {
        const std::vector<std::string> lines = trace(line);
        if (findTrace(lines, NO_STATUS_MARKER_TRACE, nullptr)) {
            verdict.detail = "no avc:";
        } else {
            findTrace(lines, STATUS_WORD_TRACE, &verdict.detail);
        }
    }
}

std::vector<std::string> LineJudge::trace(const std::string& line) {
    std::vector<std::string> saved;
    saved.swap(captured_);
    Logger& logger = Logger::getInstance();
    LogConverter::setDebugMode(true);
    logger.setDebugMode(true);
    converter_.parseLine(line);
    logger.setDebugMode(false);
    LogConverter::setDebugMode(false);
    saved.swap(captured_);
    return saved;
}

bool LineJudge::findTrace(const std::vector<std::string>& lines, std::string_view prefix,
                          std::string* rest) {
    for (const std::string& message : lines) {
        if (startsWith(message, prefix)) {
            if (rest != nullptr) {
                *rest = message.substr(prefix.size());
            }
            return true;
        }
    }
    return false;
}

// Removes the first captured line that starts with `prefix`; whatever is left
// after a line is done is stray.
bool LineJudge::takeCaptured(std::string_view prefix, std::string* rest) {
    if (captured_.empty()) {
        return false;
    }
    for (auto it = captured_.begin(); it != captured_.end(); ++it) {
        if (startsWith(*it, prefix)) {
            *rest = it->substr(prefix.size());
            captured_.erase(it);
            return true;
        }
    }
    return false;
}

std::vector<std::string> LineJudge::takeStrayLines() {
    std::vector<std::string> lines;
    lines.swap(captured_);
    return lines;
}
