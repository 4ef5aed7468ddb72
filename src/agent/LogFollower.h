#pragma once
// Follows one log (the event log or the backfill log) from the store's
// committed position: finds the position's file again after a restart, reads
// what it gains, drains a renamed file through its open descriptor before it
// moves to the new one, and starts a truncated file again at 0. It hands out
// batches and forgets their bytes only once the store has committed them.

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "agent/FileKey.h"
#include "agent/StoreSession.h"

class LogFollower {
public:
    using Clock = std::chrono::steady_clock;
    using Log = std::function<void(const std::string&)>;

    // Bytes read ahead of the committed position: room for two full batches
    // of ordinary lines, or one over-long line's piece, and no more.
    static constexpr std::size_t READ_AHEAD = std::size_t{8} << 20;
    static constexpr std::size_t READ_CHUNK = std::size_t{256} << 10;

    LogFollower(std::string stream, std::string path, Log log);
    ~LogFollower();
    LogFollower(const LogFollower&) = delete;
    LogFollower& operator=(const LogFollower&) = delete;

    // Starts again from the store's committed position, forgetting what was
    // read beyond it.
    void resume(const StoreSession::Position& position);
    // Forgets the position, so that the store's is read again.
    void unposition();
    // Reads what the log gained and follows its rotation or truncation.
    void refill(Clock::time_point now);
    // Up to `count` batches of up to `maxLines` lines each, the first from
    // the committed position, each from where the one before ends.
    Status takeBatches(std::size_t maxLines, std::size_t count,
                       std::vector<StoreSession::Batch>& batches);
    // The store committed `batch`: its bytes are done with.
    void committed(const StoreSession::Batch& batch, Clock::time_point now);

    const std::string& stream() const { return stream_; }
    const std::string& path() const { return path_; }
    bool positioned() const { return positioned_; }
    // Whether whole lines wait to be shipped, and since when.
    bool hasLines() const;
    bool hasFullBatch(std::size_t maxLines) const;
    Clock::time_point pendingSince() const { return pendingSince_; }
    int64_t lagBytes() const;
    double lagSeconds(Clock::time_point now) const;
    uint64_t lostFiles() const { return lostFiles_; }
    const std::string& committedKey() const { return committedKey_; }
    int64_t committedOffset() const { return committedOffset_; }

private:
    // "event log" or "backfill log", for what the follower says.
    std::string logName() const;
    bool openLive();
    void adopt(int fd, int64_t offset);
    void closeFile();
    void startAgain(const std::string& why);
    // Reads up to READ_AHEAD; returns the bytes read.
    std::size_t readMore();
    void checkRotation();
    void switchToLive();
    void reportOnce(const std::string& message);
    int64_t readOffset() const { return bufferOffset_ + static_cast<int64_t>(buffer_.size()); }

    std::string stream_;
    std::string path_;
    Log log_;
    bool positioned_ = false;
    int fd_ = -1;
    dev_t device_ = 0;
    ino_t inode_ = 0;
    bool keyed_ = false;
    FileKey key_;
    std::string keyText_;
    // The open file is no longer the live path's: drain it, then move on.
    bool draining_ = false;
    bool atEnd_ = false;
    std::string committedKey_;
    int64_t committedOffset_ = 0;
    std::string buffer_;
    int64_t bufferOffset_ = 0;
    int64_t fileSize_ = 0;
    int64_t liveSize_ = 0;
    Clock::time_point pendingSince_{};
    bool pending_ = false;
    uint64_t lostFiles_ = 0;
    std::string lastReport_;
};
