#include "reader/LogReader.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/Sleep.h"
#include "reader/LogReaderTestPeer.h"
#include "support/TestSupport.h"

using testing_support::appendFile;
using testing_support::appendLines;
using testing_support::containsLine;
using testing_support::containsSubstring;
using testing_support::countSubstring;
using testing_support::fileExists;
using testing_support::fileSize;
using testing_support::initLogger;
using testing_support::readLines;
using testing_support::stripTimestamps;
using testing_support::TempDir;
using testing_support::waitUntil;
using testing_support::writeFile;

using Peer = LogReaderTestPeer;
using std::chrono::milliseconds;

namespace {

// Generous: ctest runs several of these cases at once on two loaded cores.
constexpr milliseconds WAIT_TIMEOUT{15000};

// Lines handed to a callback; read by the test thread while the monitor thread adds to it.
class LineRecorder {
public:
    void add(const std::string& line) {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back(line);
    }
    std::vector<std::string> lines() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return lines_;
    }
    size_t count() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return lines_.size();
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

// The callback owns its recorder, so a detached monitor thread can never outlive it.
LogReader::LineCallback recordInto(const std::shared_ptr<LineRecorder>& recorder) {
    return [recorder](const std::string& line) { recorder->add(line); };
}

// Copies made on any thread but the creating one throw once armed. The
// monitor thread copies its callback for every read, so this raises a
// standard exception inside its cycle without a fake in the reader.
struct CopyThrowingCallback {
    CopyThrowingCallback(std::shared_ptr<std::atomic<bool>> armedFlag,
                         std::shared_ptr<LineRecorder> lineRecorder)
        : armed(std::move(armedFlag)),
          recorder(std::move(lineRecorder)),
          creator(std::this_thread::get_id()) {}
    CopyThrowingCallback(const CopyThrowingCallback& other)
        : armed(other.armed), recorder(other.recorder), creator(other.creator) {
        if (std::this_thread::get_id() != creator && armed->exchange(false)) {
            throw std::runtime_error("boom");
        }
    }
    CopyThrowingCallback& operator=(const CopyThrowingCallback&) = delete;

    void operator()(const std::string& line) const { recorder->add(line); }

    std::shared_ptr<std::atomic<bool>> armed;
    std::shared_ptr<LineRecorder> recorder;
    std::thread::id creator;
};

// Counts its own engaged copies destroyed after the reader is gone; moved-from
// copies hold nothing and count nothing.
struct ReleaseOrderProbe {
    ~ReleaseOrderProbe() {
        if (destroyedAfterReader && reader.expired()) {
            ++*destroyedAfterReader;
        }
    }
    void operator()(const std::string&) const {}

    std::weak_ptr<LogReader> reader;
    std::shared_ptr<std::atomic<int>> destroyedAfterReader;
};

uint64_t inodeOf(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 ? static_cast<uint64_t>(info.st_ino) : 0;
}

// Lines in a file of exactly `size` bytes, each ending in a newline.
std::string contentOfSize(size_t size) {
    std::string content(size, 'x');
    for (size_t i = 99; i < size; i += 100) {
        content[i] = '\n';
    }
    content[size - 1] = '\n';
    return content;
}

// A new file with `content` moved over `path` in one step, as rotation tools
// do, so the follower never sees it half written.
void replaceFile(const std::string& path, const std::string& content) {
    const std::string staging = path + ".staging";
    writeFile(staging, content);
    ASSERT_EQ(std::rename(staging.c_str(), path.c_str()), 0);
}

// Adds entries until the directory's reported size grows past what was opened.
void growDirectory(const std::string& path) {
    const long long initial = fileSize(path);
    for (int i = 0; i < 5000 && fileSize(path) <= initial; ++i) {
        writeFile(path + "/" + std::string(200, 'e') + std::to_string(i), "");
    }
}

int openDescriptorCount() {
    int count = 0;
    DIR* fds = opendir("/proc/self/fd");
    if (fds == nullptr) {
        return -1;
    }
    while (readdir(fds) != nullptr) {
        ++count;
    }
    closedir(fds);
    return count;
}

// Wall-clock milliseconds of a raw diagnostic line "[YYYY-MM-DD HH:MM:SS.mmm] ...".
int64_t lineMilliseconds(const std::string& raw) {
    std::tm parts{};
    int millis = 0;
    if (std::sscanf(raw.c_str(), "[%d-%d-%d %d:%d:%d.%d]", &parts.tm_year, &parts.tm_mon,
                    &parts.tm_mday, &parts.tm_hour, &parts.tm_min, &parts.tm_sec, &millis) != 7) {
        return -1;
    }
    parts.tm_year -= 1900;
    parts.tm_mon -= 1;
    parts.tm_isdst = -1;
    return static_cast<int64_t>(std::mktime(&parts)) * 1000 + millis;
}

// Milliseconds from the first raw line containing `from` to the first later
// line containing `to`; -1 when either is missing.
int64_t millisecondsBetween(const std::vector<std::string>& raw, const std::string& from,
                            const std::string& to) {
    for (size_t i = 0; i < raw.size(); ++i) {
        if (raw[i].find(from) == std::string::npos) {
            continue;
        }
        for (size_t j = i + 1; j < raw.size(); ++j) {
            if (raw[j].find(to) != std::string::npos) {
                return lineMilliseconds(raw[j]) - lineMilliseconds(raw[i]);
            }
        }
        return -1;
    }
    return -1;
}

// Index of the first line equal to `line`, or -1.
long indexOf(const std::vector<std::string>& lines, const std::string& line) {
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i] == line) {
            return static_cast<long>(i);
        }
    }
    return -1;
}

class LogReaderTest : public ::testing::Test {
protected:
    void SetUp() override {
        logPath_ = dir_.file("diagnostic.log");
        initLogger(logPath_, true);
    }

    std::vector<std::string> rawLog() const { return readLines(logPath_); }
    std::vector<std::string> log() const { return stripTimestamps(rawLog()); }

    bool waitForLog(const std::string& line) const {
        return waitUntil([&] { return containsLine(log(), line); }, WAIT_TIMEOUT);
    }
    bool waitForLogCount(const std::string& part, int count) const {
        return waitUntil([&] { return countSubstring(log(), part) >= count; }, WAIT_TIMEOUT);
    }
    static bool waitForLines(const LineRecorder& recorder, size_t count) {
        return waitUntil([&] { return recorder.count() >= count; }, WAIT_TIMEOUT);
    }

