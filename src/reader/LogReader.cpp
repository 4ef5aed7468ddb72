#include "reader/LogReader.h"

#include <fcntl.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/Sleep.h"
#include "common/TextCopy.h"
#include "logging/Trace.h"
#include "reader/LineCutter.h"

namespace {

constexpr int FILE_WAIT_ATTEMPTS = 30;
constexpr int FILE_WAIT_PROGRESS_EVERY = 10;
constexpr std::chrono::seconds FILE_WAIT_DELAY{1};
constexpr std::chrono::seconds RETRY_DELAY{1};
constexpr std::chrono::milliseconds POLL_INTERVAL{100};
// A read at least this large leaves memory worth giving back once the load ends.
constexpr int64_t LARGE_READ_BYTES = 262144;

}  // namespace

// Members in this order, and the explicit reset below, so that the thread lets
// go of its reader before its callback copy: when that was the last reference,
// the reader is destroyed while everything the callback refers to still exists.
struct LogReader::MonitorTask {
    LogReader* reader;
    LineCallback callback;
    std::shared_ptr<LogReader> self;

    MonitorTask(LogReader* owner, LineCallback lineCallback, std::shared_ptr<LogReader> strong)
        : reader(owner), callback(std::move(lineCallback)), self(std::move(strong)) {}
    MonitorTask(MonitorTask&&) = default;
    MonitorTask& operator=(MonitorTask&&) = delete;
    ~MonitorTask() { self.reset(); }

    void operator()() { reader->runMonitor(callback); }
};

std::shared_ptr<LogReader> LogReader::create(const std::string& filename) {
    // Plain-pointer constructor: the constructor is private, and if the control
    // block cannot be allocated the shared pointer deletes the object itself.
    return std::shared_ptr<LogReader>(new LogReader(filename));
}

LogReader::LogReader(const std::string& filename)
    : filename_(filename),
      fd_(-1),
      position_(0),
      lastSize_(0),
      inode_(0),
      running_(false),
      destroyed_(false) {
    trace(Logger::DEBUG, "LogReader created for: " + filename_);
}

LogReader::~LogReader() {
    trace(Logger::DEBUG, "LogReader destroying for: " + filename_);
    destroyed_ = true;
    stopMonitoring();
    closeFile();
    trace(Logger::DEBUG, "LogReader destroyed for: " + filename_);
}

void LogReader::closeFile() {
    if (fd_ >= 0) {
        close(fd_);
        fd_ = -1;
    }
}

bool LogReader::openFile() {
    if (destroyed_) {
        return false;
    }
    closeFile();

    fd_ = open(filename_.c_str(), O_RDONLY | O_NONBLOCK);
    if (fd_ < 0) {
        const int error = errno;
        fd_ = -1;
        // A missing file is the normal state while waiting for it to appear.
        if (error != ENOENT) {
            trace(Logger::ERROR,
                  "Failed to open file: " + filename_ + " - " + std::strerror(error));
        }
        return false;
    }

    struct stat info {};
    if (fstat(fd_, &info) != 0) {
        const int error = errno;
        trace(Logger::ERROR, std::string("Failed to stat file: ") + std::strerror(error));
        closeFile();
        return false;
    }

    const uint64_t oldInode = inode_;
    const int64_t size = static_cast<int64_t>(info.st_size);
    const uint64_t newInode = static_cast<uint64_t>(info.st_ino);
    lastSize_ = size;
    inode_ = newInode;

    const bool replaced = oldInode != 0 && newInode != oldInode;
    if (replaced && size < ROTATION_SIZE_THRESHOLD) {
        // A small replacement is a log freshly started by rotation: read all of it.
        position_ = 0;
        trace(Logger::INFO, "logrotate detected (inode changed, size=" + std::to_string(size) +
                                " < ), reading from beginning");
    } else if (replaced) {
        // A large replacement is taken to be an editor's save-by-rename: skip it.
        position_ = size;
        trace(Logger::INFO, "File inode changed (likely vim save), starting from end (position: " +
                                std::to_string(position_) + ")");
    } else if (size < position_) {
        // Reset before composing, so the message reports "previous position 0".
        position_ = 0;
        trace(Logger::INFO, "File truncated (size " + std::to_string(size) +
                                " < previous position " + std::to_string(position_) +
                                "), reading from beginning");
    } else if (position_ == 0 && size > 0) {
        // Existing content is never replayed when following starts.
        position_ = size;
        trace(Logger::INFO, "First open of existing file, starting from end (position: " +
                                std::to_string(position_) + ")");
    } else {
        trace(Logger::INFO, "Continuing from position: " + std::to_string(position_));
    }

    trace(Logger::INFO, "Opened file " + filename_ + ", inode: " + std::to_string(inode_) +
                            ", size: " + std::to_string(lastSize_) +
                            ", position: " + std::to_string(position_));
    return true;
}

