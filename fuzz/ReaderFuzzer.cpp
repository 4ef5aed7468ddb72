// Fuzz target: the input follower over arbitrary file contents and appends.
//
// The input is a little program of file operations (append, truncate,
// replace by rename, rotate, reopen) and reader calls (readNewLines with and
// without advancing, one poll cycle as the monitor thread runs it, a fresh
// reader). No thread and no sleep: the calls are made directly, one by one.
//
// Every reader call is checked against a model written straight from the
// rules of the reader:
//  - readNewLines delivers exactly the lines of the bytes between position_
//    and the end of the file as its descriptor sees them (cut at newlines,
//    empty lines skipped, each line cut at its first zero byte, a final piece
//    without newline delivered too, at most MAX_LINES_PER_READ lines), and
//    moves position_ by the bytes read only when asked to;
//  - openFile chooses the start position by the rotation/truncation table;
//  - checkRotation answers from the path's inode and size and changes nothing.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "../tests/reader/LogReaderTestPeer.h"
#include "FuzzSupport.h"
#include "reader/LogReader.h"

namespace {

// Repeated appends reach the per-read line limit easily; files stay well below
// the per-read byte limit (the reader's unit tests cover that one), so that
// one execution stays short.
constexpr int64_t MAX_FILE_SIZE = 256 << 10;
constexpr int64_t MAX_REPEATS = 16384;

std::string filePath;

class Program {
public:
    Program(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    bool done() const { return offset_ >= size_; }
    uint8_t byte() { return offset_ < size_ ? data_[offset_++] : 0; }
    uint16_t word() {
        const uint16_t low = byte();
        return static_cast<uint16_t>(low | (byte() << 8));
    }
    std::string bytes(size_t count) {
        count = std::min(count, size_ - offset_);
        std::string result(reinterpret_cast<const char*>(data_ + offset_), count);
        offset_ += count;
        return result;
    }

private:
    const uint8_t* data_;
    size_t size_;
    size_t offset_ = 0;
};

struct PathInfo {
    bool exists = false;
    uint64_t inode = 0;
    int64_t size = 0;
};

PathInfo statPath() {
    struct stat info {};
    PathInfo result;
    if (stat(filePath.c_str(), &info) == 0) {
        result.exists = true;
        result.inode = static_cast<uint64_t>(info.st_ino);
        result.size = static_cast<int64_t>(info.st_size);
    }
    return result;
}

int64_t pathSize() {
    const PathInfo info = statPath();
    return info.exists ? info.size : 0;
}

void writeAll(int fd, const std::string& content) {
    size_t written = 0;
    while (written < content.size()) {
        const ssize_t n = write(fd, content.data() + written, content.size() - written);
        FUZZ_CHECK(n > 0);
        written += static_cast<size_t>(n);
    }
}

// One write per append, as a well-behaved logger does it.
void appendToPath(const std::string& content) {
    const int fd = open(filePath.c_str(), O_WRONLY | O_APPEND | O_CREAT, 0600);
    FUZZ_CHECK(fd >= 0);
    writeAll(fd, content);
    close(fd);
}

void createPath(const std::string& path, const std::string& content) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    FUZZ_CHECK(fd >= 0);
    writeAll(fd, content);
    close(fd);
}

std::vector<std::string> modelLines(const std::string& bytes) {
    std::vector<std::string> lines;
    auto deliver = [&lines](const std::string& piece) {
        lines.push_back(piece.substr(0, piece.find('\0')));
    };
    size_t start = 0;
    while (lines.size() < static_cast<size_t>(LogReader::MAX_LINES_PER_READ)) {
        const size_t newline = bytes.find('\n', start);
        if (newline == std::string::npos) {
            break;
        }
        if (newline != start) {
            deliver(bytes.substr(start, newline - start));
        }
        start = newline + 1;
    }
    if (lines.size() < static_cast<size_t>(LogReader::MAX_LINES_PER_READ) && start < bytes.size()) {
        deliver(bytes.substr(start));
    }
    return lines;
}

void checkedRead(LogReader& reader, bool advance) {
    const int fd = LogReaderTestPeer::fd(reader);
    const int64_t position = LogReaderTestPeer::position(reader);
    std::vector<std::string> delivered;
    auto callback = [&delivered](const std::string& line) { delivered.push_back(line); };

    if (fd < 0) {
        FUZZ_CHECK(!reader.readNewLines(callback, advance));
        FUZZ_CHECK(delivered.empty());
        FUZZ_CHECK(LogReaderTestPeer::position(reader) == position);
        return;
    }
    struct stat info {};
    FUZZ_CHECK(fstat(fd, &info) == 0);
    const int64_t size = static_cast<int64_t>(info.st_size);
    std::string bytes;
    if (size > position) {
        bytes.resize(static_cast<size_t>(std::min(size - position, LogReader::MAX_READ_SIZE)));
        FUZZ_CHECK(pread(fd, bytes.data(), bytes.size(), position) ==
                   static_cast<ssize_t>(bytes.size()));
    }

    FUZZ_CHECK(reader.readNewLines(callback, advance));

    FUZZ_CHECK(LogReaderTestPeer::lastSize(reader) == size);
    const int64_t expectedPosition =
        advance ? position + static_cast<int64_t>(bytes.size()) : position;
    FUZZ_CHECK(LogReaderTestPeer::position(reader) == expectedPosition);
    FUZZ_CHECK(delivered == modelLines(bytes));
    for (const std::string& line : delivered) {
        FUZZ_CHECK(line.find('\n') == std::string::npos);
        FUZZ_CHECK(line.find('\0') == std::string::npos);
    }
}

bool checkedOpen(LogReader& reader) {
    const uint64_t oldInode = LogReaderTestPeer::inode(reader);
    const int64_t oldPosition = LogReaderTestPeer::position(reader);
    const int64_t oldLastSize = LogReaderTestPeer::lastSize(reader);
    const PathInfo path = statPath();

    const bool opened = reader.openFile();

    FUZZ_CHECK(opened == path.exists);
    if (!opened) {
        FUZZ_CHECK(LogReaderTestPeer::fd(reader) == -1);
        FUZZ_CHECK(LogReaderTestPeer::inode(reader) == oldInode);
        FUZZ_CHECK(LogReaderTestPeer::position(reader) == oldPosition);
        FUZZ_CHECK(LogReaderTestPeer::lastSize(reader) == oldLastSize);
        return false;
    }
    const bool replaced = oldInode != 0 && path.inode != oldInode;
    int64_t expected = oldPosition;
    if (replaced && path.size < LogReader::ROTATION_SIZE_THRESHOLD) {
        expected = 0;
    } else if (replaced) {
        expected = path.size;
    } else if (path.size < oldPosition) {
        expected = 0;
    } else if (oldPosition == 0 && path.size > 0) {
        expected = path.size;
    }
    FUZZ_CHECK(LogReaderTestPeer::fd(reader) >= 0);
    FUZZ_CHECK(LogReaderTestPeer::inode(reader) == path.inode);
    FUZZ_CHECK(LogReaderTestPeer::lastSize(reader) == path.size);
    FUZZ_CHECK(LogReaderTestPeer::position(reader) == expected);
    return true;
}

bool checkedRotation(LogReader& reader) {
    const int fd = LogReaderTestPeer::fd(reader);
    const uint64_t inode = LogReaderTestPeer::inode(reader);
    const int64_t position = LogReaderTestPeer::position(reader);
    const int64_t lastSize = LogReaderTestPeer::lastSize(reader);
    const PathInfo path = statPath();

    const bool changed = reader.checkRotation();

    const bool expected = fd < 0 || !path.exists || path.inode != inode || path.size < lastSize;
    FUZZ_CHECK(changed == expected);
    FUZZ_CHECK(LogReaderTestPeer::fd(reader) == fd);
    FUZZ_CHECK(LogReaderTestPeer::inode(reader) == inode);
    FUZZ_CHECK(LogReaderTestPeer::position(reader) == position);
    FUZZ_CHECK(LogReaderTestPeer::lastSize(reader) == lastSize);
    return changed;
}

// One monitor cycle without its sleeps.
void pollCycle(LogReader& reader) {
    if (checkedRotation(reader)) {
        if (!checkedOpen(reader)) {
            return;
        }
        if (LogReaderTestPeer::position(reader) == 0 && LogReaderTestPeer::lastSize(reader) > 0) {
            checkedRead(reader, false);
        }
    }
    checkedRead(reader, true);
}

std::shared_ptr<LogReader> freshReader() {
    std::shared_ptr<LogReader> reader = LogReader::create(filePath);
    checkedOpen(*reader);
    return reader;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    fuzz_support::quietLogger();
    filePath = fuzz_support::scratchDirectory() + "/audit.log";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Program program(data, size);
    // The first two bytes give the length of the content the file already
    // holds at the reader's first open (content that is skipped, not read).
    const uint16_t initialLength = program.word();
    createPath(filePath, program.bytes(initialLength % 2048));
    std::shared_ptr<LogReader> reader = freshReader();

    while (!program.done()) {
        switch (program.byte() % 9) {
            case 0: {
                const std::string content = program.bytes(program.word());
                appendToPath(content);
                break;
            }
            case 1: {
                // A short pattern repeated, for the per-read line and byte limits.
                const std::string unit = program.bytes(1 + program.byte() % 16);
                const int64_t room = MAX_FILE_SIZE - pathSize();
                int64_t count = program.word() % MAX_REPEATS;
                if (!unit.empty()) {
                    count = std::min(count, room / static_cast<int64_t>(unit.size()));
                }
                std::string content;
                content.reserve(static_cast<size_t>(std::max<int64_t>(count, 0)) * unit.size());
                for (int64_t i = 0; i < count; ++i) {
                    content += unit;
                }
                appendToPath(content);
                break;
            }
            case 2:
                checkedRead(*reader, true);
                break;
            case 3:
                checkedRead(*reader, false);
                break;
            case 4:
                pollCycle(*reader);
                break;
            case 5: {
                const int64_t current = pathSize();
                const int64_t target = current == 0 ? 0 : program.word() % (current + 1);
                if (statPath().exists) {
                    FUZZ_CHECK(truncate(filePath.c_str(), target) == 0);
                }
                break;
            }
            case 6: {
                const std::string staged = filePath + ".new";
                createPath(staged, program.bytes(program.word() % 4096));
                FUZZ_CHECK(rename(staged.c_str(), filePath.c_str()) == 0);
                break;
            }
            case 7: {
                const std::string rotated = filePath + ".1";
                if (statPath().exists) {
                    FUZZ_CHECK(rename(filePath.c_str(), rotated.c_str()) == 0);
                }
                if (program.byte() % 2 == 0) {
                    createPath(filePath, "");
                }
                break;
            }
            case 8:
                if (program.byte() % 2 == 0) {
                    reader->closeFile();
                    checkedOpen(*reader);
                } else {
                    reader = freshReader();
                }
                break;
        }
    }
    return 0;
}
