#include "companion/Reconciler.h"

#include <utility>

std::vector<Status> Reconciler::readEventLogs(const std::vector<std::string>& names) {
    std::vector<Status> failures;
    for (const std::string& name : names) {
        Status status = eventLogs_.read(name);
        if (!status.ok()) {
            failures.push_back(std::move(status));
        }
    }
    return failures;
}

bool Reconciler::present(std::string_view containerId, std::string_view path, std::string_view time,
                         int64_t seconds) {
    if (candidates_ == 0 || seconds < firstCandidate_) {
        firstCandidate_ = seconds;
    }
    if (candidates_ == 0 || seconds > lastCandidate_) {
        lastCandidate_ = seconds;
    }
    ++candidates_;
    if (!eventLogs_.contains(containerId, path, time)) {
        return false;
    }
    ++matched_;
    return true;
}

bool Reconciler::matchedNoneOfTheSameTime() {
    return candidates_ > 0 && matched_ == 0 &&
           eventLogs_.holdsTimeBetween(firstCandidate_, lastCandidate_);
}

std::string Reconciler::unmatchedNote() const {
    return "--reconcile: none of the " + std::to_string(candidates_) +
           " events matched an event log line, although the event logs hold events of the "
           "same time; were they written under another TZ or on another host? Reconcile "
           "under the writer's TZ (see qirn-log-convert(1))";
}
