#include "agent/LogFollower.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "agent/FileKey.h"
#include "agent/Sha256.h"
#include "support/TestSupport.h"

using testing_support::appendFile;
using testing_support::TempDir;
using testing_support::writeFile;

namespace {

// A follower and what it said, with the commits a store would make.
class Following {
public:
    explicit Following(const std::string& path)
        : follower("events", path, [this](const std::string& line) { said.push_back(line); }) {}

    // Ships everything whole the log holds now, committing each batch.
    std::vector<std::string> shipAll(std::size_t maxLines = 1000) {
        std::vector<std::string> lines;
        for (int round = 0; round < 10; ++round) {
            follower.refill(LogFollower::Clock::now());
            std::vector<StoreSession::Batch> batches;
            EXPECT_TRUE(follower.takeBatches(maxLines, 1, batches).ok());
            if (batches.empty()) {
                break;
            }
            for (const auto& batch : batches) {
                lines.insert(lines.end(), batch.lines.begin(), batch.lines.end());
                last = batch;
                lastLines.assign(batch.lines.begin(), batch.lines.end());
                follower.committed(batch, LogFollower::Clock::now());
            }
        }
        return lines;
    }

    StoreSession::Position position() const {
        return StoreSession::Position{true, follower.committedKey(), follower.committedOffset()};
    }

    std::vector<std::string> said;
    LogFollower follower;
    StoreSession::Batch last;
    std::vector<std::string> lastLines;
};

std::string keyOf(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY);
    FileKey key;
    FileKey::make(fd, key);
    close(fd);
    return key.text();
}

bool saidSomething(const std::vector<std::string>& said, const std::string& part) {
    return testing_support::containsSubstring(said, part);
}

}  // namespace

TEST(LogFollowerTest, WithoutAPositionTheLiveFileIsShippedFromItsStart) {
    TempDir dir;
    writeFile(dir.file("log"), "one\ntwo\n");
    Following f(dir.file("log"));
    f.follower.resume(StoreSession::Position{});
    EXPECT_EQ((std::vector<std::string>{"one", "two"}), f.shipAll());
    EXPECT_EQ("", f.last.expectedFile);
    EXPECT_EQ(0, f.last.expectedOffset);
    EXPECT_EQ(keyOf(dir.file("log")), f.last.fileKey);
    EXPECT_EQ(8, f.last.endOffset);
}

TEST(LogFollowerTest, OnlyWholeLinesAreShippedAndTheOffsetFollowsTheLastNewline) {
    TempDir dir;
    writeFile(dir.file("log"), "one\ntw");
    Following f(dir.file("log"));
    f.follower.resume(StoreSession::Position{});
    EXPECT_EQ(std::vector<std::string>{"one"}, f.shipAll());
    EXPECT_EQ(4, f.follower.committedOffset());
    appendFile(dir.file("log"), "o\n");
    EXPECT_EQ(std::vector<std::string>{"two"}, f.shipAll());
    EXPECT_EQ(8, f.follower.committedOffset());
}

TEST(LogFollowerTest, ResumesTheLiveFileAtTheCommittedOffset) {
    TempDir dir;
    writeFile(dir.file("log"), "one\ntwo\nthree\n");
    Following f(dir.file("log"));
    f.follower.resume(StoreSession::Position{true, keyOf(dir.file("log")), 8});
    EXPECT_EQ(std::vector<std::string>{"three"}, f.shipAll());
    EXPECT_EQ(keyOf(dir.file("log")), f.last.expectedFile);
    EXPECT_EQ(8, f.last.expectedOffset);
}

