#pragma once
// One run of qirn-log-convert: reads the event logs to reconcile against in
// full, then the inputs in order, judges every line with the service's
// converter, and writes events, explanations or only the events missing from
// the event logs, then the summary. The parts that each do one job: the
// judge (LineJudge), the time window (TimeWindow), reconcile's bookkeeping
// (Reconciler), the rendering (EventRenderer) and the counts (Summary).

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "companion/Checkpoint.h"
#include "companion/ConvertOptions.h"
#include "companion/EventRenderer.h"
#include "companion/LineJudge.h"
#include "companion/LineSource.h"
#include "companion/OutputBuffer.h"
#include "companion/Reconciler.h"
#include "companion/Summary.h"
#include "companion/TimeWindow.h"

class ConvertRun {
public:
    // Writes to `outputFd` and reports to `errorFd`, neither of which it closes.
    ConvertRun(const ConvertOptions& options, int outputFd, int errorFd);

    // The exit status, one of ExitCode's.
    int run();
    const Summary& summary() const { return summary_; }

private:
    void convertInput(const std::string& name, Checkpoint* checkpoint);
    // Inlined into the line loop: most lines are settled right there.
    [[gnu::always_inline]] inline bool handleLine(const LineSource::Line& line);
    // The rest of handleLine, out of line so that a line of another type,
    // most lines, runs in a small frame. `typeChecked`: the line passed the
    // type filter already.
    [[gnu::noinline]] bool handleRecord(const LineSource::Line& line, bool typeChecked);
    bool handleJudged();
    [[gnu::noinline]] bool handleTooLong();
    // FILE:LINE of the line being handled.
    std::string sourceText() const;
    // Writes what the verdict calls for; false once the output has failed.
    bool writeVerdict(const LineJudge::Verdict& verdict);
    void reportError(const std::string& message);
    // Reports a failure; whether there was none.
    bool report(const Status& status);
    bool reportAll(const std::vector<Status>& failures);
    void note(const std::string& message);
    void reportStray();

    const ConvertOptions& options_;
    OutputBuffer output_;
    int errorFd_;
    LineJudge judge_;
    Summary summary_;
    TimeWindow window_;
    EventRenderer renderer_;
    Reconciler reconciler_;
    bool reconciling_;
    bool explaining_;    // rows instead of events
    bool stopAtTooNew_;  // with a checkpoint: the file stops before such a record
    bool needsStamp_;    // an event's audit stamp is read, once, for the window or the JSON
    bool ioError_ = false;
    bool unmatched_ = false;
    // Device and inode of each regular file converted, so that a file named
    // twice is converted once.
    std::vector<std::pair<uint64_t, uint64_t>> converted_;
    std::string sourceName_;
    uint64_t lineNumber_ = 0;
    std::string lineText_;
    LineJudge::Verdict verdict_;
    LogConverter::AuditStamp stamp_;  // of the event being handled, when needsStamp_
};
