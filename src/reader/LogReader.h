#pragma once
// Follows one input file the way tail -F does: remembers how far it was
// consumed, reopens it after rotation, replacement or truncation, and hands
// every new line to a callback from a detached monitor thread.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

class LogReader : public std::enable_shared_from_this<LogReader> {
public:
    using LineCallback = std::function<void(const std::string&)>;

    static constexpr int64_t MAX_READ_SIZE = 10485760;
    static constexpr int MAX_LINES_PER_READ = 10000;
    static constexpr int64_t ROTATION_SIZE_THRESHOLD = 1024;

    static std::shared_ptr<LogReader> create(const std::string& filename);

    ~LogReader();
    LogReader(const LogReader&) = delete;
    LogReader& operator=(const LogReader&) = delete;

    bool startMonitoring(LineCallback callback);
    void stopMonitoring();
    bool openFile();
    void closeFile();
    bool readNewLines(LineCallback callback, bool advancePosition);
    bool checkRotation() const;

private:
    // The monitor thread's function object; defined beside the thread body.
    struct MonitorTask;
    // Tests inspect the members and set destroyed_ without destroying the object.
    friend class LogReaderTestPeer;

    explicit LogReader(const std::string& filename);

    void runMonitor(const LineCallback& callback);
    // One poll cycle; false when the reader was destroyed while a change was pending.
    bool pollOnce(const LineCallback& callback);
    // Gives the read buffers' memory back to the system when a load has ended.
    void returnMemoryAfterLoad(int64_t bytesRead);

    // Fixed 64-bit types rather than off_t and ino_t: offsets stay signed and
    // inode numbers unsigned at 64 bits whatever the build's file-offset settings.
    std::string filename_;
    int fd_;
    int64_t position_;
    int64_t lastSize_;
    uint64_t inode_;
    std::atomic<bool> running_;
    std::atomic<bool> destroyed_;
    // The largest read since memory was last given back.
    int64_t largestRecentRead_ = 0;
};