    // Ends the monitor thread before the test's files and logger go away.
    void stopAndWait(LogReader& reader, int stoppedBefore = 0) const {
        reader.stopMonitoring();
        ASSERT_TRUE(waitForLogCount("[INFO] Monitor thread stopped for ", stoppedBefore + 1));
    }

    // Lets a few more poll cycles pass, so that a line delivered too often would show.
    void waitForMoreCycles(int cycles) const {
        const int seen = countSubstring(log(), "checkRotation: current inode=");
        ASSERT_TRUE(waitForLogCount("checkRotation: current inode=", seen + cycles));
    }

    TempDir dir_;
    std::string logPath_;
};

// ---------------------------------------------------------------------------
// Creation, destruction and closing

TEST_F(LogReaderTest, CreateLogsPathAndLeavesFileSystemAlone) {
    const std::string path = dir_.file("missing-dir/input.log");

    auto reader = LogReader::create(path);

    EXPECT_TRUE(containsLine(log(), "[DEBUG] LogReader created for: " + path));
    EXPECT_FALSE(fileExists(dir_.file("missing-dir")));
    EXPECT_EQ(Peer::fd(*reader), -1);
    EXPECT_EQ(Peer::position(*reader), 0);
    EXPECT_EQ(Peer::lastSize(*reader), 0);
    EXPECT_EQ(Peer::inode(*reader), 0u);
    EXPECT_FALSE(Peer::running(*reader));
    EXPECT_FALSE(Peer::destroyed(*reader));
}

TEST_F(LogReaderTest, DestructorLogsItsStepsInOrderAndClosesDescriptor) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "line\n");
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    const int fd = Peer::fd(*reader);

    reader.reset();

    const auto lines = log();
    const long destroying = indexOf(lines, "[DEBUG] LogReader destroying for: " + path);
    ASSERT_NE(destroying, -1);
    ASSERT_LT(static_cast<size_t>(destroying + 2), lines.size());
    EXPECT_EQ(lines[destroying + 1], "[DEBUG] Stopping monitoring for " + path);
    EXPECT_EQ(lines[destroying + 2], "[DEBUG] LogReader destroyed for: " + path);
    errno = 0;
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(LogReaderTest, CloseFileOnClosedReaderDoesNothing) {
    auto reader = LogReader::create(dir_.file("input.log"));
    const auto before = log();

    reader->closeFile();
    reader->closeFile();

    EXPECT_EQ(Peer::fd(*reader), -1);
    EXPECT_EQ(log(), before);
}

TEST_F(LogReaderTest, CloseFileKeepsConsumptionState) {
    const std::string path = dir_.file("input.log");
    writeFile(path, contentOfSize(300));
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    const auto before = log();

    reader->closeFile();

    EXPECT_EQ(Peer::fd(*reader), -1);
    EXPECT_EQ(Peer::position(*reader), 300);
    EXPECT_EQ(Peer::lastSize(*reader), 300);
    EXPECT_EQ(Peer::inode(*reader), inodeOf(path));
    EXPECT_EQ(log(), before);
}

TEST_F(LogReaderTest, CloseFileThenOpenFileOnUnchangedFileKeepsPosition) {
    const std::string path = dir_.file("input.log");
    writeFile(path, contentOfSize(300));
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    reader->closeFile();

    ASSERT_TRUE(reader->openFile());

    EXPECT_EQ(Peer::position(*reader), 300);
    EXPECT_TRUE(containsLine(log(), "[INFO] Continuing from position: 300"));
}

// ---------------------------------------------------------------------------
// Opening and the start position

TEST_F(LogReaderTest, FirstOpenOf5000ByteFileStartsAtItsEnd) {
    const std::string path = dir_.file("input.log");
    writeFile(path, contentOfSize(5000));
    auto reader = LogReader::create(path);
    auto recorder = std::make_shared<LineRecorder>();

    ASSERT_TRUE(reader->openFile());
    EXPECT_TRUE(reader->readNewLines(recordInto(recorder), true));

    EXPECT_EQ(Peer::position(*reader), 5000);
    EXPECT_EQ(Peer::lastSize(*reader), 5000);
    EXPECT_EQ(Peer::inode(*reader), inodeOf(path));
    const auto lines = log();
    const long first =
        indexOf(lines, "[INFO] First open of existing file, starting from end (position: 5000)");
    ASSERT_NE(first, -1);
    ASSERT_LT(static_cast<size_t>(first + 1), lines.size());
    EXPECT_EQ(lines[first + 1], "[INFO] Opened file " + path + ", inode: " +
                                    std::to_string(inodeOf(path)) + ", size: 5000, position: 5000");
    EXPECT_EQ(recorder->count(), 0u);
}

TEST_F(LogReaderTest, FirstOpenOfEmptyFileContinuesFromZero) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "");
    auto reader = LogReader::create(path);
    auto recorder = std::make_shared<LineRecorder>();

    ASSERT_TRUE(reader->openFile());
    appendLines(path, {"first", "second"});
    ASSERT_TRUE(reader->readNewLines(recordInto(recorder), true));

    EXPECT_TRUE(containsLine(log(), "[INFO] Continuing from position: 0"));
    EXPECT_EQ(recorder->lines(), (std::vector<std::string>{"first", "second"}));
}

TEST_F(LogReaderTest, MissingFileFailsToOpenWithoutLogging) {
    auto reader = LogReader::create(dir_.file("absent.log"));
    const auto before = log();

    EXPECT_FALSE(reader->openFile());
    EXPECT_FALSE(reader->openFile());
    EXPECT_FALSE(reader->openFile());

    EXPECT_EQ(Peer::fd(*reader), -1);
    EXPECT_EQ(log(), before);
}

TEST_F(LogReaderTest, UnreadableFileLogsPermissionDenied) {
    // Root bypasses file modes, so the open is made by a child running as nobody.
    // Mode 0000 keeps out the file's owner too, for a run as an ordinary user.
    ASSERT_EQ(chmod(dir_.path().c_str(), 0755), 0);
    const std::string path = dir_.file("secret.log");
    writeFile(path, "hidden\n");
    ASSERT_EQ(chmod(path.c_str(), 0000), 0);

    const pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        if (geteuid() == 0 &&
            (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0)) {
            _exit(2);
        }
        auto reader = LogReader::create(path);
        _exit(reader->openFile() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);

    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_TRUE(
        containsLine(log(), "[ERROR] Failed to open file: " + path + " - Permission denied"));
}

