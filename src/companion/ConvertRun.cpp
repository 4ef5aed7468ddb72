#include "companion/ConvertRun.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <exception>

#include "common/EventLine.h"
#include "companion/Descriptor.h"
#include "companion/FieldEscaper.h"
#include "companion/InputStream.h"

namespace {

constexpr const char* PROGRAM = "qirn-log-convert: ";
constexpr const char* STANDARD_INPUT_SOURCE = "-";

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

// A JSON string field, with the raw bytes in hexadecimal beside it when they
// were not valid UTF-8.
void appendJsonField(std::string& out, const char* name, std::string_view value) {
    out += '"';
    out += name;
    out += "\":";
    if (!FieldEscaper::appendJsonString(out, value)) {
        out += ",\"";
        out += name;
        out += "_hex\":\"";
        FieldEscaper::appendHex(out, value);
        out += '"';
    }
}

}  // namespace

ConvertRun::ConvertRun(const ConvertOptions& options, int outputFd, int errorFd)
    : options_(options),
      output_(outputFd),
      errorFd_(errorFd),
      judge_(options.explain != ConvertOptions::Explain::NONE),
      reconciling_(!options.eventLogs.empty()),
      useRange_(false),
      hasLowerBound_(options.hasSince),
      lowerBound_(options.since),
      hasUpperBound_(options.hasUntil),
      upperBound_(options.until),
      settleBound_(0),
      settling_(options.hasSettle || reconciling_),
      stopAtTooNew_(!options.checkpoint.empty()),
      ioError_(false),
      unmatched_(false),
      explaining_(options.explain != ConvertOptions::Explain::NONE) {
    if (settling_) {
        settleBound_ = static_cast<int64_t>(std::time(nullptr)) - options.settle;
    }
    useRange_ = hasLowerBound_ || hasUpperBound_ || settling_;
}

int ConvertRun::run() {
    // Everything that can make the run pointless is checked before the first
    // line is written: the checkpoint, its inputs and the event logs.
    Checkpoint checkpoint(options_.checkpoint);
    Checkpoint* usedCheckpoint = nullptr;
    if (!options_.checkpoint.empty()) {
        if (!checkpoint.load() || !checkpoint.checkWritable()) {
            reportError(checkpoint.error());
            return EXIT_ERROR;
        }
        if (!checkCheckpointInputs()) {
            return EXIT_ERROR;
        }
        usedCheckpoint = &checkpoint;
    }
    if (reconciling_ && !readEventLogs()) {
        return EXIT_ERROR;
    }
    for (const std::string& input : options_.inputs) {
        if (output_.failed()) {
            break;
        }
        convertInput(input, usedCheckpoint);
    }
    if (!output_.flush()) {
        reportError(std::string("standard output: cannot write: ") +
                    std::strerror(output_.error()));
        summary_.outputFailed(output_.linesOut());
    } else if (usedCheckpoint != nullptr && !checkpoint.save()) {
        // Saved only once the output is out, so that nothing is skipped next time.
        reportError(checkpoint.error());
    }
    if (reconciling_) {
        checkUnmatched();
    }
    if (!options_.quiet) {
        Descriptor::writeAll(errorFd_, summary_.render());
    }
    return exitStatus();
}

int ConvertRun::exitStatus() const {
    if (ioError_) {
        return EXIT_ERROR;
    }
    if (unmatched_) {
        return EXIT_UNMATCHED;
    }
    if (options_.strict) {
        for (std::size_t i = 0; i < LineJudge::REASON_COUNT; ++i) {
            const auto reason = static_cast<LineJudge::Reason>(i);
            if (strictReason(reason) && summary_.countOf(reason) > 0) {
                return EXIT_STRICT;
            }
        }
    }
    // A checkpoint run with nothing new is the quiet hour of a timer, not a
    // failure; a file given once that holds no event is worth a word.
    const bool plain = !explaining_ && !reconciling_ && options_.checkpoint.empty();
    if (plain && summary_.events() == 0) {
        return EXIT_NO_EVENT;
    }
    return EXIT_DONE;
}

void ConvertRun::reportError(const std::string& message) {
    ioError_ = true;
    note(message);
}

void ConvertRun::note(const std::string& message) {
    Descriptor::writeAll(errorFd_, PROGRAM + message + "\n");
}