bool LogReader::readNewLines(LineCallback callback, bool advancePosition) {
    if (destroyed_ || fd_ < 0) {
        return false;
    }
    struct stat info {};
    if (fstat(fd_, &info) != 0) {
        return false;
    }
    const int64_t size = static_cast<int64_t>(info.st_size);
    lastSize_ = size;
    if (size <= position_) {
        return true;
    }

    int64_t bytesToRead = size - position_;
    if (bytesToRead > MAX_READ_SIZE) {
        trace(Logger::WARN, "Read size too large: " + std::to_string(bytesToRead) +
                                " bytes, limiting to " + std::to_string(MAX_READ_SIZE));
        bytesToRead = MAX_READ_SIZE;
    }

    // One zero byte past the data so that the text always ends in a terminator. A
    // vector because it zero-fills and is released on every path, exceptions included.
    std::vector<char> buffer;
    try {
        buffer.resize(static_cast<size_t>(bytesToRead) + 1);
    } catch (const std::bad_alloc&) {
        trace(Logger::ERROR,
              "Failed to allocate buffer of size " + std::to_string(bytesToRead + 1));
        return false;
    } catch (const std::length_error& error) {
        trace(Logger::ERROR, std::string("Length error allocating buffer: ") + error.what());
        return false;
    }

    if (lseek(fd_, static_cast<off_t>(position_), SEEK_SET) == static_cast<off_t>(-1)) {
        trace(Logger::ERROR, "Failed to seek to position " + std::to_string(position_));
        return false;
    }
    const ssize_t bytesRead = read(fd_, buffer.data(), static_cast<size_t>(bytesToRead));
    if (bytesRead == 0) {
        return false;
    }
    if (bytesRead < 0) {
        const int error = errno;
        // The descriptor is non-blocking, so "no data yet" is an expected, silent outcome.
        if (error != EAGAIN) {
            trace(Logger::ERROR, std::string("Failed to read: ") + std::strerror(error));
        }
        return false;
    }
    if (advancePosition) {
        // Whole reads only: a trailing partial line is not re-read later.
        position_ += bytesRead;
    }

    buffer[static_cast<size_t>(bytesRead)] = '\0';
    const char* const end = buffer.data() + bytesRead;
    // Reused for every line so that the walk allocates only when a line is
    // longer than any before it.
    std::string line;
    const LineCutter::Walk walk = LineCutter::cut(
        buffer.data(), static_cast<size_t>(bytesRead), MAX_LINES_PER_READ,
        [&](const char* text, size_t length) {
            if (destroyed_) {
                return false;
            }
            try {
                TextCopy::replace(line, text, length);
                callback(line);
                return true;
            } catch (const std::exception& error) {
                trace(Logger::ERROR, std::string("Exception processing line: ") + error.what());
                return false;
            }
        });
    int linesDelivered = static_cast<int>(walk.counted);

    // The unfinished tail is delivered now; its rest arrives later as a line of its own.
    if (!destroyed_ && linesDelivered < MAX_LINES_PER_READ && walk.rest < end) {
        try {
            line.assign(walk.rest,
                        LineCutter::textLength(walk.rest, static_cast<size_t>(end - walk.rest)));
            callback(line);
            ++linesDelivered;
        } catch (const std::exception& error) {
            trace(Logger::ERROR, std::string("Exception processing last line: ") + error.what());
        }
    }

    if (linesDelivered > 0) {
        trace(Logger::DEBUG,
              "Read " + std::to_string(linesDelivered) + " new lines from " + filename_);
    }
    return true;
}

bool LogReader::checkRotation() const {
    // A closed descriptor answers "changed" so that a failed reopen is retried every cycle.
    if (destroyed_ || fd_ < 0) {
        trace(Logger::DEBUG, "checkRotation: destroyed or invalid fd");
        return true;
    }
    // The path, not the descriptor: after a move the descriptor still names the old file.
    struct stat info {};
    if (stat(filename_.c_str(), &info) != 0) {
        const int error = errno;
        trace(Logger::DEBUG, std::string("checkRotation: stat failed - ") + std::strerror(error));
        return true;
    }
    const uint64_t currentInode = static_cast<uint64_t>(info.st_ino);
    const int64_t currentSize = static_cast<int64_t>(info.st_size);
    trace(Logger::DEBUG, "checkRotation: current inode=" + std::to_string(inode_) +
                             ", new inode=" + std::to_string(currentInode) +
                             ", current pos=" + std::to_string(position_) +
                             ", new size=" + std::to_string(currentSize));

    if (currentInode != inode_) {
        trace(Logger::INFO, "Inode changed (" + std::to_string(inode_) + " -> " +
                                std::to_string(currentInode) + ")");
        return true;
    }
    // Any shrink since the previous poll counts, even one that stays past the
    // position; the message names the position all the same, on purpose.
    if (currentSize < lastSize_) {
        trace(Logger::INFO, "File truncated (size " + std::to_string(currentSize) + " < position " +
                                std::to_string(position_) + ")");
        return true;
    }
    trace(Logger::DEBUG, "checkRotation: no change detected");
    return false;
}

