#include "agent/LogFollower.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "agent/BatchCutter.h"

namespace {

constexpr const char* ROTATED_SUFFIX = ".1";
constexpr const char* EVENTS_STREAM = "events";

int openForReading(const std::string& path) {
    return open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
}

}  // namespace

LogFollower::LogFollower(std::string stream, std::string path, Log log)
    : stream_(std::move(stream)), path_(std::move(path)), log_(std::move(log)) {}

LogFollower::~LogFollower() { closeFile(); }

void LogFollower::closeFile() {
    if (fd_ >= 0) {
        close(fd_);
        fd_ = -1;
    }
    keyed_ = false;
    keyText_.clear();
    draining_ = false;
    atEnd_ = false;
    buffer_.clear();
    bufferOffset_ = 0;
    pending_ = false;
}

void LogFollower::reportOnce(const std::string& message) {
    if (message != lastReport_) {
        log_(message);
        lastReport_ = message;
    }
}

void LogFollower::adopt(int fd, int64_t offset) {
    struct stat info {};
    fstat(fd, &info);
    fd_ = fd;
    device_ = info.st_dev;
    inode_ = info.st_ino;
    fileSize_ = info.st_size;
    bufferOffset_ = offset;
}

bool LogFollower::openLive() {
    const int fd = openForReading(path_);
    if (fd < 0) {
        reportOnce(errno == ENOENT
                       ? logName() + " " + path_ + " does not exist yet: waiting for it"
                       : logName() + " unreadable: " + path_ + ": " + std::strerror(errno));
        return false;
    }
    lastReport_.clear();
    adopt(fd, 0);
    return true;
}

std::string LogFollower::logName() const {
    return stream_ == EVENTS_STREAM ? "event log" : stream_ + " log";
}

void LogFollower::unposition() {
    closeFile();
    positioned_ = false;
}

void LogFollower::resume(const StoreSession::Position& position) {
    closeFile();
    positioned_ = true;
    committedKey_ = position.present ? position.fileKey : "";
    committedOffset_ = position.present ? position.fileOffset : 0;
    if (!position.present) {
        openLive();
        return;
    }
    FileKey key;
    const bool parsed = FileKey::parse(position.fileKey, key);
    for (const std::string& candidate : {path_, path_ + ROTATED_SUFFIX}) {
        const int fd = parsed ? openForReading(candidate) : -1;
        if (fd < 0) {
            continue;
        }
        if (!key.matches(fd)) {
            close(fd);
            continue;
        }
        adopt(fd, position.fileOffset);
        key_ = key;
        keyed_ = true;
        keyText_ = position.fileKey;
        if (fileSize_ < position.fileOffset) {
            startAgain(candidate + " is shorter than the committed offset " +
                       std::to_string(position.fileOffset));
        }
        return;
    }
    log_("rotation outran the agent: " + path_ + " (file " + position.fileKey + ") at " +
         std::to_string(position.fileOffset) + " is gone");
    ++lostFiles_;
    openLive();
}

// A file that shrank below what was read, or whose first bytes changed, was
// truncated (copytruncate) and written again: all of it is new.
void LogFollower::startAgain(const std::string& why) {
    log_(why + ": reading " + logName() + " " + path_ + " again from 0");
    buffer_.clear();
    bufferOffset_ = 0;
    keyed_ = false;
    keyText_.clear();
    pending_ = false;
    atEnd_ = false;
}

std::size_t LogFollower::readMore() {
    const int64_t available = fileSize_ - readOffset();
    std::size_t want = READ_AHEAD > buffer_.size() ? READ_AHEAD - buffer_.size() : 0;
    if (available <= 0 || want == 0) {
        atEnd_ = available <= 0;
        return 0;
    }
    if (static_cast<uint64_t>(available) < want) {
        want = static_cast<std::size_t>(available);
    }
    std::size_t total = 0;
    while (total < want) {
        const std::size_t room = std::min(READ_CHUNK, want - total);
        const std::size_t before = buffer_.size();
        buffer_.resize(before + room);
        const ssize_t got =
            pread(fd_, &buffer_[before], room, bufferOffset_ + static_cast<int64_t>(before));
        if (got < 0) {
            const int error = errno;
            buffer_.resize(before);
            if (error == EINTR) {
                continue;
            }
            reportOnce(logName() + " unreadable: " + path_ + ": " + std::strerror(error));
            break;
        }
        buffer_.resize(before + static_cast<std::size_t>(got));
        total += static_cast<std::size_t>(got);
        if (got == 0) {
            break;
        }
    }
    atEnd_ = static_cast<int64_t>(total) >= available;
    return total;
}

void LogFollower::checkRotation() {
    struct stat live {};
    if (stat(path_.c_str(), &live) != 0) {
        draining_ = true;
        liveSize_ = 0;
        return;
    }
    draining_ = live.st_dev != device_ || live.st_ino != inode_;
    liveSize_ = draining_ ? live.st_size : 0;
}

