#pragma once
// The exit statuses of qirn-log-convert, in their one home: the run returns
// them and the usage text names them.

#include "companion/Summary.h"

class ExitCode {
public:
    static constexpr int DONE = 0;
    // A plain conversion, without --checkpoint, wrote no event.
    static constexpr int NO_EVENT = 1;
    // A usage or I/O error.
    static constexpr int ERROR = 2;
    // --strict found a line that suggests a changed audit format.
    static constexpr int STRICT = 3;
    // Reconcile matched nothing although the event logs cover the same time.
    static constexpr int UNMATCHED = 4;

    // How a run ended, as far as its exit status goes.
    struct RunEnd {
        bool ioError = false;
        bool unmatched = false;
        bool strict = false;  // --strict given
        // Neither explaining, reconciling nor checkpointed.
        bool plain = false;
    };
    // The status of a run that ended so with these counts: the first of
    // ERROR, UNMATCHED, STRICT, NO_EVENT that applies, else DONE.
    static int of(const RunEnd& end, const Summary& summary);
};