TEST_F(LogReaderTest, ReplacementBy1023ByteFileReadsFromItsBeginning) {
    const std::string path = dir_.file("input.log");
    writeFile(path, contentOfSize(2000));
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    replaceFile(path, contentOfSize(1023));

    ASSERT_TRUE(reader->openFile());

    EXPECT_EQ(Peer::position(*reader), 0);
    EXPECT_EQ(Peer::lastSize(*reader), 1023);
    EXPECT_EQ(Peer::inode(*reader), inodeOf(path));
    const auto lines = log();
    EXPECT_TRUE(containsLine(
        lines, "[INFO] logrotate detected (inode changed, size=1023 < ), reading from beginning"));
    EXPECT_TRUE(containsLine(lines, "[INFO] Opened file " + path +
                                        ", inode: " + std::to_string(inodeOf(path)) +
                                        ", size: 1023, position: 0"));
    EXPECT_FALSE(containsSubstring(lines, "File truncated"));
}

TEST_F(LogReaderTest, ReplacementBy1024ByteFileStartsAtItsEnd) {
    const std::string path = dir_.file("input.log");
    writeFile(path, contentOfSize(2000));
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    replaceFile(path, contentOfSize(1024));

    ASSERT_TRUE(reader->openFile());

    EXPECT_EQ(Peer::position(*reader), 1024);
    EXPECT_TRUE(containsLine(
        log(), "[INFO] File inode changed (likely vim save), starting from end (position: 1024)"));
}

TEST_F(LogReaderTest, TruncationFrom800To100ReadsFromBeginning) {
    const std::string path = dir_.file("input.log");
    writeFile(path, contentOfSize(800));
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    ASSERT_EQ(Peer::position(*reader), 800);
    ASSERT_EQ(truncate(path.c_str(), 100), 0);

    ASSERT_TRUE(reader->openFile());

    EXPECT_EQ(Peer::position(*reader), 0);
    EXPECT_TRUE(containsLine(
        log(), "[INFO] File truncated (size 100 < previous position 0), reading from beginning"));
}

TEST_F(LogReaderTest, ReopenOfSameInodeAtPositionZeroStartsAtItsEnd) {
    const std::string path = dir_.file("input.log");
    writeFile(path, contentOfSize(800));
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    ASSERT_EQ(truncate(path.c_str(), 100), 0);
    ASSERT_TRUE(reader->openFile());
    ASSERT_EQ(Peer::position(*reader), 0);

    ASSERT_TRUE(reader->openFile());

    EXPECT_EQ(Peer::position(*reader), 100);
    EXPECT_TRUE(containsLine(
        log(), "[INFO] First open of existing file, starting from end (position: 100)"));
}

TEST_F(LogReaderTest, ReopenOfSameInodeWithPosition300Continues) {
    const std::string path = dir_.file("input.log");
    writeFile(path, contentOfSize(300));
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    appendFile(path, contentOfSize(50));

    ASSERT_TRUE(reader->openFile());

    EXPECT_EQ(Peer::position(*reader), 300);
    const auto lines = log();
    EXPECT_TRUE(containsLine(lines, "[INFO] Continuing from position: 300"));
    EXPECT_TRUE(containsLine(lines, "[INFO] Opened file " + path +
                                        ", inode: " + std::to_string(inodeOf(path)) +
                                        ", size: 350, position: 300"));
}

TEST_F(LogReaderTest, TruncatedAndRegrownPastPositionKeepsOldPosition) {
    const std::string path = dir_.file("input.log");
    writeFile(path, contentOfSize(500));
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    const uint64_t inode = inodeOf(path);
    writeFile(path, contentOfSize(700));
    ASSERT_EQ(inodeOf(path), inode);

    ASSERT_TRUE(reader->openFile());

    EXPECT_EQ(Peer::position(*reader), 500);
    EXPECT_EQ(Peer::lastSize(*reader), 700);
    EXPECT_TRUE(containsLine(log(), "[INFO] Continuing from position: 500"));
}

TEST_F(LogReaderTest, OpenFileOnDestroyedReaderDoesNothing) {
    const std::string path = dir_.file("input.log");
    writeFile(path, contentOfSize(300));
    auto reader = LogReader::create(path);
    Peer::markDestroyed(*reader);
    const auto before = log();

    EXPECT_FALSE(reader->openFile());

    EXPECT_EQ(Peer::fd(*reader), -1);
    EXPECT_EQ(Peer::position(*reader), 0);
    EXPECT_EQ(Peer::inode(*reader), 0u);
    EXPECT_EQ(log(), before);
}

TEST_F(LogReaderTest, RepeatedOpenFileHoldsOneDescriptor) {
    const std::string path = dir_.file("input.log");
    writeFile(path, contentOfSize(300));
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    const int descriptors = openDescriptorCount();

    ASSERT_TRUE(reader->openFile());
    ASSERT_TRUE(reader->openFile());

    EXPECT_EQ(openDescriptorCount(), descriptors);
}

// ---------------------------------------------------------------------------
// Reading new lines

TEST_F(LogReaderTest, NothingAppendedReturnsTrueWithoutCallbackOrMessage) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "abc\n");
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    auto recorder = std::make_shared<LineRecorder>();
    const auto before = log();

    EXPECT_TRUE(reader->readNewLines(recordInto(recorder), true));

    EXPECT_EQ(recorder->count(), 0u);
    EXPECT_EQ(Peer::lastSize(*reader), 4);
    EXPECT_EQ(log(), before);
}

TEST_F(LogReaderTest, TwoAppendedLinesAreDeliveredInOrder) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "");
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    auto recorder = std::make_shared<LineRecorder>();
    appendFile(path, "a\nb\n");

    EXPECT_TRUE(reader->readNewLines(recordInto(recorder), true));

    EXPECT_EQ(recorder->lines(), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(Peer::position(*reader), 4);
    EXPECT_TRUE(containsLine(log(), "[DEBUG] Read 2 new lines from " + path));
}

TEST_F(LogReaderTest, EmptyLinesAreNeitherDeliveredNorCounted) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "");
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    auto recorder = std::make_shared<LineRecorder>();
    appendFile(path, "a\n\n\nb\n");

    EXPECT_TRUE(reader->readNewLines(recordInto(recorder), true));

    EXPECT_EQ(recorder->lines(), (std::vector<std::string>{"a", "b"}));
    EXPECT_TRUE(containsLine(log(), "[DEBUG] Read 2 new lines from " + path));
}

