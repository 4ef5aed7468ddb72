#pragma once
// Reconcile's bookkeeping: the event logs read in full, each event of the run
// looked up in them, and the span of audit times looked up, which tells a
// run that matched nothing because of another zone or host from one that
// simply found every event missing.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "common/Status.h"
#include "companion/EventLogIndex.h"

class Reconciler {
public:
    // Reads every event log to its end; one failure each that could not be.
    std::vector<Status> readEventLogs(const std::vector<std::string>& names);
    // Whether an event of audit time `seconds` is in the event logs already.
    bool present(std::string_view containerId, std::string_view path, std::string_view time,
                 int64_t seconds);
    // Events looked up, none matched, yet the event logs hold events of the
    // same time: they were written under another zone or on another host.
    bool matchedNoneOfTheSameTime();
    // What to tell the user then: every event here would be backfilled a
    // second time.
    std::string unmatchedNote() const;
    uint64_t candidates() const { return candidates_; }

private:
    EventLogIndex eventLogs_;
    uint64_t candidates_ = 0;  // events looked up in the event logs
    uint64_t matched_ = 0;
    int64_t firstCandidate_ = 0;
    int64_t lastCandidate_ = 0;
};
