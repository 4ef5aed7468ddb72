#include "convert/ConvertRun.h"

#include <unistd.h>

#include <cstring>
#include <ctime>
#include <exception>

#include "common/EventLine.h"
#include "convert/FieldEscaper.h"
#include "convert/InputStream.h"

namespace {

constexpr const char* PROGRAM = "qirn-log-convert: ";
constexpr const char* STANDARD_INPUT_SOURCE = "-";

void writeText(int fd, const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t wrote = write(fd, text.data() + done, text.size() - done);
        if (wrote <= 0) {
            return;
        }
        done += static_cast<std::size_t>(wrote);
    }
}

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

ConvertRun::ConvertRun(const ConvertOptions& options, int outputFd, int errorFd)
    : options_(options),
      output_(outputFd),
      errorFd_(errorFd),
      judge_(options.explain != ConvertOptions::Explain::NONE),
      reconciling_(!options.eventLogs.empty()),
      holdBack_(reconciling_),
      useRange_(false),
      hasLowerBound_(options.hasSince),
      lowerBound_(options.since),
      hasUpperBound_(options.hasUntil),
      upperBound_(options.until),
      settleBound_(0),
      settling_(options.hasSettle || reconciling_),
      stopAtTooNew_(!options.checkpoint.empty()),
      ioError_(false),
      explaining_(options.explain != ConvertOptions::Explain::NONE) {
    if (settling_) {
        settleBound_ = static_cast<int64_t>(std::time(nullptr)) - options.settle;
    }
    useRange_ = hasLowerBound_ || hasUpperBound_ || settling_;
}

int ConvertRun::run() {
    Checkpoint checkpoint(options_.checkpoint);
    Checkpoint* usedCheckpoint = nullptr;
    if (!options_.checkpoint.empty()) {
        if (!checkpoint.load()) {
            reportError(checkpoint.error());
            return EXIT_ERROR;
        }
        usedCheckpoint = &checkpoint;
    }
    for (const std::string& input : options_.inputs) {
        convertInput(input, usedCheckpoint);
    }
    if (reconciling_) {
        reconcile();
    }
    if (!output_.flush()) {
        reportError(std::string("standard output: cannot write: ") +
                    std::strerror(output_.error()));
    } else if (usedCheckpoint != nullptr && !checkpoint.save()) {
        // Saved only once the output is out, so that nothing is skipped next time.
        reportError(checkpoint.error());
    }
    if (!options_.quiet) {
        writeText(errorFd_, summary_.render());
    }
    return exitStatus();
}

int ConvertRun::exitStatus() const {
    if (ioError_) {
        return EXIT_ERROR;
    }
    if (options_.strict) {
        for (std::size_t i = 0; i < LineJudge::REASON_COUNT; ++i) {
            const auto reason = static_cast<LineJudge::Reason>(i);
            if (strictReason(reason) && summary_.countOf(reason) > 0) {
                return EXIT_STRICT;
            }
        }
    }
    const bool plain = options_.explain == ConvertOptions::Explain::NONE && !reconciling_;
    if (plain && summary_.events() == 0) {
        return EXIT_NO_EVENT;
    }
    return EXIT_DONE;
}

void ConvertRun::reportError(const std::string& message) {
    ioError_ = true;
    writeText(errorFd_, PROGRAM + message + "\n");
}

