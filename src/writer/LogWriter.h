#pragma once
// Appends converted event lines to the output file, one flushed line at a
// time, and reopens the file when it was rotated, truncated or removed.

#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>

class LogWriter {
public:
    explicit LogWriter(const std::string& filename);
    ~LogWriter();
    LogWriter(const LogWriter&) = delete;
    LogWriter& operator=(const LogWriter&) = delete;

    bool openFile(bool append);
    bool checkAndReopen();
    bool writeLine(const std::string& line);
    void flush();
    void closeFile();

private:
    friend class LogWriterTestPeer;

    // Flushes and closes the stream if one is open. The caller holds the mutex
    // or, as closeFile and the destructor do, relies on one writing thread.
    void releaseFile();

    std::string filename_;
    FILE* file_ = nullptr;
    // Plain, not recursive: no operation that holds it calls another that takes it.
    std::mutex mutex_;
    std::string lastError_;
    uint64_t inode_ = 0;
    int64_t fileSize_ = 0;
};