TEST_F(LogReaderTest, PartialLineIsDeliveredInTwoPieces) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "");
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    auto recorder = std::make_shared<LineRecorder>();

    appendFile(path, "abc");
    EXPECT_TRUE(reader->readNewLines(recordInto(recorder), true));
    EXPECT_EQ(Peer::position(*reader), 3);
    appendFile(path, "def\n");
    EXPECT_TRUE(reader->readNewLines(recordInto(recorder), true));

    EXPECT_EQ(recorder->lines(), (std::vector<std::string>{"abc", "def"}));
    EXPECT_EQ(Peer::position(*reader), 7);
    EXPECT_EQ(countSubstring(log(), "[DEBUG] Read 1 new lines from " + path), 2);
}

TEST_F(LogReaderTest, CarriageReturnBeforeNewlineIsKept) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "");
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    auto recorder = std::make_shared<LineRecorder>();
    appendFile(path, "x\r\n");

    EXPECT_TRUE(reader->readNewLines(recordInto(recorder), true));

    EXPECT_EQ(recorder->lines(), (std::vector<std::string>{"x\r"}));
}

TEST_F(LogReaderTest, ZeroByteCutsTheLine) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "");
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    auto recorder = std::make_shared<LineRecorder>();
    appendFile(path, std::string("ab\0cd\nef\nxy\0\0z\ngh", 18));

    EXPECT_TRUE(reader->readNewLines(recordInto(recorder), true));

    EXPECT_EQ(recorder->lines(), (std::vector<std::string>{"ab", "ef", "xy", "gh"}));
    EXPECT_EQ(Peer::position(*reader), 18);
}

TEST_F(LogReaderTest, ZeroByteCutsTheUnfinishedLastLine) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "");
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    auto recorder = std::make_shared<LineRecorder>();
    appendFile(path, std::string("one\ngh\0ij", 9));

    EXPECT_TRUE(reader->readNewLines(recordInto(recorder), true));

    EXPECT_EQ(recorder->lines(), (std::vector<std::string>{"one", "gh"}));
}

TEST_F(LogReaderTest, TwelveThousandLinesInOneReadGiveExactly10000Callbacks) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "");
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    std::vector<std::string> appended;
    for (int i = 0; i < 12000; ++i) {
        char line[16];
        std::snprintf(line, sizeof line, "line-%05d", i);
        appended.emplace_back(line);
    }
    appendLines(path, appended);
    auto recorder = std::make_shared<LineRecorder>();

    EXPECT_TRUE(reader->readNewLines(recordInto(recorder), true));
    const auto firstRead = recorder->lines();
    EXPECT_TRUE(reader->readNewLines(recordInto(recorder), true));

    ASSERT_EQ(firstRead.size(), 10000u);
    EXPECT_EQ(firstRead.front(), "line-00000");
    EXPECT_EQ(firstRead.back(), "line-09999");
    EXPECT_EQ(Peer::position(*reader), 132000);
    EXPECT_EQ(recorder->count(), 10000u);
    EXPECT_TRUE(containsLine(log(), "[DEBUG] Read 10000 new lines from " + path));
}

TEST_F(LogReaderTest, UnfinishedLastLineIsDroppedAfter10000Lines) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "");
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    appendLines(path, std::vector<std::string>(10000, "full"));
    appendFile(path, "tail");
    auto recorder = std::make_shared<LineRecorder>();

    EXPECT_TRUE(reader->readNewLines(recordInto(recorder), true));

    EXPECT_EQ(recorder->count(), 10000u);
    EXPECT_EQ(recorder->lines().back(), "full");
    EXPECT_EQ(Peer::position(*reader), 50004);
}

TEST_F(LogReaderTest, TwentyMiBInLongLinesIsReadAt10485760BytesPerCall) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "");
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    std::string content;
    for (char fill : {'a', 'b', 'c', 'd'}) {
        content.append(5242879, fill);
        content.push_back('\n');
    }
    appendFile(path, content);
    content.clear();
    std::vector<std::pair<char, size_t>> received;
    auto callback = [&received](const std::string& line) {
        received.emplace_back(line.front(), line.size());
    };

    EXPECT_TRUE(reader->readNewLines(callback, true));
    EXPECT_EQ(Peer::position(*reader), 10485760);
    EXPECT_TRUE(reader->readNewLines(callback, true));

    EXPECT_EQ(Peer::position(*reader), 20971520);
    const std::vector<std::pair<char, size_t>> expected{
        {'a', 5242879}, {'b', 5242879}, {'c', 5242879}, {'d', 5242879}};
    EXPECT_EQ(received, expected);
    const auto lines = log();
    EXPECT_TRUE(
        containsLine(lines, "[WARN] Read size too large: 20971520 bytes, limiting to 10485760"));
    EXPECT_EQ(countSubstring(lines, "Read size too large"), 1);
}

TEST_F(LogReaderTest, CallbackThrowingOnSecondOfThreeLinesIsReportedAndSkipped) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "");
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    appendLines(path, {"one", "two", "three"});
    std::vector<std::string> received;
    auto callback = [&received](const std::string& line) {
        if (line == "two") {
            throw std::runtime_error("boom");
        }
        received.push_back(line);
    };

    EXPECT_TRUE(reader->readNewLines(callback, true));

    EXPECT_EQ(received, (std::vector<std::string>{"one", "three"}));
    const auto lines = log();
    EXPECT_TRUE(containsLine(lines, "[ERROR] Exception processing line: boom"));
    EXPECT_TRUE(containsLine(lines, "[DEBUG] Read 2 new lines from " + path));
}

TEST_F(LogReaderTest, CallbackThrowingOnUnfinishedLastLineIsReported) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "");
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    appendFile(path, "one\npartial");
    auto callback = [](const std::string& line) {
        if (line == "partial") {
            throw std::runtime_error("boom");
        }
    };

    EXPECT_TRUE(reader->readNewLines(callback, true));

    const auto lines = log();
    EXPECT_TRUE(containsLine(lines, "[ERROR] Exception processing last line: boom"));
    EXPECT_TRUE(containsLine(lines, "[DEBUG] Read 1 new lines from " + path));
}

TEST_F(LogReaderTest, EmptyCallbackIsReportedLikeAnyException) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "");
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    appendFile(path, "one\npartial");
    const std::string what = std::bad_function_call().what();

    EXPECT_TRUE(reader->readNewLines(LogReader::LineCallback(), true));

    const auto lines = log();
    EXPECT_TRUE(containsLine(lines, "[ERROR] Exception processing line: " + what));
    EXPECT_TRUE(containsLine(lines, "[ERROR] Exception processing last line: " + what));
    EXPECT_FALSE(containsSubstring(lines, "new lines from"));
}