bool ConvertRun::checkCheckpointInputs() {
    bool usable = true;
    for (const std::string& name : options_.inputs) {
        struct stat info {};
        // A missing file is reported when its turn comes, like without a
        // checkpoint; what exists must have a place to resume from.
        if (stat(name.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
            reportError(name +
                        ": not a regular file: --checkpoint cannot record where a pipe or "
                        "device stopped");
            usable = false;
        }
    }
    return usable;
}

bool ConvertRun::readEventLogs() {
    // All of them before any event is judged: an event log that cannot be
    // read to its end would make its events look missing.
    bool complete = true;
    for (const std::string& name : options_.eventLogs) {
        std::string error;
        if (!eventLogs_.read(name, error)) {
            reportError(error);
            complete = false;
        }
    }
    if (!complete) {
        note("--reconcile: an event log could not be read to its end; nothing written");
    }
    return complete;
}

void ConvertRun::convertInput(const std::string& name, Checkpoint* checkpoint) {
    InputStream input(name);
    if (!input.open()) {
        reportError(input.error());
        return;
    }
    const InputStream::Identity& identity = input.identity();
    if (identity.regular) {
        const std::pair<uint64_t, uint64_t> id(identity.device, identity.inode);
        if (std::find(converted_.begin(), converted_.end(), id) != converted_.end()) {
            note(name + ": named twice (same device and inode), converted once");
            return;
        }
        converted_.push_back(id);
    }
    if (checkpoint != nullptr && !identity.regular) {
        reportError(name + ": not a regular file: --checkpoint cannot record where it stopped");
        return;
    }
    int64_t start = 0;
    uint64_t firstLine = 1;
    if (checkpoint != nullptr) {
        if (const Checkpoint::Entry* entry = checkpoint->find(identity.device, identity.inode)) {
            const bool compressed = InputStream::isCompressedName(name);
            if (!compressed && identity.size < entry->offset) {
                note(name + ": shorter than its checkpoint (" + std::to_string(identity.size) +
                     " < " + std::to_string(entry->offset) +
                     " bytes), converting it from its beginning");
            } else {
                start = entry->offset;
                firstLine = entry->nextLine;
            }
        }
        if (!input.skipTo(start)) {
            reportError(input.error());
            return;
        }
    }
    // With a checkpoint an unfinished last line waits for the next run.
    LineSource source(input, start, firstLine, checkpoint == nullptr);
    sourceName_ = input.isStandardInput() ? STANDARD_INPUT_SOURCE : name;
    const bool complete =
        source.run([this](const LineSource::Line& line) { return handleLine(line); });
    if (!complete) {
        // What was read cleanly stays converted and recorded; the rest is not.
        reportError(input.error());
    }
    if (checkpoint != nullptr) {
        Checkpoint::Entry entry;
        entry.device = identity.device;
        entry.inode = identity.inode;
        entry.offset = source.resumeOffset();
        entry.nextLine = source.resumeNumber();
        entry.name = name;
        checkpoint->record(entry);
    }
}

bool ConvertRun::handleLine(const LineSource::Line& line) {
    lineNumber_ = line.number;
    if (explaining_ || line.tooLong || judge_.hasStrayLines()) {
        return handleRecord(line, false);
    }
    // Most lines are of another audit type; without explanations there is
    // nothing to write for them, so they are settled on the bytes where they
    // lie, never copied.
    if (LineJudge::isOtherType(std::string_view(line.text, line.length))) {
        summary_.lineRead();
        summary_.count(LineJudge::Reason::TYPE);
        return true;
    }
    return handleRecord(line, true);
}

bool ConvertRun::handleRecord(const LineSource::Line& line, bool typeChecked) {
    if (line.tooLong) {
        return handleTooLong();
    }
    // clear() and append() reuse the string's room without the general
    // replacement that assign() goes through.
    lineText_.clear();
    lineText_.append(line.text, line.length);
    if (typeChecked) {
        judge_.parseHandled(lineText_, verdict_);
    } else {
        judge_.parse(lineText_, verdict_);
    }
    return handleJudged();
}

bool ConvertRun::handleTooLong() {
    summary_.lineRead();
    verdict_.reason = LineJudge::Reason::TOO_LONG;
    verdict_.detail = "longer than " + std::to_string(LineSource::MAX_LINE_SIZE) + " bytes";
    return deliver(verdict_, lineText_);
}

bool ConvertRun::handleJudged() {
    if (verdict_.reason == LineJudge::Reason::EVENT && useRange_) {
        bool tooNew = false;
        std::string detail;
        if (outOfRange(lineText_, tooNew, detail)) {
            // A checkpointed file stops before it, so the next run sees it again.
            if (tooNew && stopAtTooNew_) {
                judge_.takeStrayLines();
                return false;
            }
            verdict_.reason = LineJudge::Reason::OUT_OF_RANGE;
            verdict_.detail = detail;
        }
    }
    if (verdict_.reason == LineJudge::Reason::EVENT) {
        judge_.emit(verdict_);
    }
    summary_.lineRead();
    const bool writing = deliver(verdict_, lineText_);
    if (judge_.hasStrayLines()) {
        reportStray();
    }
    return writing;
}

bool ConvertRun::outOfRange(const std::string& line, bool& tooNew, std::string& detail) {
    const LogConverter::AuditStamp stamp = LogConverter::findAuditStamp(line);
    const int64_t seconds = static_cast<int64_t>(stamp.seconds);
    auditSeconds_ = seconds;
    detail = "audit time " + std::to_string(seconds);
    if (hasLowerBound_ && seconds < lowerBound_) {
        tooNew = false;
        return true;
    }
    if ((hasUpperBound_ && seconds > upperBound_) || (settling_ && seconds > settleBound_)) {
        tooNew = true;
        return true;
    }
    return false;
}

std::string ConvertRun::sourceText() const {
    return sourceName_ + ":" + std::to_string(lineNumber_);
}

LineJudge::Reason ConvertRun::reconciled(const LineJudge::Verdict& verdict) {
    if (candidates_ == 0 || auditSeconds_ < firstCandidate_) {
        firstCandidate_ = auditSeconds_;
    }
    if (candidates_ == 0 || auditSeconds_ > lastCandidate_) {
        lastCandidate_ = auditSeconds_;
    }
    ++candidates_;
    const std::string_view time = std::string_view(verdict.event).substr(0, EventLine::TIME_LENGTH);
    if (!eventLogs_.contains(verdict.record.containerId, verdict.record.path, time)) {
        return LineJudge::Reason::EVENT;
    }
    ++matched_;
    return LineJudge::Reason::PRESENT;
}

bool ConvertRun::deliver(const LineJudge::Verdict& verdict, const std::string& line) {
    LineJudge::Reason reason = verdict.reason;
    if (reason == LineJudge::Reason::EVENT && reconciling_) {
        reason = reconciled(verdict);
    }
    summary_.count(reason);
    const bool isEvent = reason == LineJudge::Reason::EVENT;
    std::string& out = output_.text();
    if (explaining_) {
        if (isEvent && options_.explain != ConvertOptions::Explain::ALL) {
            return true;
        }
        const bool showsEvent = isEvent || reason == LineJudge::Reason::PRESENT;
        appendRow(out, reason, showsEvent ? verdict.event : verdict.detail);
    } else if (isEvent) {
        appendEvent(out, verdict, line);
    } else {
        return true;
    }
    output_.written();
    return !output_.failed();
}

void ConvertRun::appendRow(std::string& out, LineJudge::Reason reason, const std::string& detail) {
    const bool isEvent = reason == LineJudge::Reason::EVENT;
    if (options_.format == ConvertOptions::Format::JSON) {
        out += '{';
        appendJsonField(out, "source", sourceText());
        out += isEvent ? ",\"verdict\":\"event\",\"reason\":null,"
                       : ",\"verdict\":\"skip\",\"reason\":\"";
        if (!isEvent) {
            out += LineJudge::reasonName(reason);
            out += "\",";
        }
        appendJsonField(out, "detail", detail);
        out += "}\n";
        return;
    }
    FieldEscaper::appendTabField(out, sourceText());
    out += isEvent ? "\tevent\t" : "\tskip\t";
    out += LineJudge::reasonName(reason);
    out += '\t';
    FieldEscaper::appendTabField(out, detail);
    out += '\n';
}

void ConvertRun::appendEvent(std::string& out, const LineJudge::Verdict& verdict,
                             const std::string& line) {
    if (options_.format == ConvertOptions::Format::LINE) {
        out += verdict.event;
        out += '\n';
        return;
    }
    const LogConverter::ParseResult& record = verdict.record;
    const LogConverter::AuditStamp stamp = LogConverter::findAuditStamp(line);

    out += "{\"time\":";
    FieldEscaper::appendJsonString(out, record.timestamp);
    out += ",\"container_id\":";
    const bool containerValid = FieldEscaper::appendJsonString(out, record.containerId);
    out += ",\"event\":";
    FieldEscaper::appendJsonString(out, LogConverter::eventWord(record.eventType));
    out += ",\"path\":";
    const bool pathValid = FieldEscaper::appendJsonString(out, record.path);
    out += ",\"status\":";
    FieldEscaper::appendJsonString(out, LogConverter::statusWord(record.statusType));
    out += ",\"audit_seconds\":";
    out += std::to_string(stamp.seconds);
    out += ",\"serial\":";
    out += stamp.hasSerial ? std::to_string(stamp.serial) : "null";
    if (!containerValid) {
        out += ",\"container_id_hex\":\"";
        FieldEscaper::appendHex(out, record.containerId);
        out += '"';
    }
    if (!pathValid) {
        out += ",\"path_hex\":\"";
        FieldEscaper::appendHex(out, record.path);
        out += '"';
    }
    out += "}\n";
}

void ConvertRun::checkUnmatched() {
    // Events of the same time in the event logs, yet not one key in common:
    // the logs were written under another zone (the time text differs) or on
    // another host, and every event here would be backfilled a second time.
    if (candidates_ == 0 || matched_ > 0 ||
        !eventLogs_.holdsTimeBetween(firstCandidate_, lastCandidate_)) {
        return;
    }
    unmatched_ = true;
    note("--reconcile: none of the " + std::to_string(candidates_) +
         " events matched an event log line, although the event logs hold events of the same "
         "time; were they written under another TZ or on another host? Reconcile under the "
         "writer's TZ (see qirn-log-convert(1))");
}

void ConvertRun::reportStray() {
    for (const std::string& message : judge_.takeStrayLines()) {
        note(sourceText() + ": converter: " + message);
    }
}
