#pragma once
// One run of qirn-log-convert: reads the inputs in order, judges every line
// with the service's converter, and writes events, explanations or only the
// events missing from the given event logs, then the summary.

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "convert/Checkpoint.h"
#include "convert/ConvertOptions.h"
#include "convert/LineJudge.h"
#include "convert/LineSource.h"
#include "convert/OutputBuffer.h"
#include "convert/Summary.h"

class ConvertRun {
public:
    static constexpr int EXIT_DONE = 0;
    static constexpr int EXIT_NO_EVENT = 1;
    static constexpr int EXIT_ERROR = 2;
    static constexpr int EXIT_STRICT = 3;

    ConvertRun(const ConvertOptions& options, int outputFd, int errorFd);

    // The exit status.
    int run();
    const Summary& summary() const { return summary_; }

private:
    // An event held back until the event logs were read, or a row held back
    // with it so that rows stay in input order.
    struct Pending {
        std::string row;     // explanation row or output text, ready to write
        std::string key;     // empty when this is not a candidate event
        std::string event;   // the event line, for the "present" row
        std::string source;  // FILE:LINE
    };

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
    void deliver(const LineJudge::Verdict& verdict, const std::string& line);
    void appendRow(std::string& out, const std::string& source, LineJudge::Reason reason,
                   const std::string& detail);
    void appendEvent(std::string& out, const LineJudge::Verdict& verdict, const std::string& line);
    void reconcile();
    void reportError(const std::string& message);
    void reportStray();
    int exitStatus() const;

    const ConvertOptions& options_;
    OutputBuffer output_;
    int errorFd_;
    LineJudge judge_;
    Summary summary_;
    bool reconciling_;
    bool holdBack_;  // rows wait for the event logs
    bool useRange_;  // some bound on the audit time applies
    bool hasLowerBound_;
    int64_t lowerBound_;
    bool hasUpperBound_;
    int64_t upperBound_;
    int64_t settleBound_;  // records after this are too new (when settling)
    bool settling_;
    bool stopAtTooNew_;  // with a checkpoint: the file stops before such a record
    bool ioError_;
    bool explaining_;  // rows instead of events
    std::vector<Pending> pending_;
    std::unordered_map<std::string, bool> candidates_;  // key -> found in an event log
    std::string sourceName_;
    uint64_t lineNumber_ = 0;
    std::string lineText_;
    LineJudge::Verdict verdict_;
};