bool LogReader::startMonitoring(LineCallback callback) {
    if (destroyed_) {
        trace(Logger::ERROR, "Cannot start monitoring on destroyed object");
        return false;
    }
    std::shared_ptr<LogReader> self = shared_from_this();

    if (!openFile()) {
        trace(Logger::INFO, "Waiting for file to appear: " + filename_);
        for (int attempt = 1; attempt <= FILE_WAIT_ATTEMPTS; ++attempt) {
            if (destroyed_) {
                return false;
            }
            sleepResuming(FILE_WAIT_DELAY);
            if (openFile()) {
                break;
            }
            // Progress after attempts 1, 11 and 21: counted from the first attempt on purpose.
            if ((attempt - 1) % FILE_WAIT_PROGRESS_EVERY == 0) {
                trace(Logger::INFO,
                      "Still waiting for file... (" + std::to_string(attempt) + "/30 seconds)");
            }
        }
        if (fd_ < 0) {
            trace(Logger::ERROR, "File not found after waiting: " + filename_);
            return false;
        }
    }

    // Set before the thread exists so that its first cycle test sees it.
    running_ = true;
    std::thread(MonitorTask(this, std::move(callback), self)).detach();
    return true;
}

void LogReader::stopMonitoring() {
    trace(Logger::DEBUG, "Stopping monitoring for " + filename_);
    running_ = false;
}

void LogReader::runMonitor(const LineCallback& callback) {
    trace(Logger::INFO,
          "Monitor thread started for " + (filename_.empty() ? "unknown file" : filename_));
    try {
        // Only a reopen that continued inside the file leaves unread bytes behind it.
        if (!destroyed_ && position_ > 0 && position_ < lastSize_) {
            trace(Logger::INFO, "Reading existing data from position " + std::to_string(position_));
            readNewLines(callback, true);
        }
        while (running_ && !destroyed_) {
            try {
                if (!pollOnce(callback)) {
                    break;
                }
            } catch (const std::exception& error) {
                trace(Logger::ERROR, std::string("Exception in monitor loop: ") + error.what());
                sleepResuming(RETRY_DELAY);
            }
        }
    } catch (const std::exception& error) {
        trace(Logger::ERROR, std::string("Fatal exception in monitor thread: ") + error.what());
    }
    trace(Logger::INFO, "Monitor thread stopped for " + filename_);
}

bool LogReader::pollOnce(const LineCallback& callback) {
    if (checkRotation()) {
        if (destroyed_) {
            return false;
        }
        trace(Logger::INFO, "File change detected, reopening...");
        if (!openFile()) {
            trace(Logger::WARN, "Failed to reopen file, retrying in 1s...");
            sleepResuming(RETRY_DELAY);
            return true;
        }
        // Delivers the new file's start without moving on; the normal read below
        // delivers it again, and the converter's duplicate check absorbs the repeat.
        if (position_ == 0 && lastSize_ > 0) {
            readNewLines(callback, false);
        }
    }
    const int64_t before = position_;
    if (!readNewLines(callback, true)) {
        trace(Logger::WARN, "Read failed, will retry...");
        sleepResuming(RETRY_DELAY);
    }
    returnMemoryAfterLoad(position_ - before);
    sleepResuming(POLL_INTERVAL);
    return true;
}

void LogReader::returnMemoryAfterLoad(int64_t bytesRead) {
    if (bytesRead > 0) {
        largestRecentRead_ = std::max(largestRecentRead_, bytesRead);
        return;
    }
    // The allocator keeps a freed read buffer for the next poll, which spares
    // page faults while the load lasts; the first poll that finds nothing new
    // after a large read hands that memory back, once. The service runs every
    // thread on one heap (its entry point sets that), so the trim reaches it.
    if (largestRecentRead_ >= LARGE_READ_BYTES) {
        malloc_trim(0);
        largestRecentRead_ = 0;
    }
}
