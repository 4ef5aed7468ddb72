#pragma once
// Which audit times a run takes: --since and --until, and the settle bound
// (records newer than the settle time before the run's start are left for a
// later run; on with --settle, and by default with --reconcile).

#include <cstdint>

#include "companion/ConvertOptions.h"

class TimeWindow {
public:
    enum class Place { INSIDE, TOO_OLD, TOO_NEW };

    // `now`: the run's start, in seconds since the epoch.
    TimeWindow(const ConvertOptions& options, int64_t now);

    // Whether any bound applies; without one every time is INSIDE.
    bool bounded() const { return hasLower_ || hasUpper_ || settling_; }
    Place place(int64_t seconds) const {
        if (hasLower_ && seconds < lower_) {
            return Place::TOO_OLD;
        }
        if ((hasUpper_ && seconds > upper_) || (settling_ && seconds > settleBound_)) {
            return Place::TOO_NEW;
        }
        return Place::INSIDE;
    }

private:
    bool hasLower_;
    int64_t lower_;
    bool hasUpper_;
    int64_t upper_;
    bool settling_;
    int64_t settleBound_;  // records after this are too new
};