TEST_F(LogReaderTest, NonStandardExceptionLeavesReadAfterPositionMoved) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "");
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    appendLines(path, {"one", "two"});
    auto callback = [](const std::string&) { throw 42; };

    EXPECT_THROW(reader->readNewLines(callback, true), int);

    EXPECT_EQ(Peer::position(*reader), 8);
}

TEST_F(LogReaderTest, WithoutAdvancingTwoReadsDeliverTheSameLinesTwice) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "");
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    appendLines(path, {"one", "two"});
    auto recorder = std::make_shared<LineRecorder>();

    EXPECT_TRUE(reader->readNewLines(recordInto(recorder), false));
    EXPECT_TRUE(reader->readNewLines(recordInto(recorder), false));

    EXPECT_EQ(recorder->lines(), (std::vector<std::string>{"one", "two", "one", "two"}));
    EXPECT_EQ(Peer::position(*reader), 0);
    EXPECT_EQ(Peer::lastSize(*reader), 8);
}

TEST_F(LogReaderTest, DestroyedFlagSetDuringCallbackStopsFurtherLines) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "");
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    appendFile(path, "one\ntwo\nthree\npartial");
    std::vector<std::string> received;
    LogReader& target = *reader;
    auto callback = [&received, &target](const std::string& line) {
        received.push_back(line);
        Peer::markDestroyed(target);
    };

    EXPECT_TRUE(reader->readNewLines(callback, true));

    EXPECT_EQ(received, (std::vector<std::string>{"one"}));
    EXPECT_EQ(Peer::position(*reader), 21);
    EXPECT_TRUE(containsLine(log(), "[DEBUG] Read 1 new lines from " + path));
}

TEST_F(LogReaderTest, ReadOnDestroyedReaderFailsWithoutTouchingState) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "");
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    appendLines(path, {"one"});
    Peer::markDestroyed(*reader);
    auto recorder = std::make_shared<LineRecorder>();

    EXPECT_FALSE(reader->readNewLines(recordInto(recorder), true));

    EXPECT_EQ(recorder->count(), 0u);
    EXPECT_EQ(Peer::lastSize(*reader), 0);
    EXPECT_EQ(Peer::position(*reader), 0);
}

TEST_F(LogReaderTest, ReadOnClosedReaderFails) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "one\n");
    auto reader = LogReader::create(path);
    auto recorder = std::make_shared<LineRecorder>();

    EXPECT_FALSE(reader->readNewLines(recordInto(recorder), true));

    EXPECT_EQ(recorder->count(), 0u);
    EXPECT_EQ(Peer::lastSize(*reader), 0);
}

TEST_F(LogReaderTest, FstatFailureFailsSilently) {
    auto reader = LogReader::create(dir_.file("input.log"));
    // A descriptor number that is certainly closed: no real file makes fstat fail.
    const int closedFd = dup(STDERR_FILENO);
    ASSERT_GE(closedFd, 0);
    ASSERT_EQ(close(closedFd), 0);
    Peer::setFd(*reader, closedFd);
    const auto before = log();

    const bool result = reader->readNewLines([](const std::string&) {}, true);
    Peer::setFd(*reader, -1);

    EXPECT_FALSE(result);
    EXPECT_EQ(Peer::lastSize(*reader), 0);
    EXPECT_EQ(log(), before);
}

TEST_F(LogReaderTest, ReadErrorIsLoggedWithSystemText) {
    // A directory opens read-only but refuses read(): a real read failure.
    const std::string path = dir_.file("input.log");
    ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    const int64_t position = Peer::position(*reader);
    growDirectory(path);

    EXPECT_FALSE(reader->readNewLines([](const std::string&) {}, true));

    EXPECT_TRUE(containsLine(log(), "[ERROR] Failed to read: Is a directory"));
    EXPECT_EQ(Peer::position(*reader), position);
    EXPECT_EQ(Peer::lastSize(*reader), fileSize(path));
}

TEST_F(LogReaderTest, ReadReturningNothingFailsSilently) {
    // Attribute files report a page-sized length but hold a few bytes: past
    // them read() returns 0 although fstat promised more.
    const std::string path = "/sys/devices/system/cpu/online";
    if (fileSize(path) <= 64) {
        GTEST_SKIP() << "no attribute file with a page-sized length here";
    }
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    Peer::setPosition(*reader, 64);
    const auto before = log();

    EXPECT_FALSE(reader->readNewLines([](const std::string&) {}, true));

    EXPECT_EQ(Peer::position(*reader), 64);
    EXPECT_EQ(log(), before);
}

TEST_F(LogReaderTest, SeekFailureLogsThePosition) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "one\n");
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    // No real file refuses a seek to a valid offset; a negative one stands in.
    Peer::setPosition(*reader, -1);

    EXPECT_FALSE(reader->readNewLines([](const std::string&) {}, true));

    EXPECT_TRUE(containsLine(log(), "[ERROR] Failed to seek to position -1"));
    EXPECT_EQ(Peer::position(*reader), -1);
}

// ---------------------------------------------------------------------------
// Rotation and truncation detection

TEST_F(LogReaderTest, CheckRotationOnClosedReaderReportsChangeWithoutStat) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "one\n");
    auto reader = LogReader::create(path);

    EXPECT_TRUE(reader->checkRotation());

    const auto lines = log();
    EXPECT_TRUE(containsLine(lines, "[DEBUG] checkRotation: destroyed or invalid fd"));
    EXPECT_FALSE(containsSubstring(lines, "checkRotation: current inode="));
    EXPECT_FALSE(containsSubstring(lines, "checkRotation: stat failed"));
}

TEST_F(LogReaderTest, CheckRotationOnDestroyedReaderReportsChangeWithoutStat) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "one\n");
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    Peer::markDestroyed(*reader);

    EXPECT_TRUE(reader->checkRotation());

    const auto lines = log();
    EXPECT_TRUE(containsLine(lines, "[DEBUG] checkRotation: destroyed or invalid fd"));
    EXPECT_FALSE(containsSubstring(lines, "checkRotation: current inode="));
}

TEST_F(LogReaderTest, CheckRotationOnRemovedPathReportsStatFailureEveryTime) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "one\n");
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    ASSERT_EQ(unlink(path.c_str()), 0);

    EXPECT_TRUE(reader->checkRotation());
    EXPECT_TRUE(reader->checkRotation());

    EXPECT_EQ(
        countSubstring(log(), "[DEBUG] checkRotation: stat failed - No such file or directory"), 2);
}

