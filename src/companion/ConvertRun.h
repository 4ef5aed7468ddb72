#pragma once
// One run of qirn-log-convert: reads the event logs to reconcile against in
// full, then the inputs in order, judges every line with the service's
// converter, and writes events, explanations or only the events missing from
// the event logs, then the summary.

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "companion/Checkpoint.h"
#include "companion/ConvertOptions.h"
#include "companion/EventLogIndex.h"
#include "companion/LineJudge.h"
#include "companion/LineSource.h"
#include "companion/OutputBuffer.h"
#include "companion/Summary.h"

class ConvertRun {
public:
    static constexpr int EXIT_DONE = 0;
    static constexpr int EXIT_NO_EVENT = 1;
    static constexpr int EXIT_ERROR = 2;
    static constexpr int EXIT_STRICT = 3;
    // Reconcile matched nothing although the event logs cover the same time.
    static constexpr int EXIT_UNMATCHED = 4;

    ConvertRun(const ConvertOptions& options, int outputFd, int errorFd);

    // The exit status.
    int run();
    const Summary& summary() const { return summary_; }

private:
    // Checks made before anything is read or written.
    bool checkCheckpointInputs();
    bool readEventLogs();
    void convertInput(const std::string& name, Checkpoint* checkpoint);
    // Inlined into the line loop: most lines are settled right there.
    [[gnu::always_inline]] inline bool handleLine(const LineSource::Line& line);
    // The rest of handleLine, out of line so that a line of another type,
    // most lines, runs in a small frame. `typeChecked`: the line passed the
    // type filter already.
    [[gnu::noinline]] bool handleRecord(const LineSource::Line& line, bool typeChecked);
    bool handleJudged();
    [[gnu::noinline]] bool handleTooLong();
    // Leaves a valid record out for its audit time; true when it is to be
    // left out, with `tooNew` telling the settle and --until bound apart.
    bool outOfRange(const std::string& line, bool& tooNew, std::string& detail);
    // FILE:LINE of the line being handled.
    std::string sourceText() const;
    // Writes what the verdict calls for; false once the output has failed.
    bool deliver(const LineJudge::Verdict& verdict, const std::string& line);
    // An event found in the event logs becomes PRESENT.
    LineJudge::Reason reconciled(const LineJudge::Verdict& verdict);
    void appendRow(std::string& out, LineJudge::Reason reason, const std::string& detail);
    void appendEvent(std::string& out, const LineJudge::Verdict& verdict, const std::string& line);
    void checkUnmatched();
    void reportError(const std::string& message);
    void note(const std::string& message);
    void reportStray();
    int exitStatus() const;

    const ConvertOptions& options_;
    OutputBuffer output_;
    int errorFd_;
    LineJudge judge_;
    Summary summary_;
    bool reconciling_;
    bool useRange_;  // some bound on the audit time applies
    bool hasLowerBound_;
    int64_t lowerBound_;
    bool hasUpperBound_;
    int64_t upperBound_;
    int64_t settleBound_;  // records after this are too new (when settling)
    bool settling_;
    bool stopAtTooNew_;  // with a checkpoint: the file stops before such a record
    bool ioError_;
    bool unmatched_;
    bool explaining_;  // rows instead of events
    EventLogIndex eventLogs_;
    uint64_t candidates_ = 0;  // events looked up in the event logs
    uint64_t matched_ = 0;
    int64_t auditSeconds_ = 0;  // of the record outOfRange last looked at
    int64_t firstCandidate_ = 0;
    int64_t lastCandidate_ = 0;
    // Device and inode of each regular file converted, so that a file named
    // twice is converted once.
    std::vector<std::pair<uint64_t, uint64_t>> converted_;
    std::string sourceName_;
    uint64_t lineNumber_ = 0;
    std::string lineText_;
    LineJudge::Verdict verdict_;
};
