#include "writer/LogWriter.h"

#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "common/Sleep.h"
#include "logging/Trace.h"

namespace {

// One retry per line, after this pause: while the output cannot be opened the
// service slows down to one attempt per line every 100 ms.
constexpr std::chrono::milliseconds REOPEN_RETRY_DELAY{100};

}  // namespace

LogWriter::LogWriter(const std::string& filename) : filename_(filename) {
    // A failed open is not fatal: the first writeLine tries again.
    openFile(true);
}

LogWriter::~LogWriter() { releaseFile(); }

bool LogWriter::openFile(bool append) {
    std::lock_guard<std::mutex> lock(mutex_);
    releaseFile();

    const char* mode = append ? "a" : "w";
    file_ = std::fopen(filename_.c_str(), mode);
    if (file_ == nullptr) {
        lastError_ = std::strerror(errno);
        trace(Logger::ERROR, "Failed to open output file: " + filename_ + " - " + lastError_);
        return false;
    }

    // Line buffering is a second guarantee beside the flush after every line.
    std::setvbuf(file_, nullptr, _IOLBF, 0);  // NOLINT(cert-err33-c)
    struct stat info {};
    if (stat(filename_.c_str(), &info) == 0) {
        inode_ = static_cast<uint64_t>(info.st_ino);
        fileSize_ = static_cast<int64_t>(info.st_size);
    }
    trace(Logger::INFO, "Opened output file: " + filename_ + " (mode: " + mode + ")");
    return true;
}

bool LogWriter::checkAndReopen() {
    if (file_ == nullptr) {
        return false;
    }
    struct stat info {};
    if (stat(filename_.c_str(), &info) != 0) {
        return false;
    }
    if (static_cast<uint64_t>(info.st_ino) != inode_) {
        // A new file at the path starts afresh: whatever it already holds is
        // discarded.
        trace(Logger::INFO, "Output file rotated, reopening...");
        return openFile(false);
    }
    // Larger than expected means another writer appended; that is accepted.
    if (static_cast<int64_t>(info.st_size) >= fileSize_) {
        return true;
    }
    trace(Logger::INFO, "Output file truncated, reopening...");
    return openFile(true);
}

bool LogWriter::writeLine(const std::string& line) {
    if (line.empty()) {
        return true;
    }
    if (!checkAndReopen()) {
        sleepResuming(REOPEN_RETRY_DELAY);
        if (!openFile(true)) {
            return false;
        }
    }

    std::lock_guard<std::mutex> lock(mutex_);
    if (file_ == nullptr) {
        return false;
    }
    if (!putLine(line)) {
        lastError_ = std::strerror(errno);
        trace(Logger::ERROR, "Failed to write to file: " + lastError_);
        return false;
    }
    // A flush failure is not reported: the write itself already succeeded.
    fflush_unlocked(file_);  // NOLINT(cert-err33-c)
    fileSize_ += static_cast<int64_t>(line.size()) + 1;
    return true;
}

bool LogWriter::putLine(const std::string& line) {
    // The bytes of a "%s\n" format: the text up to its first zero byte, then a
    // newline. The unlocked calls skip the stream's own lock, which mutex_
    // already provides. fputs, not fwrite: fwrite counts a line whose bytes
    // went into the buffer as written even when flushing them failed, so every
    // failure after the first would pass unseen; fputs reports it, as the
    // formatted write does.
    const std::size_t length = std::strlen(line.c_str());
    if (length + 1 < LINE_BUFFER_SIZE) {
        // Handed over with its newline in one piece, the line-buffered stream
        // finds the newline at once instead of searching the text for one;
        // the line still leaves in the one write at its newline.
        std::memcpy(lineBuffer_, line.data(), length);
        lineBuffer_[length] = '\n';
        lineBuffer_[length + 1] = '\0';
        return fputs_unlocked(lineBuffer_, file_) != EOF;
    }
    if (fputs_unlocked(line.c_str(), file_) == EOF) {
        return false;
    }
    // The formatted write counts what it wrote in an int: past INT_MAX it
    // fails with EOVERFLOW after the bytes went out.
    if (length > static_cast<std::size_t>(INT_MAX)) {
        errno = EOVERFLOW;
        return false;
    }
    if (putc_unlocked('\n', file_) == EOF) {
        return false;
    }
    if (length == static_cast<std::size_t>(INT_MAX)) {
        errno = EOVERFLOW;
        return false;
    }
    return true;
}

void LogWriter::flush() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (file_ != nullptr) {
        std::fflush(file_);  // NOLINT(cert-err33-c): flush failures are not reported
    }
}

void LogWriter::closeFile() { releaseFile(); }

void LogWriter::releaseFile() {
    if (file_ != nullptr) {
        // Only a failed write is reported; flush and close failures are not.
        std::fflush(file_);  // NOLINT(cert-err33-c)
        std::fclose(file_);  // NOLINT(cert-err33-c)
        file_ = nullptr;
    }
}
