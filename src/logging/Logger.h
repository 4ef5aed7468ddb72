#pragma once
// Process-wide diagnostic logger: timestamped, levelled lines to the service's
// own log file, errors echoed to standard error. Every subsystem reports here.

#include <atomic>
#include <cstdint>
#include <fstream>
#include <mutex>
#include <string>

class Logger {
public:
    // Fixed underlying type so that values outside 0-3 are well defined and
    // print as "UNKNOWN".
    enum Level : int { DEBUG = 0, INFO = 1, WARN = 2, ERROR = 3 };

    // Receives every line that passes the DEBUG filter, in place of the file and the
    // console, so that a program can account for each line itself.
    using Capture = void (*)(void* context, Level level, const std::string& message);

    static Logger& getInstance();

    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    void init(const std::string& logFilePath, bool debug);
    void log(Level level, const std::string& message);
    void setDebugMode(bool enabled);
    void closeFile();
    // A null capture restores the normal routing. Works whether or not init was
    // called. The capture runs under the logger's lock and must not log itself.
    void setCapture(Capture capture, void* context);

    static std::string levelToString(Level level);
    static std::string getCurrentTimestamp();
    // Formats a wall-clock instant given in nanoseconds since the epoch the
    // way getCurrentTimestamp does; separate so that a fixed instant can be
    // checked.
    static std::string formatTimestamp(int64_t nanosecondsSinceEpoch);

private:
    Logger() = default;
    ~Logger();

    std::string logFilePath_;
    std::ofstream logFile_;
    std::mutex mutex_;
    // Atomic: log reads it without the lock, so that a dropped DEBUG line
    // costs one load.
    std::atomic<bool> debugEnabled_{false};
    bool initialized_ = false;
    Capture capture_ = nullptr;
    void* captureContext_ = nullptr;
};
