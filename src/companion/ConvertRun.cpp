#include "companion/ConvertRun.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "common/EventLine.h"
#include "common/TextCopy.h"
#include "companion/Descriptor.h"
#include "companion/ExitCode.h"
#include "companion/InputStream.h"

namespace {

constexpr const char* PROGRAM = "qirn-log-convert: ";

}  // namespace

ConvertRun::ConvertRun(const ConvertOptions& options, int outputFd, int errorFd)
    : options_(options),
      output_(outputFd),
      errorFd_(errorFd),
      judge_(options.explain != ConvertOptions::Explain::NONE),
      window_(options, static_cast<int64_t>(std::time(nullptr))),
      renderer_(options.format),
      reconciling_(!options.eventLogs.empty()),
      explaining_(options.explain != ConvertOptions::Explain::NONE),
      stopAtTooNew_(!options.checkpoint.empty()),
      needsStamp_(window_.bounded() || (!explaining_ && renderer_.needsStamp())) {}

int ConvertRun::run() {
    // Everything that can make the run pointless is checked before the first
    // line is written: the checkpoint, its inputs and the event logs.
    Checkpoint checkpoint(options_.checkpoint);
    Checkpoint* usedCheckpoint = nullptr;
    if (!options_.checkpoint.empty()) {
        if (!report(checkpoint.load()) || !report(checkpoint.checkWritable()) ||
            !reportAll(Checkpoint::checkInputs(options_.inputs))) {
            return ExitCode::ERROR;
        }
        usedCheckpoint = &checkpoint;
    }
    // All event logs before any event is judged: one that cannot be read to
    // its end would make its events look missing.
    if (reconciling_ && !reportAll(reconciler_.readEventLogs(options_.eventLogs))) {
        note("--reconcile: an event log could not be read to its end; nothing written");
        return ExitCode::ERROR;
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
    } else if (usedCheckpoint != nullptr) {
        // Saved only once the output is out, so that nothing is skipped next time.
        report(checkpoint.save());
    }
    if (reconciling_ && reconciler_.matchedNoneOfTheSameTime()) {
        unmatched_ = true;
        note(reconciler_.unmatchedNote());
    }
    if (!options_.quiet) {
        Descriptor::writeAll(errorFd_, summary_.render());
    }
    ExitCode::RunEnd end;
    end.ioError = ioError_;
    end.unmatched = unmatched_;
    end.strict = options_.strict;
    end.plain = !explaining_ && !reconciling_ && options_.checkpoint.empty();
    return ExitCode::of(end, summary_);
}

void ConvertRun::reportError(const std::string& message) {
    ioError_ = true;
    note(message);
}

void ConvertRun::note(const std::string& message) {
    Descriptor::writeAll(errorFd_, PROGRAM + message + "\n");
}

bool ConvertRun::report(const Status& status) {
    if (!status.ok()) {
        reportError(status.message());
    }
    return status.ok();
}

bool ConvertRun::reportAll(const std::vector<Status>& failures) {
    for (const Status& failure : failures) {
        reportError(failure.message());
    }
    return failures.empty();
}

void ConvertRun::convertInput(const std::string& name, Checkpoint* checkpoint) {
    InputStream input(name);
    if (!input.open()) {
        reportError(input.status().message());
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
    Checkpoint::Entry entry;
    if (checkpoint != nullptr) {
        std::string shrunk;
        entry = checkpoint->resumeOf(name, identity.device, identity.inode, identity.size,
                                     InputStream::isCompressedName(name), shrunk);
        if (!shrunk.empty()) {
            note(shrunk);
        }
        if (!input.skipTo(entry.offset)) {
            reportError(input.status().message());
            return;
        }
    }
    // With a checkpoint an unfinished last line waits for the next run.
    LineSource source(input, entry.offset, entry.nextLine, checkpoint == nullptr);
    sourceName_ = input.isStandardInput() ? InputStream::STANDARD_INPUT : name;
    const bool complete =
        source.run([this](const LineSource::Line& line) { return handleLine(line); });
    if (!complete) {
        // What was read cleanly stays converted and recorded; the rest is not.
        reportError(input.status().message());
    }
    if (checkpoint != nullptr) {
        entry.offset = source.resumeOffset();
        entry.nextLine = source.resumeNumber();
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
    TextCopy::replace(lineText_, line.text, line.length);
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
    return writeVerdict(verdict_);
}

bool ConvertRun::handleJudged() {
    if (verdict_.reason == LineJudge::Reason::EVENT && needsStamp_) {
        stamp_ = LogConverter::findAuditStamp(lineText_);
        const TimeWindow::Place place = window_.place(static_cast<int64_t>(stamp_.seconds));
        // A checkpointed file stops before a record too new, so that the next
        // run sees it again.
        if (place == TimeWindow::Place::TOO_NEW && stopAtTooNew_) {
            judge_.takeStrayLines();
            return false;
        }
        if (place != TimeWindow::Place::INSIDE) {
            verdict_.reason = LineJudge::Reason::OUT_OF_RANGE;
            verdict_.detail = "audit time " + std::to_string(stamp_.seconds);
        }
    }
    if (verdict_.reason == LineJudge::Reason::EVENT) {
        judge_.emit(verdict_);
    }
    summary_.lineRead();
    const bool writing = writeVerdict(verdict_);
    if (judge_.hasStrayLines()) {
        reportStray();
    }
    return writing;
}

std::string ConvertRun::sourceText() const {
    return sourceName_ + ":" + std::to_string(lineNumber_);
}

bool ConvertRun::writeVerdict(const LineJudge::Verdict& verdict) {
    LineJudge::Reason reason = verdict.reason;
    if (reason == LineJudge::Reason::EVENT && reconciling_) {
        const std::string_view time =
            std::string_view(verdict.event).substr(0, EventLine::TIME_LENGTH);
        if (reconciler_.present(verdict.record.containerId, verdict.record.path, time,
                                static_cast<int64_t>(stamp_.seconds))) {
            reason = LineJudge::Reason::PRESENT;
        }
    }
    summary_.count(reason);
    const bool isEvent = reason == LineJudge::Reason::EVENT;
    std::string& out = output_.text();
    if (explaining_) {
        if (isEvent && options_.explain != ConvertOptions::Explain::ALL) {
            return true;
        }
        const bool showsEvent = isEvent || reason == LineJudge::Reason::PRESENT;
        renderer_.appendRow(out, sourceText(), reason, showsEvent ? verdict.event : verdict.detail);
    } else if (isEvent) {
        renderer_.appendEvent(out, verdict, stamp_);
    } else {
        return true;
    }
    output_.written();
    return !output_.failed();
}

void ConvertRun::reportStray() {
    for (const std::string& message : judge_.takeStrayLines()) {
        note(sourceText() + ": converter: " + message);
    }
}