TEST_F(LogReaderTest, CheckRotationOnMovedAndRecreatedFileReportsInodeChange) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "abcd\n");
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    const uint64_t oldInode = inodeOf(path);
    ASSERT_EQ(std::rename(path.c_str(), dir_.file("input.log.1").c_str()), 0);
    writeFile(path, "");
    const uint64_t newInode = inodeOf(path);

    EXPECT_TRUE(reader->checkRotation());

    const auto lines = log();
    EXPECT_TRUE(containsLine(lines, "[INFO] Inode changed (" + std::to_string(oldInode) + " -> " +
                                        std::to_string(newInode) + ")"));
    EXPECT_FALSE(containsSubstring(lines, "File truncated"));
}

TEST_F(LogReaderTest, CheckRotationReportsTruncationToZeroAgainstPosition) {
    const std::string path = dir_.file("input.log");
    writeFile(path, contentOfSize(5120));
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    ASSERT_EQ(truncate(path.c_str(), 0), 0);

    EXPECT_TRUE(reader->checkRotation());

    EXPECT_TRUE(containsLine(log(), "[INFO] File truncated (size 0 < position 5120)"));
}

TEST_F(LogReaderTest, CheckRotationMissesTruncateAndRefill) {
    const std::string path = dir_.file("input.log");
    writeFile(path, contentOfSize(5120));
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    writeFile(path, contentOfSize(5120));

    EXPECT_FALSE(reader->checkRotation());

    EXPECT_TRUE(containsLine(log(), "[DEBUG] checkRotation: no change detected"));
}

TEST_F(LogReaderTest, CheckRotationOnUnchangedFileTracesAndReportsNoChange) {
    const std::string path = dir_.file("input.log");
    writeFile(path, contentOfSize(5120));
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    const std::string inode = std::to_string(inodeOf(path));

    EXPECT_FALSE(reader->checkRotation());

    const auto lines = log();
    EXPECT_TRUE(containsLine(lines, "[DEBUG] checkRotation: current inode=" + inode +
                                        ", new inode=" + inode +
                                        ", current pos=5120, new size=5120"));
    EXPECT_TRUE(containsLine(lines, "[DEBUG] checkRotation: no change detected"));
}

TEST_F(LogReaderTest, CheckRotationOnGrownFileReportsNoChange) {
    const std::string path = dir_.file("input.log");
    writeFile(path, contentOfSize(5120));
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    appendLines(path, {"more"});

    EXPECT_FALSE(reader->checkRotation());
}

TEST_F(LogReaderTest, CheckRotationReportsShrinkStillAbovePosition) {
    const std::string path = dir_.file("input.log");
    writeFile(path, contentOfSize(500));
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    appendFile(path, contentOfSize(300));
    ASSERT_TRUE(reader->readNewLines([](const std::string&) {}, false));
    ASSERT_EQ(Peer::lastSize(*reader), 800);
    ASSERT_EQ(truncate(path.c_str(), 600), 0);

    EXPECT_TRUE(reader->checkRotation());

    EXPECT_TRUE(containsLine(log(), "[INFO] File truncated (size 600 < position 500)"));
}

TEST_F(LogReaderTest, CheckRotationChangesNothingInTheReader) {
    const std::string path = dir_.file("input.log");
    writeFile(path, contentOfSize(800));
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    const int fd = Peer::fd(*reader);

    EXPECT_FALSE(reader->checkRotation());
    EXPECT_FALSE(reader->checkRotation());
    ASSERT_EQ(truncate(path.c_str(), 100), 0);
    EXPECT_TRUE(reader->checkRotation());
    EXPECT_TRUE(reader->checkRotation());

    EXPECT_EQ(Peer::fd(*reader), fd);
    EXPECT_EQ(Peer::position(*reader), 800);
    EXPECT_EQ(Peer::lastSize(*reader), 800);
    EXPECT_EQ(Peer::inode(*reader), inodeOf(path));
    EXPECT_FALSE(Peer::running(*reader));
    EXPECT_FALSE(Peer::destroyed(*reader));
}

// ---------------------------------------------------------------------------
// Monitor thread

TEST_F(LogReaderTest, ExistingFileStartsMonitoringAtOnce) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "old\n");
    auto reader = LogReader::create(path);
    auto recorder = std::make_shared<LineRecorder>();

    const auto start = std::chrono::steady_clock::now();
    const bool started = reader->startMonitoring(recordInto(recorder));
    const auto elapsed = std::chrono::steady_clock::now() - start;

    EXPECT_TRUE(started);
    EXPECT_LT(elapsed, milliseconds(900));
    EXPECT_TRUE(Peer::running(*reader));
    EXPECT_TRUE(waitForLog("[INFO] Monitor thread started for " + path));
    appendLines(path, {"new-1", "new-2"});
    EXPECT_TRUE(waitForLines(*recorder, 2));
    EXPECT_EQ(recorder->lines(), (std::vector<std::string>{"new-1", "new-2"}));
    EXPECT_FALSE(containsSubstring(log(), "Waiting for file to appear"));
    stopAndWait(*reader);
}

TEST_F(LogReaderTest, FileAppearing4500MsAfterStartIsOpenedAtFifthAttempt) {
    const std::string path = dir_.file("late.log");
    auto reader = LogReader::create(path);
    auto recorder = std::make_shared<LineRecorder>();
    std::thread creator([&path] {
        sleepResuming(std::chrono::milliseconds(4500));
        writeFile(path, "");
    });

    const auto start = std::chrono::steady_clock::now();
    const bool started = reader->startMonitoring(recordInto(recorder));
    const auto elapsed = std::chrono::steady_clock::now() - start;
    creator.join();

    EXPECT_TRUE(started);
    EXPECT_GE(elapsed, milliseconds(4900));
    EXPECT_LT(elapsed, milliseconds(8000));
    const auto lines = log();
    EXPECT_TRUE(containsLine(lines, "[INFO] Waiting for file to appear: " + path));
    EXPECT_TRUE(containsLine(lines, "[INFO] Still waiting for file... (1/30 seconds)"));
    EXPECT_EQ(countSubstring(lines, "Still waiting for file"), 1);
    EXPECT_TRUE(containsLine(lines, "[INFO] Continuing from position: 0"));
    stopAndWait(*reader);
}