TEST(LogFollowerTest, ARenamedFileIsDrainedThroughItsDescriptorBeforeTheNewOne) {
    TempDir dir;
    writeFile(dir.file("log"), "one\n");
    Following f(dir.file("log"));
    f.follower.resume(StoreSession::Position{});
    EXPECT_EQ(std::vector<std::string>{"one"}, f.shipAll());
    const std::string oldKey = keyOf(dir.file("log"));
    appendFile(dir.file("log"), "two\n");
    ASSERT_EQ(0, rename(dir.file("log").c_str(), dir.file("log.1").c_str()));
    appendFile(dir.file("log.1"), "three\n");
    writeFile(dir.file("log"), "four\n");
    EXPECT_EQ((std::vector<std::string>{"two", "three", "four"}), f.shipAll());
    EXPECT_EQ(oldKey, f.last.expectedFile);
    EXPECT_EQ(14, f.last.expectedOffset);
    EXPECT_EQ(keyOf(dir.file("log")), f.last.fileKey);
    EXPECT_EQ(5, f.last.endOffset);
}

TEST(LogFollowerTest, StaysOnTheRenamedFileUntilTheNewOneIsWritten) {
    TempDir dir;
    writeFile(dir.file("log"), "one\n");
    Following f(dir.file("log"));
    f.follower.resume(StoreSession::Position{});
    f.shipAll();
    ASSERT_EQ(0, rename(dir.file("log").c_str(), dir.file("log.1").c_str()));
    writeFile(dir.file("log"), "");
    EXPECT_TRUE(f.shipAll().empty());
    appendFile(dir.file("log.1"), "late\n");
    EXPECT_EQ(std::vector<std::string>{"late"}, f.shipAll());
    appendFile(dir.file("log"), "new\n");
    EXPECT_EQ(std::vector<std::string>{"new"}, f.shipAll());
}

TEST(LogFollowerTest, CopytruncateStartsTheFileAgainAtZero) {
    TempDir dir;
    writeFile(dir.file("log"), "one\ntwo\n");
    Following f(dir.file("log"));
    f.follower.resume(StoreSession::Position{});
    f.shipAll();
    const std::string before = keyOf(dir.file("log"));
    ASSERT_EQ(0, truncate(dir.file("log").c_str(), 0));
    appendFile(dir.file("log"), "x\n");
    EXPECT_EQ(std::vector<std::string>{"x"}, f.shipAll());
    EXPECT_EQ(before, f.last.expectedFile);
    EXPECT_EQ(8, f.last.expectedOffset);
    EXPECT_EQ(2, f.last.endOffset);
    EXPECT_NE(before, f.last.fileKey);
    EXPECT_TRUE(saidSomething(f.said, "shrank to 2 bytes"));
}

TEST(LogFollowerTest, ATruncatedFileRegrownPastTheOffsetIsFoundByItsFirstBytes) {
    TempDir dir;
    writeFile(dir.file("log"), "a\n");
    Following f(dir.file("log"));
    f.follower.resume(StoreSession::Position{});
    f.shipAll();
    // Truncated and written again beyond the old offset before the follower looked.
    writeFile(dir.file("log"), "bbbb\ncc\n");
    EXPECT_EQ((std::vector<std::string>{"bbbb", "cc"}), f.shipAll());
    EXPECT_TRUE(saidSomething(f.said, "first bytes changed"));
}

TEST(LogFollowerTest, OnStartThePositionIsFoundInTheRotatedFile) {
    TempDir dir;
    writeFile(dir.file("log"), "one\ntwo\n");
    const std::string key = keyOf(dir.file("log"));
    ASSERT_EQ(0, rename(dir.file("log").c_str(), dir.file("log.1").c_str()));
    writeFile(dir.file("log"), "three\n");
    Following f(dir.file("log"));
    f.follower.resume(StoreSession::Position{true, key, 4});
    EXPECT_EQ((std::vector<std::string>{"two", "three"}), f.shipAll());
    EXPECT_EQ(0u, f.follower.lostFiles());
}