void ConvertRun::convertInput(const std::string& name, Checkpoint* checkpoint) {
    InputStream input(name);
    if (!input.open()) {
        reportError(input.error());
        return;
    }
    const InputStream::Identity& identity = input.identity();
    const bool checkpointed = checkpoint != nullptr && identity.regular;
    int64_t start = 0;
    uint64_t firstLine = 1;
    if (checkpointed) {
        if (const Checkpoint::Entry* entry = checkpoint->find(identity.device, identity.inode)) {
            const bool compressed = InputStream::isCompressedName(name);
            if (!compressed && identity.size < entry->offset) {
                writeText(errorFd_, PROGRAM + name + ": shorter than its checkpoint (" +
                                        std::to_string(identity.size) + " < " +
                                        std::to_string(entry->offset) +
                                        " bytes), converting it from its beginning\n");
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
        reportError(input.error());
    }
    if (checkpointed) {
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
    deliver(verdict_, lineText_);
    return true;
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
    deliver(verdict_, lineText_);
    if (judge_.hasStrayLines()) {
        reportStray();
    }
    return true;
}

bool ConvertRun::outOfRange(const std::string& line, bool& tooNew, std::string& detail) {
    const LogConverter::AuditStamp stamp = LogConverter::findAuditStamp(line);
    const int64_t seconds = static_cast<int64_t>(stamp.seconds);
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

void ConvertRun::deliver(const LineJudge::Verdict& verdict, const std::string& line) {
    summary_.count(verdict.reason);
    const bool isEvent = verdict.reason == LineJudge::Reason::EVENT;
    const bool explaining = options_.explain != ConvertOptions::Explain::NONE;
    const bool rowWanted =
        explaining && (!isEvent || options_.explain == ConvertOptions::Explain::ALL);
    if (holdBack_) {
        if (!isEvent && !rowWanted) {
            return;
        }
        Pending pending;
        pending.source = sourceText();
        if (isEvent) {
            pending.event = verdict.event;
            pending.key = EventLine::key(verdict.record.containerId, verdict.record.path,
                                         verdict.event.substr(0, EventLine::TIME_LENGTH));
            candidates_.emplace(pending.key, false);
            if (explaining) {
                appendRow(pending.row, pending.source, verdict.reason, verdict.event);
            } else {
                appendEvent(pending.row, verdict, line);
            }
        } else {
            appendRow(pending.row, pending.source, verdict.reason, verdict.detail);
        }
        pending_.push_back(std::move(pending));
        return;
    }
    std::string& out = output_.text();
    if (explaining) {
        if (rowWanted) {
            appendRow(out, sourceText(), verdict.reason, isEvent ? verdict.event : verdict.detail);
        }
    } else if (isEvent) {
        appendEvent(out, verdict, line);
    }
    output_.written();
}

void ConvertRun::appendRow(std::string& out, const std::string& source, LineJudge::Reason reason,
                           const std::string& detail) {
    const bool isEvent = reason == LineJudge::Reason::EVENT;
    FieldEscaper::appendTabField(out, source);
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
    // The words are read back from the line the converter composed, at the
    // places its fields put them.
    const LogConverter::ParseResult& record = verdict.record;
    const std::string& event = verdict.event;
    const std::size_t eventStart = record.timestamp.size() + EventLine::CONTAINER_MARKER.size() +
                                   record.containerId.size() + EventLine::EVENT_MARKER.size();
    const std::size_t eventEnd = event.find(EventLine::PATH_MARKER, eventStart);
    const std::size_t statusStart =
        event.rfind(EventLine::STATUS_MARKER) + EventLine::STATUS_MARKER.size();
    const LogConverter::AuditStamp stamp = LogConverter::findAuditStamp(line);

    out += "{\"time\":";
    FieldEscaper::appendJsonString(out, record.timestamp);
    out += ",\"container_id\":";
    const bool containerValid = FieldEscaper::appendJsonString(out, record.containerId);
    out += ",\"event\":";
    FieldEscaper::appendJsonString(
        out, std::string_view(event).substr(eventStart, eventEnd - eventStart));
    out += ",\"path\":";
    const bool pathValid = FieldEscaper::appendJsonString(out, record.path);
    out += ",\"status\":";
    FieldEscaper::appendJsonString(out, std::string_view(event).substr(statusStart));
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

void ConvertRun::reconcile() {
    // The event logs are streamed against the candidates: only the keys of
    // this run's events are held, however large the archive.
    std::string key;
    for (const std::string& name : options_.eventLogs) {
        InputStream input(name);
        if (!input.open()) {
            reportError(input.error());
            continue;
        }
        LineSource source(input, 0, 1, true);
        const bool complete = source.run([this, &key](const LineSource::Line& line) {
            EventLine::Fields fields;
            if (EventLine::parse(std::string_view(line.text, line.length), fields)) {
                EventLine::composeKey(key, fields.containerId, fields.path, fields.time);
                const auto found = candidates_.find(key);
                if (found != candidates_.end()) {
                    found->second = true;
                }
            }
            return true;
        });
        if (!complete) {
            reportError(input.error());
        }
    }
    const bool explaining = options_.explain != ConvertOptions::Explain::NONE;
    for (Pending& pending : pending_) {
        const bool present = !pending.key.empty() && candidates_[pending.key];
        if (present) {
            summary_.uncount(LineJudge::Reason::EVENT);
            summary_.count(LineJudge::Reason::PRESENT);
            if (explaining) {
                appendRow(output_.text(), pending.source, LineJudge::Reason::PRESENT,
                          pending.event);
            }
        } else if (!pending.key.empty() && explaining &&
                   options_.explain != ConvertOptions::Explain::ALL) {
            // An event row was kept only in case it turned into a "present" row.
        } else {
            output_.text() += pending.row;
        }
        output_.written();
    }
    pending_.clear();
}

void ConvertRun::reportStray() {
    for (const std::string& message : judge_.takeStrayLines()) {
        writeText(errorFd_, PROGRAM + sourceText() + ": converter: " + message + "\n");
    }
}