TEST_F(LogReaderTest, FileNeverCreatedGivesUpAfterThirtyAttempts) {
    const std::string path = dir_.file("never.log");
    auto reader = LogReader::create(path);
    auto recorder = std::make_shared<LineRecorder>();

    const auto start = std::chrono::steady_clock::now();
    const bool started = reader->startMonitoring(recordInto(recorder));
    const auto elapsed = std::chrono::steady_clock::now() - start;

    EXPECT_FALSE(started);
    EXPECT_GE(elapsed, milliseconds(30000));
    EXPECT_LT(elapsed, milliseconds(45000));
    EXPECT_FALSE(Peer::running(*reader));
    EXPECT_EQ(Peer::fd(*reader), -1);
    const auto lines = log();
    EXPECT_TRUE(containsLine(lines, "[INFO] Waiting for file to appear: " + path));
    EXPECT_TRUE(containsLine(lines, "[INFO] Still waiting for file... (1/30 seconds)"));
    EXPECT_TRUE(containsLine(lines, "[INFO] Still waiting for file... (11/30 seconds)"));
    EXPECT_TRUE(containsLine(lines, "[INFO] Still waiting for file... (21/30 seconds)"));
    EXPECT_EQ(countSubstring(lines, "Still waiting for file"), 3);
    EXPECT_TRUE(containsLine(lines, "[ERROR] File not found after waiting: " + path));
    EXPECT_FALSE(containsSubstring(lines, "Monitor thread started"));
}

TEST_F(LogReaderTest, DestroyedWhileWaitingForFileStopsWaitingSilently) {
    const std::string path = dir_.file("never.log");
    auto reader = LogReader::create(path);
    LogReader& target = *reader;
    std::thread destroyer([&target] {
        sleepResuming(std::chrono::milliseconds(1500));
        Peer::markDestroyed(target);
    });

    const auto start = std::chrono::steady_clock::now();
    const bool started = reader->startMonitoring([](const std::string&) {});
    const auto elapsed = std::chrono::steady_clock::now() - start;
    destroyer.join();

    EXPECT_FALSE(started);
    EXPECT_LT(elapsed, milliseconds(5000));
    EXPECT_FALSE(Peer::running(*reader));
    EXPECT_FALSE(containsSubstring(log(), "File not found after waiting"));
}

TEST_F(LogReaderTest, StartMonitoringOnDestroyedReaderFails) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "one\n");
    auto reader = LogReader::create(path);
    Peer::markDestroyed(*reader);

    EXPECT_FALSE(reader->startMonitoring([](const std::string&) {}));

    EXPECT_TRUE(containsLine(log(), "[ERROR] Cannot start monitoring on destroyed object"));
    EXPECT_FALSE(Peer::running(*reader));
    EXPECT_EQ(Peer::fd(*reader), -1);
}

TEST_F(LogReaderTest, StopMonitoringEndsTheThread) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "one\n");
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->startMonitoring([](const std::string&) {}));
    ASSERT_TRUE(waitForLog("[INFO] Monitor thread started for " + path));

    reader->stopMonitoring();

    EXPECT_FALSE(Peer::running(*reader));
    EXPECT_TRUE(containsLine(log(), "[DEBUG] Stopping monitoring for " + path));
    EXPECT_TRUE(waitForLog("[INFO] Monitor thread stopped for " + path));
}

TEST_F(LogReaderTest, SecondStartMonitoringOnARunningReaderStartsASecondThread) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "one\n");
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->startMonitoring([](const std::string&) {}));
    ASSERT_TRUE(waitForLog("[INFO] Monitor thread started for " + path));

    EXPECT_TRUE(reader->startMonitoring([](const std::string&) {}));

    EXPECT_TRUE(waitForLogCount("[INFO] Monitor thread started for " + path, 2));
    // The two threads share the reader's fields without a lock: stop them at once.
    reader->stopMonitoring();
    EXPECT_TRUE(waitForLogCount("[INFO] Monitor thread stopped for " + path, 2));
}

TEST_F(LogReaderTest, InitialReadDeliversDataAppendedSinceAnEarlierOpen) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "old\n");
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    appendLines(path, {"new-1", "new-2"});
    auto recorder = std::make_shared<LineRecorder>();

    ASSERT_TRUE(reader->startMonitoring(recordInto(recorder)));

    ASSERT_TRUE(waitForLines(*recorder, 2));
    waitForMoreCycles(3);
    EXPECT_EQ(recorder->lines(), (std::vector<std::string>{"new-1", "new-2"}));
    const auto lines = log();
    EXPECT_TRUE(containsLine(lines, "[INFO] Continuing from position: 4"));
    EXPECT_TRUE(containsLine(lines, "[INFO] Reading existing data from position 4"));
    stopAndWait(*reader);
}

TEST_F(LogReaderTest, RenameAndCreateRotationRetriesThenDeliversNewFileTwice) {
    const std::string path = dir_.file("audit.log");
    writeFile(path, "old-0\n");
    auto reader = LogReader::create(path);
    auto recorder = std::make_shared<LineRecorder>();
    ASSERT_TRUE(reader->startMonitoring(recordInto(recorder)));
    appendLines(path, {"old-1"});
    ASSERT_TRUE(waitForLines(*recorder, 1));

    ASSERT_EQ(std::rename(path.c_str(), dir_.file("audit.log.1").c_str()), 0);
    ASSERT_TRUE(waitForLogCount("[WARN] Failed to reopen file, retrying in 1s...", 2));
    replaceFile(path, "new-1\nnew-2\n");
    ASSERT_TRUE(waitForLines(*recorder, 5));
    appendLines(path, {"new-3"});
    ASSERT_TRUE(waitForLines(*recorder, 6));
    waitForMoreCycles(3);

    EXPECT_EQ(recorder->lines(),
              (std::vector<std::string>{"old-1", "new-1", "new-2", "new-1", "new-2", "new-3"}));
    const auto lines = log();
    EXPECT_TRUE(
        containsLine(lines, "[DEBUG] checkRotation: stat failed - No such file or directory"));
    EXPECT_TRUE(containsLine(lines, "[DEBUG] checkRotation: destroyed or invalid fd"));
    EXPECT_GE(countSubstring(lines, "[INFO] File change detected, reopening..."), 3);
    EXPECT_TRUE(containsLine(
        lines, "[INFO] logrotate detected (inode changed, size=12 < ), reading from beginning"));
    stopAndWait(*reader);
}