void LogFollower::switchToLive() {
    if (!buffer_.empty()) {
        log_(std::to_string(buffer_.size()) + " bytes without a newline at the end of the " +
             logName() + "'s rotated file are not shipped");
    }
    closeFile();
    if (openLive()) {
        log_("following the new " + logName() + " " + path_);
    }
}

void LogFollower::refill(Clock::time_point now) {
    if (!positioned_) {
        return;
    }
    if (fd_ < 0 && !openLive()) {
        return;
    }
    for (int round = 0; round < 2; ++round) {
        struct stat info {};
        if (fstat(fd_, &info) == 0) {
            fileSize_ = info.st_size;
        }
        if (fileSize_ < readOffset()) {
            startAgain(path_ + " shrank to " + std::to_string(fileSize_) + " bytes");
        } else if (keyed_ && !key_.matches(fd_)) {
            startAgain(path_ + "'s first bytes changed");
        }
        const bool hadLines = hasLines();
        readMore();
        if (!hadLines && hasLines()) {
            pendingSince_ = now;
            pending_ = true;
        }
        checkRotation();
        // Moves on only when the old file is drained and the writer has
        // started the new one, so no line written late to the old is missed.
        if (draining_ && atEnd_ && !hasLines() && liveSize_ > 0) {
            switchToLive();
            if (fd_ < 0) {
                return;
            }
            continue;
        }
        return;
    }
}

bool LogFollower::hasLines() const { return BatchCutter::hasWhole(buffer_.data(), buffer_.size()); }

bool LogFollower::hasFullBatch(std::size_t maxLines) const {
    if (buffer_.size() >= READ_AHEAD / 2) {
        return true;
    }
    std::size_t lines = 0;
    const char* at = buffer_.data();
    const char* const end = at + buffer_.size();
    while (lines < maxLines) {
        const void* found = std::memchr(at, '\n', static_cast<std::size_t>(end - at));
        if (found == nullptr) {
            return false;
        }
        at = static_cast<const char*>(found) + 1;
        ++lines;
    }
    return true;
}

Status LogFollower::takeBatches(std::size_t maxLines, std::size_t count,
                                std::vector<StoreSession::Batch>& batches) {
    batches.clear();
    if (fd_ < 0 || !hasLines()) {
        return Status::success();
    }
    if (!keyed_) {
        Status made = FileKey::make(fd_, key_);
        if (!made.ok()) {
            return made;
        }
        keyed_ = true;
        keyText_ = key_.text();
    }
    std::string expectedFile = committedKey_;
    int64_t expectedOffset = committedOffset_;
    std::size_t at = 0;
    for (std::size_t i = 0; i < count; ++i) {
        BatchCutter::Cut cut;
        BatchCutter::cut(buffer_.data() + at, buffer_.size() - at, maxLines, cut);
        if (cut.consumed == 0) {
            break;
        }
        StoreSession::Batch batch;
        batch.stream = stream_;
        batch.expectedFile = expectedFile;
        batch.expectedOffset = expectedOffset;
        batch.fileKey = keyText_;
        batch.endOffset = bufferOffset_ + static_cast<int64_t>(at + cut.consumed);
        batch.lines = std::move(cut.lines);
        batch.unparsedLines = std::move(cut.unparsedLines);
        batch.unparsedReasons = std::move(cut.unparsedReasons);
        expectedFile = batch.fileKey;
        expectedOffset = batch.endOffset;
        at += cut.consumed;
        batches.push_back(std::move(batch));
        if (cut.taken < maxLines) {
            break;
        }
    }
    return Status::success();
}

void LogFollower::committed(const StoreSession::Batch& batch, Clock::time_point now) {
    committedKey_ = batch.fileKey;
    committedOffset_ = batch.endOffset;
    if (batch.fileKey == keyText_ && batch.endOffset >= bufferOffset_) {
        const auto done = static_cast<std::size_t>(batch.endOffset - bufferOffset_);
        buffer_.erase(0, std::min(done, buffer_.size()));
        bufferOffset_ = batch.endOffset;
    }
    if (!hasLines()) {
        pending_ = false;
        if (buffer_.empty() && buffer_.capacity() > READ_CHUNK) {
            // An idle agent gives the read-ahead's memory back.
            std::string().swap(buffer_);
        }
    } else if (!pending_) {
        pendingSince_ = now;
        pending_ = true;
    }
}

int64_t LogFollower::lagBytes() const {
    if (fd_ < 0) {
        return 0;
    }
    const int64_t inFile = fileSize_ > bufferOffset_ ? fileSize_ - bufferOffset_ : 0;
    return inFile + (draining_ ? liveSize_ : 0);
}

double LogFollower::lagSeconds(Clock::time_point now) const {
    return pending_ ? std::chrono::duration<double>(now - pendingSince_).count() : 0.0;
}
