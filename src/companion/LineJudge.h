#pragma once
// Decides what the service would do with one audit line, and why, from what
// the converter itself reports: the reason code of the step that stopped the
// line, what that step saw, and the duplicate cache.

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "converter/LogConverter.h"
#include "logging/Logger.h"

class LineJudge {
public:
    enum class Reason {
        EVENT,
        TYPE,
        NO_CONTAINER,
        NO_STAMP,
        BAD_STAMP,
        NO_PATH,
        UNKNOWN_EVENT,
        UNKNOWN_STATUS,
        DUPLICATE,
        TOO_LONG,
        EXCEPTION,
        OUT_OF_RANGE,
        PRESENT,
    };
    static constexpr std::size_t REASON_COUNT = static_cast<std::size_t>(Reason::PRESENT) + 1;

    struct Verdict {
        Reason reason = Reason::TYPE;
        // Only for a detailed judge, or where the reason itself needs it.
        std::string detail;
        LogConverter::ParseResult record;
        std::string event;  // the output line, for EVENT
    };

    // With `detailed` set, every rejection that has a detail names it; without,
    // only those the summary-only run reports too.
    explicit LineJudge(bool detailed);
    ~LineJudge();
    LineJudge(const LineJudge&) = delete;
    LineJudge& operator=(const LineJudge&) = delete;

    // The converter's own type filter on the line's bytes where they lie, so
    // that a caller can settle most lines before copying them: true exactly
    // when parse() would give reason TYPE.
    static bool isOtherType(std::string_view line) { return !LogConverter::isHandledType(line); }

    // First step: parses the line. A valid record leaves reason EVENT with the
    // cache untouched, so that the caller can still leave it out by its time.
    void parse(const std::string& line, Verdict& verdict);
    // parse() for a line that isOtherType() has already let through, without
    // running the filter a second time.
    void parseHandled(const std::string& line, Verdict& verdict);
    // Second step for a valid record: the duplicate cache and the output line.
    void emit(Verdict& verdict);

    static const char* reasonName(Reason reason);
    // Logger lines that no reason accounted for, e.g. an unexpected error.
    std::vector<std::string> takeStrayLines();
    bool hasStrayLines() const { return !captured_.empty(); }

private:
    static void capture(void* context, Logger::Level level, const std::string& message);
    // parse after the filter, out of line so that a line of another type,
    // most lines, runs in a small frame.
    [[gnu::noinline]] void parseRecord(const std::string& line, Verdict& verdict);
    void judgeRejected(const std::string& line, LogConverter::Stop reason, Verdict& verdict);

    // Before the converter: its first line is captured while it is constructed.
    std::vector<std::string> captured_;
    LogConverter& converter_;
    bool detailed_;
    // Reused from line to line, so that its texts keep their room.
    LogConverter::Rejection rejection_;
};