TEST_F(LogReaderTest, TruncationInPlaceRereadsShorterContentTwice) {
    const std::string path = dir_.file("audit.log");
    writeFile(path, "alpha\nbravo\ncharlie\ndelta\n");
    auto reader = LogReader::create(path);
    auto recorder = std::make_shared<LineRecorder>();
    ASSERT_TRUE(reader->startMonitoring(recordInto(recorder)));
    appendLines(path, {"echo"});
    ASSERT_TRUE(waitForLines(*recorder, 1));

    ASSERT_EQ(truncate(path.c_str(), 12), 0);
    ASSERT_TRUE(waitForLines(*recorder, 5));
    appendLines(path, {"foxtrot"});
    ASSERT_TRUE(waitForLines(*recorder, 6));
    waitForMoreCycles(3);

    EXPECT_EQ(recorder->lines(),
              (std::vector<std::string>{"echo", "alpha", "bravo", "alpha", "bravo", "foxtrot"}));
    const auto lines = log();
    EXPECT_TRUE(containsLine(lines, "[INFO] File truncated (size 12 < position 31)"));
    EXPECT_TRUE(containsLine(lines, "[INFO] File change detected, reopening..."));
    EXPECT_TRUE(containsLine(
        lines, "[INFO] File truncated (size 12 < previous position 0), reading from beginning"));
    stopAndWait(*reader);
}

TEST_F(LogReaderTest, ExceptionInsideCycleIsLoggedOnceAndFollowingContinues) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "");
    auto reader = LogReader::create(path);
    auto armed = std::make_shared<std::atomic<bool>>(false);
    auto recorder = std::make_shared<LineRecorder>();
    ASSERT_TRUE(reader->startMonitoring(CopyThrowingCallback(armed, recorder)));
    ASSERT_TRUE(waitForLog("[INFO] Monitor thread started for " + path));

    armed->store(true);
    ASSERT_TRUE(waitForLog("[ERROR] Exception in monitor loop: boom"));
    appendLines(path, {"after"});
    ASSERT_TRUE(waitForLines(*recorder, 1));
    waitForMoreCycles(3);

    EXPECT_EQ(recorder->lines(), (std::vector<std::string>{"after"}));
    EXPECT_EQ(countSubstring(log(), "Exception in monitor loop"), 1);
    const int64_t pause = millisecondsBetween(rawLog(), "[ERROR] Exception in monitor loop: boom",
                                              "checkRotation: current inode=");
    EXPECT_GE(pause, 990);
    EXPECT_LT(pause, 4000);
    stopAndWait(*reader);
}

TEST_F(LogReaderTest, ExceptionInInitialReadEndsTheThread) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "old\n");
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->openFile());
    appendLines(path, {"new"});
    auto armed = std::make_shared<std::atomic<bool>>(true);
    auto recorder = std::make_shared<LineRecorder>();

    ASSERT_TRUE(reader->startMonitoring(CopyThrowingCallback(armed, recorder)));

    ASSERT_TRUE(waitForLog("[INFO] Monitor thread stopped for " + path));
    const auto lines = log();
    const long fatal = indexOf(lines, "[ERROR] Fatal exception in monitor thread: boom");
    ASSERT_NE(fatal, -1);
    EXPECT_LT(fatal, indexOf(lines, "[INFO] Monitor thread stopped for " + path));
    EXPECT_FALSE(containsSubstring(lines, "Exception in monitor loop"));
    EXPECT_EQ(recorder->count(), 0u);
}

TEST_F(LogReaderTest, ReadFailureRetriesAfterAboutOnePointOneSeconds) {
    // A directory opens read-only but refuses read(): a real, repeatable read failure.
    const std::string path = dir_.file("input.log");
    ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->startMonitoring([](const std::string&) {}));

    growDirectory(path);
    ASSERT_TRUE(waitForLogCount("[WARN] Read failed, will retry...", 2));

    EXPECT_TRUE(containsLine(log(), "[ERROR] Failed to read: Is a directory"));
    const int64_t pause = millisecondsBetween(rawLog(), "[WARN] Read failed, will retry...",
                                              "checkRotation: current inode=");
    EXPECT_GE(pause, 1095);
    EXPECT_LT(pause, 4000);
    stopAndWait(*reader);
}

TEST_F(LogReaderTest, OwnerReleasingPointerDoesNotDestroyRunningReader) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "");
    auto reader = LogReader::create(path);
    auto recorder = std::make_shared<LineRecorder>();
    ASSERT_TRUE(reader->startMonitoring(recordInto(recorder)));
    std::weak_ptr<LogReader> weak = reader;
    LogReader* raw = reader.get();

    reader.reset();
    appendLines(path, {"still-followed"});

    ASSERT_TRUE(waitForLines(*recorder, 1));
    waitForMoreCycles(3);
    EXPECT_EQ(recorder->lines(), (std::vector<std::string>{"still-followed"}));
    EXPECT_FALSE(weak.expired());
    EXPECT_FALSE(containsSubstring(log(), "LogReader destroying for: "));
    // The thread's own reference keeps the object alive until it sees running_ cleared.
    raw->stopMonitoring();
    EXPECT_TRUE(waitForLog("[DEBUG] LogReader destroyed for: " + path));
}

TEST_F(LogReaderTest, ReaderReleasedByOwnerIsDestroyedWhenItsThreadEnds) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "");
    auto reader = LogReader::create(path);
    ASSERT_TRUE(reader->startMonitoring([](const std::string&) {}));
    std::weak_ptr<LogReader> weak = reader;
    LogReader* raw = reader.get();
    reader.reset();

    // The thread's own reference keeps the object alive until it sees running_ cleared.
    raw->stopMonitoring();

    ASSERT_TRUE(waitForLog("[DEBUG] LogReader destroyed for: " + path));
    const auto lines = log();
    EXPECT_LT(indexOf(lines, "[INFO] Monitor thread stopped for " + path),
              indexOf(lines, "[DEBUG] LogReader destroying for: " + path));
    EXPECT_TRUE(weak.expired());
}

TEST_F(LogReaderTest, MonitorThreadReleasesItsReferenceBeforeItsCallbackCopy) {
    const std::string path = dir_.file("input.log");
    writeFile(path, "");
    auto reader = LogReader::create(path);
    std::weak_ptr<LogReader> weak = reader;
    auto destroyedAfterReader = std::make_shared<std::atomic<int>>(0);
    {
        LogReader::LineCallback probe = ReleaseOrderProbe{weak, destroyedAfterReader};
        ASSERT_TRUE(reader->startMonitoring(probe));
    }
    LogReader* raw = reader.get();
    reader.reset();

    // The thread's own reference keeps the object alive until it sees running_ cleared.
    raw->stopMonitoring();

    ASSERT_TRUE(waitForLog("[DEBUG] LogReader destroyed for: " + path));
    EXPECT_TRUE(waitUntil([&] { return *destroyedAfterReader == 1; }, WAIT_TIMEOUT));
}

}  // namespace
