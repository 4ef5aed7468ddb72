#include "companion/TimeWindow.h"

TimeWindow::TimeWindow(const ConvertOptions& options, int64_t now)
    : hasLower_(options.hasSince),
      lower_(options.since),
      hasUpper_(options.hasUntil),
      upper_(options.until),
      settling_(options.hasSettle || !options.eventLogs.empty()),
      settleBound_(settling_ ? now - options.settle : 0) {}
