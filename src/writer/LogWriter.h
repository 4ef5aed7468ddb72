#pragma once
// Appends converted event lines to the output file, one flushed line at a
// time, and reopens the file when it was rotated, truncated or removed.

#include <cstddef>
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

    // Lines shorter than this are copied here with their newline and a
    // terminating zero. Small enough for any stream buffer, so that such a
    // line always fits the stream's buffer whole and leaves in one write.
    static constexpr std::size_t LINE_BUFFER_SIZE = 512;

    // Puts the line and its newline into the stream; false when that failed.
    bool putLine(const std::string& line);

    std::string filename_;
    FILE* file_ = nullptr;
    // Plain, not recursive: no operation that holds it calls another that takes it.
    std::mutex mutex_;
    std::string lastError_;
    uint64_t inode_ = 0;
    int64_t fileSize_ = 0;
    char lineBuffer_[LINE_BUFFER_SIZE] = {};
};
