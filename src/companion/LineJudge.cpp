#include "companion/LineJudge.h"

#include <exception>
#include <string>

namespace {

// Routes the logger into the judge before the converter exists, so that even
// its first line is captured.
LogConverter& capturedConverter(void* judge, Logger::Capture capture) {
    Logger::getInstance().setCapture(capture, judge);
    return LogConverter::getInstance();
}

}  // namespace

LineJudge::LineJudge(bool detailed)
    : converter_(capturedConverter(this, &LineJudge::capture)), detailed_(detailed) {
    // What the converter said while it was made (once per process) is expected.
    captured_.clear();
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
        const std::size_t logged = captured_.size();
        LogConverter::Stop reason = LogConverter::Stop::NONE;
        verdict.record = converter_.parseLine(line, reason, &rejection_);
        if (reason == LogConverter::Stop::NONE) {
            verdict.reason = Reason::EVENT;
            return;
        }
        judgeRejected(line, reason, verdict);
        // The converter logs an exception and an unexpected status word as
        // errors whatever its trace says; the reason already tells them, so
        // that line of the log is no stray.
        const bool reportedInLog =
            reason == LogConverter::Stop::EXCEPTION ||
            (reason == LogConverter::Stop::UNKNOWN_STATUS && rejection_.statusMarker);
        if (reportedInLog && captured_.size() > logged) {
            captured_.pop_back();
        }
    } catch (const std::exception& error) {
        verdict.reason = Reason::EXCEPTION;
        verdict.detail = error.what();
    }
}

void LineJudge::judgeRejected(const std::string& line, LogConverter::Stop reason,
                              Verdict& verdict) {
    using Converter = LogConverter::Stop;
    switch (reason) {
        case Converter::NO_CONTAINER:
            verdict.reason = Reason::NO_CONTAINER;
            return;
        case Converter::NO_STAMP:
            verdict.reason = Reason::NO_STAMP;
            return;
        case Converter::BAD_STAMP:
            verdict.reason = Reason::BAD_STAMP;
            verdict.detail = std::string(LogConverter::findAuditStamp(line).text);
            return;
        case Converter::NO_PATH:
            verdict.reason = Reason::NO_PATH;
            if (detailed_) {
                verdict.detail.append("type=").append(rejection_.type);
            }
            return;
        case Converter::UNKNOWN_EVENT:
            verdict.reason = Reason::UNKNOWN_EVENT;
            if (detailed_) {
                verdict.detail.append("type=").append(rejection_.type);
                verdict.detail.append(", operation=").append(rejection_.operation);
            }
            return;
        case Converter::UNKNOWN_STATUS:
            verdict.reason = Reason::UNKNOWN_STATUS;
            if (rejection_.statusMarker) {
                verdict.detail = rejection_.statusWord;
            } else if (detailed_) {
                verdict.detail = "no avc:";
            }
            return;
        case Converter::EXCEPTION:
            verdict.reason = Reason::EXCEPTION;
            verdict.detail = rejection_.error;
            return;
        case Converter::OTHER_TYPE:
            verdict.reason = Reason::TYPE;
            return;
        // Reasons of the output step, never of a parse.
        case Converter::NONE:
        case Converter::NOT_VALID:
        case Converter::DUPLICATE:
        case Converter::NO_WORD:
            break;
    }
    verdict.reason = Reason::EXCEPTION;
    verdict.detail = "unexpected reason";
}

void LineJudge::emit(Verdict& verdict) {
    try {
        LogConverter::Stop reason = LogConverter::Stop::NONE;
        verdict.event = converter_.convertToOutputFormat(verdict.record, reason);
        if (reason == LogConverter::Stop::NONE) {
            verdict.reason = Reason::EVENT;
            return;
        }
        // A parsed record has words for its values, so only the cache can
        // leave its line out.
        verdict.reason = Reason::DUPLICATE;
        verdict.detail = converter_.generateLogHash(verdict.record);
    } catch (const std::exception& error) {
        verdict.reason = Reason::EXCEPTION;
        verdict.detail = error.what();
    }
}

std::vector<std::string> LineJudge::takeStrayLines() {
    std::vector<std::string> lines;
    lines.swap(captured_);
    return lines;
}