TEST(LogFollowerTest, APositionWhoseFileIsGoneIsReportedCountedAndTheLiveFileStartsAtZero) {
    TempDir dir;
    writeFile(dir.file("gone"), "old\n");
    const std::string key = keyOf(dir.file("gone"));
    unlink(dir.file("gone").c_str());
    writeFile(dir.file("log"), "new\n");
    Following f(dir.file("log"));
    f.follower.resume(StoreSession::Position{true, key, 4});
    EXPECT_EQ(std::vector<std::string>{"new"}, f.shipAll());
    EXPECT_EQ(1u, f.follower.lostFiles());
    EXPECT_TRUE(saidSomething(f.said, "rotation outran the agent: " + dir.file("log") + " (file " +
                                          key + ") at 4 is gone"));
    EXPECT_EQ(key, f.last.expectedFile);
    EXPECT_EQ(4, f.last.expectedOffset);
}

TEST(LogFollowerTest, ANewFileWithTheOldInodeIsReadFromItsStart) {
    TempDir dir;
    writeFile(dir.file("log"), "the old file's first line\n");
    struct stat info {};
    stat(dir.file("log").c_str(), &info);
    // The same device and inode, other first bytes: what a replacement that
    // got the old inode looks like.
    const std::string key = std::to_string(info.st_dev) + ":" + std::to_string(info.st_ino) +
                            ":26:" + Sha256::hex("an older file's first line\n");
    Following f(dir.file("log"));
    f.follower.resume(StoreSession::Position{true, key, 26});
    EXPECT_EQ(std::vector<std::string>{"the old file's first line"}, f.shipAll());
    EXPECT_EQ(1u, f.follower.lostFiles());
}

TEST(LogFollowerTest, AFileShorterThanThePositionStartsAgainAtZero) {
    TempDir dir;
    writeFile(dir.file("log"), "one\n");
    Following f(dir.file("log"));
    f.follower.resume(StoreSession::Position{true, keyOf(dir.file("log")), 4});
    EXPECT_TRUE(f.shipAll().empty());
    Following g(dir.file("log"));
    g.follower.resume(StoreSession::Position{true, keyOf(dir.file("log")), 40});
    EXPECT_EQ(std::vector<std::string>{"one"}, g.shipAll());
}

TEST(LogFollowerTest, AMissingLogIsWaitedForAndSaidOnce) {
    TempDir dir;
    Following f(dir.file("log"));
    f.follower.resume(StoreSession::Position{});
    EXPECT_TRUE(f.shipAll().empty());
    EXPECT_TRUE(f.shipAll().empty());
    EXPECT_EQ(1, testing_support::countSubstring(f.said, "does not exist yet"));
    writeFile(dir.file("log"), "here\n");
    EXPECT_EQ(std::vector<std::string>{"here"}, f.shipAll());
}

TEST(LogFollowerTest, AnUnreadableLogIsSaidWithItsReason) {
    TempDir dir;
    // A directory opens but cannot be read, even by root.
    ASSERT_EQ(0, mkdir(dir.file("log").c_str(), 0755));
    Following f(dir.file("log"));
    f.follower.resume(StoreSession::Position{});
    f.shipAll();
    f.shipAll();
    EXPECT_EQ(1, testing_support::countSubstring(
                     f.said, "event log unreadable: " + dir.file("log") + ": Is a directory"));
}

TEST(LogFollowerTest, BatchesChainTheirPositions) {
    TempDir dir;
    writeFile(dir.file("log"), "a\nb\nc\n");
    Following f(dir.file("log"));
    f.follower.resume(StoreSession::Position{});
    f.follower.refill(LogFollower::Clock::now());
    std::vector<StoreSession::Batch> batches;
    ASSERT_TRUE(f.follower.takeBatches(2, 2, batches).ok());
    ASSERT_EQ(2u, batches.size());
    EXPECT_EQ(4, batches[0].endOffset);
    EXPECT_EQ(batches[0].fileKey, batches[1].expectedFile);
    EXPECT_EQ(4, batches[1].expectedOffset);
    EXPECT_EQ(6, batches[1].endOffset);
}
