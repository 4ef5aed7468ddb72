#include "app/SignalHandler.h"

#include <cerrno>
#include <chrono>
#include <iostream>
#include <string>

#include "app/Globals.h"
#include "common/Sleep.h"
#include "logging/Trace.h"

namespace {

constexpr std::chrono::milliseconds SIGNAL_GRACE{100};

}  // namespace

void signalHandler(int signum) {
    // The interrupted code may be about to read errno (the sleeps test it for
    // EINTR to resume), so the handler leaves it as it found it.
    const int savedErrno = errno;
    std::cout << "\nReceived signal " << signum << ", shutting down..." << std::endl;
    try {
        // Logging here is not async-signal-safe; the service accepts that to
        // leave a record of why it stopped.
        trace(Logger::INFO, "Received signal " + std::to_string(signum) + ", shutting down...");
        trace(Logger::INFO, "Total processed lines: " + std::to_string(processedCount.load()));
    } catch (...) {
    }
    running.store(false);
    sleepResuming(SIGNAL_GRACE);
    errno = savedErrno;
}
