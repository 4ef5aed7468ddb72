#include "logging/Logger.h"

#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>

namespace {

constexpr int64_t NANOSECONDS_PER_SECOND = 1000000000;
constexpr int64_t NANOSECONDS_PER_MILLISECOND = 1000000;
constexpr int64_t MILLISECONDS_PER_SECOND = 1000;
// Both larger than the longest text their formats produce.
constexpr std::size_t DATE_TIME_CAPACITY = 64;
constexpr std::size_t TIMESTAMP_CAPACITY = 80;

}  // namespace

Logger& Logger::getInstance() {
    static Logger instance;
    return instance;
}

Logger::~Logger() {
    if (logFile_.is_open()) {
        logFile_.close();
    }
}

void Logger::init(const std::string& logFilePath, bool debug) {
    logFilePath_ = logFilePath;
    debugEnabled_.store(debug, std::memory_order_relaxed);

    const std::string::size_type slash = logFilePath.rfind('/');
    if (slash != std::string::npos) {
        const std::string directory = logFilePath.substr(0, slash);
        struct stat info {};
        if (stat(directory.c_str(), &info) != 0) {
            // The path goes to the shell unquoted, exactly as configured.
            const std::string command = "mkdir -p " + directory;
            const int ignored = std::system(command.c_str());  // NOLINT(cert-env33-c)
            (void)ignored;
        }
    }

    logFile_.open(logFilePath, std::ios::out | std::ios::app);
    if (logFile_.is_open()) {
        std::cout << "SUCCESS: Opened existing log file: " << logFilePath << std::endl;
    } else {
        const std::string command = "touch " + logFilePath + " 2>&1";
        const int ignored = std::system(command.c_str());  // NOLINT(cert-env33-c)
        (void)ignored;
        logFile_.clear();
        logFile_.open(logFilePath, std::ios::out | std::ios::app);
        if (logFile_.is_open()) {
            std::cout << "SUCCESS: Created and opened log file: " << logFilePath << std::endl;
        } else {
            const int error = errno;
            std::cerr << "ERROR: Cannot open log file: " << logFilePath << " (errno: " << error
                      << " - " << std::strerror(error) << ")" << std::endl;
        }
    }

    if (logFile_.is_open()) {
        logFile_.flush();
    }
    initialized_ = true;

    const std::string timestamp = getCurrentTimestamp();
    if (logFile_.is_open()) {
        logFile_ << "[" << timestamp << "] [INFO] Logger initialized\n";
        logFile_ << "[" << timestamp << "] [INFO] Log file: " << logFilePath << "\n";
        logFile_ << "[" << timestamp << "] [INFO] Debug mode: " << (debug ? "enabled" : "disabled")
                 << "\n";
        logFile_.flush();
    }
    std::cout << "[" << timestamp << "] [INFO] Logger initialized" << std::endl;
}

void Logger::log(Level level, const std::string& message) {
    // Checked before the lock so that a disabled DEBUG call costs one comparison.
    // Relaxed: the switch guards no other data, and a line that races with a
    // change may fall on either side of it.
    if (level == DEBUG && !debugEnabled_.load(std::memory_order_relaxed)) {
        return;
    }
    std::lock_guard<std::mutex> lock(mutex_);

    if (capture_ != nullptr) {
        capture_(captureContext_, level, message);
        return;
    }
    if (!initialized_) {
        std::cerr << "[" << levelToString(level) << "] " << message << std::endl;
        return;
    }

    std::string line = "[";
    line += getCurrentTimestamp();
    line += "] [";
    line += levelToString(level);
    line += "] ";
    line += message;

    if (logFile_.is_open()) {
        logFile_ << line << '\n';
        logFile_.flush();
        if (level == ERROR) {
            std::cerr << line << std::endl;
        }
    } else {
        std::cerr << line << " [LOG_FILE_CLOSED]" << std::endl;
    }
}

void Logger::setDebugMode(bool enabled) {
    std::lock_guard<std::mutex> lock(mutex_);
    debugEnabled_.store(enabled, std::memory_order_relaxed);
    if (initialized_) {
        const std::string line = "[" + getCurrentTimestamp() + "] [INFO] " +
                                 "Debug mode changed to: " + (enabled ? "enabled" : "disabled");
        if (logFile_.is_open()) {
            logFile_ << line << '\n';
            logFile_.flush();
        }
        std::cout << line << std::endl;
    }
}

void Logger::closeFile() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (logFile_.is_open()) {
        logFile_.flush();
        logFile_.close();
    }
    initialized_ = false;
}

void Logger::setCapture(Capture capture, void* context) {
    std::lock_guard<std::mutex> lock(mutex_);
    capture_ = capture;
    captureContext_ = context;
}

std::string Logger::levelToString(Level level) {
    switch (level) {
        case DEBUG:
            return "DEBUG";
        case INFO:
            return "INFO";
        case WARN:
            return "WARN";
        case ERROR:
            return "ERROR";
    }
    return "UNKNOWN";
}

std::string Logger::getCurrentTimestamp() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return formatTimestamp(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
}

std::string Logger::formatTimestamp(int64_t nanosecondsSinceEpoch) {
    const time_t seconds = static_cast<time_t>(nanosecondsSinceEpoch / NANOSECONDS_PER_SECOND);
    struct tm local {};
    localtime_r(&seconds, &local);
    char dateTime[DATE_TIME_CAPACITY];
    // NOLINTNEXTLINE(cert-err33-c)
    std::strftime(dateTime, sizeof(dateTime), "%Y-%m-%d %H:%M:%S", &local);
    const long milliseconds = static_cast<long>(
        (nanosecondsSinceEpoch / NANOSECONDS_PER_MILLISECOND) % MILLISECONDS_PER_SECOND);
    char result[TIMESTAMP_CAPACITY];
    // NOLINTNEXTLINE(cert-err33-c)
    std::snprintf(result, sizeof(result), "%s.%03ld", dateTime, milliseconds);
    return result;
}
