#pragma once
// The one way the subsystems reach the diagnostic log. The gated form takes the
// message as a function and calls it only when its gate is open, so a closed
// gate costs one test: nothing is composed, nothing allocated.

#include <string>
#include <utility>

#include "logging/Logger.h"

// A message already composed; the logger applies its own DEBUG filter.
inline void trace(Logger::Level level, const std::string& message) {
    Logger::getInstance().log(level, message);
}

// `compose` returns the message and runs only when `gate` is open.
template <typename Compose>
inline void trace(bool gate, Logger::Level level, Compose&& compose) {
    if (gate) {
        Logger::getInstance().log(level, std::forward<Compose>(compose)());
    }
}
