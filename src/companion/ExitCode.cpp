#include "companion/ExitCode.h"

namespace {

// The failures that suggest a changed audit format.
bool strictReason(LineJudge::Reason reason) {
    switch (reason) {
        case LineJudge::Reason::NO_STAMP:
        case LineJudge::Reason::BAD_STAMP:
        case LineJudge::Reason::NO_PATH:
        case LineJudge::Reason::UNKNOWN_STATUS:
        case LineJudge::Reason::EXCEPTION:
            return true;
        default:
            return false;
    }
}

}  // namespace

int ExitCode::of(const RunEnd& end, const Summary& summary) {
    if (end.ioError) {
        return ERROR;
    }
    if (end.unmatched) {
        return UNMATCHED;
    }
    if (end.strict) {
        for (std::size_t i = 0; i < LineJudge::REASON_COUNT; ++i) {
            const auto reason = static_cast<LineJudge::Reason>(i);
            if (strictReason(reason) && summary.countOf(reason) > 0) {
                return STRICT;
            }
        }
    }
    // A checkpoint run with nothing new is the quiet hour of a timer, not a
    // failure; a file given once that holds no event is worth a word.
    if (end.plain && summary.events() == 0) {
        return NO_EVENT;
    }
    return DONE;
}
