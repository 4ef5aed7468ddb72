#include "writer/LogWriter.h"

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <iostream>
#include <string>

#include "logging/Logger.h"
#include "support/ServiceRunner.h"
#include "support/TestSupport.h"

using namespace testing_support;

class LogWriterTestPeer {
public:
    static int64_t fileSize(const LogWriter& writer) { return writer.fileSize_; }
    static bool isOpen(const LogWriter& writer) { return writer.file_ != nullptr; }
};

namespace {

// Clears CAP_DAC_OVERRIDE from the calling process's effective capabilities.
bool dropDacOverride() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    if (syscall(SYS_capget, &header, data) != 0) {
        return false;
    }
    data[CAP_TO_INDEX(CAP_DAC_OVERRIDE)].effective &= ~CAP_TO_MASK(CAP_DAC_OVERRIDE);
    return syscall(SYS_capset, &header, data) == 0;
}

class LogWriterTest : public ::testing::Test {
protected:
    void SetUp() override { initLogger(dir_.file("diag.log"), true); }

    std::vector<std::string> messages() const {
        return stripTimestamps(readLines(dir_.file("diag.log")));
    }

    TempDir dir_;
};

TEST_F(LogWriterTest, ConstructorOpensInAppendModeAndKeepsExistingContent) {
    const std::string path = dir_.file("out.log");
    writeFile(path, "old\n");

    LogWriter writer(path);

    EXPECT_TRUE(LogWriterTestPeer::isOpen(writer));
    EXPECT_EQ(4, LogWriterTestPeer::fileSize(writer));
    EXPECT_TRUE(containsLine(messages(), "[INFO] Opened output file: " + path + " (mode: a)"));
    ASSERT_TRUE(writer.writeLine("new"));
    EXPECT_EQ("old\nnew\n", readFile(path));
}

TEST_F(LogWriterTest, MissingDirectoryLogsErrorAndEveryWriteRetriesOnceAndFails) {
    const std::string path = dir_.file("missing/out.log");
    const std::string error =
        "[ERROR] Failed to open output file: " + path + " - No such file or directory";

    LogWriter writer(path);
    EXPECT_FALSE(LogWriterTestPeer::isOpen(writer));
    EXPECT_EQ(1, countSubstring(messages(), error));

    const auto before = std::chrono::steady_clock::now();
    EXPECT_FALSE(writer.writeLine("a"));
    const auto elapsed = std::chrono::steady_clock::now() - before;
    EXPECT_GE(elapsed, std::chrono::milliseconds(100));
    EXPECT_EQ(2, countSubstring(messages(), error));

    EXPECT_FALSE(writer.writeLine("b"));
    EXPECT_EQ(3, countSubstring(messages(), error));
    EXPECT_FALSE(fileExists(path));
}

TEST_F(LogWriterTest, UnwritableDirectoryLogsPermissionDeniedAndEveryWriteFails) {
    // Root writes anywhere through CAP_DAC_OVERRIDE, so the writer runs in a
    // child that has dropped it from its effective set.
    const std::string directory = dir_.file("locked");
    ASSERT_EQ(0, mkdir(directory.c_str(), 0555));
    const std::string path = directory + "/out.log";
    const std::string error =
        "[ERROR] Failed to open output file: " + path + " - Permission denied";

    const pid_t child = fork();
    ASSERT_NE(-1, child);
    if (child == 0) {
        if (!dropDacOverride()) {
            _exit(2);
        }
        LogWriter writer(path);
        const bool opened = LogWriterTestPeer::isOpen(writer);
        const bool written = writer.writeLine("a");
        _exit(opened || written ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));

    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
    EXPECT_EQ(2, countSubstring(messages(), error));
    EXPECT_FALSE(fileExists(path));
}

TEST_F(LogWriterTest, ReadOnlyFileSystemLogsItsErrorAndEveryWriteFails) {
    QLC_SKIP_WITHOUT_PRIVATE_MOUNTS();
    const PrivateRootResult result = runInPrivateRoot([] {
        mkdir("/qlc-ro", 0755);
        if (mount("tmpfs", "/qlc-ro", "tmpfs", MS_RDONLY, "mode=0755") != 0) return 2;
        initLogger("/qlc-diag.log", false);
        LogWriter writer("/qlc-ro/out.log");
        const bool opened = LogWriterTestPeer::isOpen(writer);
        const bool written = writer.writeLine("a");
        // The diagnostic log lives in the private root: hand it out.
        std::cout << "--- diagnostics\n" << readFile("/qlc-diag.log");
        return opened || written || fileExists("/qlc-ro/out.log") ? 1 : 0;
    });

    EXPECT_EQ(0, result.exitCode) << result.stderrText;
    const auto cut = result.stdoutText.find("--- diagnostics\n");
    ASSERT_NE(std::string::npos, cut) << result.stdoutText;
    const std::string diagnostics = result.stdoutText.substr(cut);
    const std::string error =
        "[ERROR] Failed to open output file: /qlc-ro/out.log - Read-only file system";
    std::size_t count = 0;
    for (std::size_t at = diagnostics.find(error); at != std::string::npos;
         at = diagnostics.find(error, at + 1)) {
        ++count;
    }
    EXPECT_EQ(2u, count) << diagnostics;
}

TEST_F(LogWriterTest, OneCharacterLineGrowsFileAndExpectedSizeByTwo) {
    const std::string path = dir_.file("out.log");
    LogWriter writer(path);
    const int64_t expectedBefore = LogWriterTestPeer::fileSize(writer);

    ASSERT_TRUE(writer.writeLine("x"));

    EXPECT_EQ(2, fileSize(path));
    EXPECT_EQ(expectedBefore + 2, LogWriterTestPeer::fileSize(writer));
    EXPECT_EQ("x\n", readFile(path));
}

TEST_F(LogWriterTest, EmptyLineReturnsTrueAndTouchesNothing) {
    const std::string path = dir_.file("out.log");
    LogWriter writer(path);
    ASSERT_TRUE(writer.writeLine("first"));
    // Removing the file shows that no check is made: a check would recreate it.
    ASSERT_EQ(0, unlink(path.c_str()));

    EXPECT_TRUE(writer.writeLine(""));

    EXPECT_FALSE(fileExists(path));
    EXPECT_EQ(6, LogWriterTestPeer::fileSize(writer));
}

TEST_F(LogWriterTest, RenamedAwayAndRecreatedFileIsReopenedInWriteMode) {
    const std::string path = dir_.file("out.log");
    LogWriter writer(path);
    ASSERT_TRUE(writer.writeLine("before"));
    ASSERT_EQ(0, std::rename(path.c_str(), dir_.file("out.log.1").c_str()));
    writeFile(path, "");

    ASSERT_TRUE(writer.writeLine("after"));

    const auto lines = messages();
    EXPECT_TRUE(containsLine(lines, "[INFO] Output file rotated, reopening..."));
    EXPECT_TRUE(containsLine(lines, "[INFO] Opened output file: " + path + " (mode: w)"));
    EXPECT_EQ("after\n", readFile(path));
    EXPECT_EQ("before\n", readFile(dir_.file("out.log.1")));
}

TEST_F(LogWriterTest, ReplacementWithContentIsEmptiedByTheWriteModeReopen) {
    const std::string path = dir_.file("out.log");
    LogWriter writer(path);
    ASSERT_TRUE(writer.writeLine("before"));
    ASSERT_EQ(0, std::rename(path.c_str(), dir_.file("out.log.1").c_str()));
    writeFile(path, "someone else's content\n");

    ASSERT_TRUE(writer.writeLine("after"));

    EXPECT_EQ("after\n", readFile(path));
}

TEST_F(LogWriterTest, TruncationToZeroReopensInAppendModeAndWritesAtTheStart) {
    const std::string path = dir_.file("out.log");
    LogWriter writer(path);
    ASSERT_TRUE(writer.writeLine("one"));
    ASSERT_TRUE(writer.writeLine("two"));
    ASSERT_EQ(0, truncate(path.c_str(), 0));

    ASSERT_TRUE(writer.writeLine("three"));

    const auto lines = messages();
    EXPECT_TRUE(containsLine(lines, "[INFO] Output file truncated, reopening..."));
    EXPECT_EQ(2, countSubstring(lines, "[INFO] Opened output file: " + path + " (mode: a)"));
    EXPECT_EQ("three\n", readFile(path));
    EXPECT_EQ(6, LogWriterTestPeer::fileSize(writer));
}

TEST_F(LogWriterTest, AppendByAnotherProcessCausesNoReopen) {
    const std::string path = dir_.file("out.log");
    LogWriter writer(path);
    ASSERT_TRUE(writer.writeLine("ours"));
    appendFile(path, "theirs\n");

    ASSERT_TRUE(writer.writeLine("ours again"));

    const auto lines = messages();
    EXPECT_FALSE(containsSubstring(lines, "reopening..."));
    EXPECT_EQ(1, countSubstring(lines, "Opened output file: "));
    EXPECT_EQ("ours\ntheirs\nours again\n", readFile(path));
}

TEST_F(LogWriterTest, DeletedFileIsCreatedAgainAfterAPause) {
    const std::string path = dir_.file("out.log");
    LogWriter writer(path);
    ASSERT_TRUE(writer.writeLine("gone"));
    ASSERT_EQ(0, unlink(path.c_str()));

    const auto before = std::chrono::steady_clock::now();
    ASSERT_TRUE(writer.writeLine("back"));
    const auto elapsed = std::chrono::steady_clock::now() - before;

    EXPECT_GE(elapsed, std::chrono::milliseconds(100));
    EXPECT_EQ("back\n", readFile(path));
    EXPECT_EQ(2, countSubstring(messages(), "[INFO] Opened output file: " + path + " (mode: a)"));
}

TEST_F(LogWriterTest, LineWithZeroByteWritesOnlyItsHeadAndNextWriteSeesATruncation) {
    const std::string path = dir_.file("out.log");
    LogWriter writer(path);
    const std::string line("ab\0cd", 5);

    ASSERT_TRUE(writer.writeLine(line));

    EXPECT_EQ("ab\n", readFile(path));
    EXPECT_EQ(6, LogWriterTestPeer::fileSize(writer));
    EXPECT_FALSE(containsSubstring(messages(), "Output file truncated"));

    ASSERT_TRUE(writer.writeLine("next"));

    EXPECT_TRUE(containsLine(messages(), "[INFO] Output file truncated, reopening..."));
    EXPECT_EQ("ab\nnext\n", readFile(path));
}

TEST_F(LogWriterTest, CloseFileThenWriteReopensInAppendMode) {
    const std::string path = dir_.file("out.log");
    LogWriter writer(path);
    ASSERT_TRUE(writer.writeLine("one"));

    writer.closeFile();
    EXPECT_FALSE(LogWriterTestPeer::isOpen(writer));
    writer.closeFile();  // closing twice is harmless

    ASSERT_TRUE(writer.writeLine("two"));
    EXPECT_EQ("one\ntwo\n", readFile(path));
}

TEST_F(LogWriterTest, EveryLineIsOnDiskWhenWriteLineReturns) {
    const std::string path = dir_.file("out.log");
    LogWriter writer(path);
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(writer.writeLine("line " + std::to_string(i)));
        EXPECT_EQ(static_cast<size_t>(i + 1), readLines(path).size());
    }
    writer.flush();
    EXPECT_EQ("line 0\nline 1\nline 2\nline 3\nline 4\n", readFile(path));
}

TEST_F(LogWriterTest, EveryLineToAFullDeviceIsReportedAndLeavesTheExpectedSize) {
    LogWriter writer("/dev/full");
    ASSERT_TRUE(LogWriterTestPeer::isOpen(writer));
    const int64_t size = LogWriterTestPeer::fileSize(writer);

    EXPECT_FALSE(writer.writeLine("first event"));
    EXPECT_FALSE(writer.writeLine("second event"));
    EXPECT_FALSE(writer.writeLine("first event"));
    EXPECT_FALSE(writer.writeLine("third event"));

    EXPECT_EQ(
        4, countSubstring(messages(), "[ERROR] Failed to write to file: No space left on device"));
    EXPECT_EQ(size, LogWriterTestPeer::fileSize(writer));
}

TEST_F(LogWriterTest, FileSystemThatFillsUpReportsEveryLineUntilItIsCleaned) {
    const PrivateRootResult result = runInPrivateRoot([] {
        // Two pages, one taken by the filler: the output gets one page.
        mkdir("/qlc-small", 0755);
        if (mount("tmpfs", "/qlc-small", "tmpfs", 0, "size=8k,mode=0755") != 0) return 2;
        writeFile("/qlc-small/filler", std::string(4096, 'f'));
        initLogger("/qlc-diag.log", false);
        LogWriter writer("/qlc-small/out.log");
        const std::string error = "[ERROR] Failed to write to file: No space left on device";
        const auto errors = [&] {
            return countSubstring(stripTimestamps(readLines("/qlc-diag.log")), error);
        };

        int written = 0;
        while (written < 100 &&
               writer.writeLine("event " + std::to_string(written) + " " + std::string(100, 'x'))) {
            ++written;
        }
        if (written == 0 || written == 100 || errors() != 1) return 3;
        const int64_t sizeWhenFull = LogWriterTestPeer::fileSize(writer);
        for (int i = 1; i <= 3; ++i) {
            if (writer.writeLine("lost " + std::to_string(i))) return 4;
            if (errors() != 1 + i) return 5;
        }
        if (LogWriterTestPeer::fileSize(writer) != sizeWhenFull) return 6;

        unlink("/qlc-small/filler");
        if (!writer.writeLine("after cleaning")) return 7;
        if (LogWriterTestPeer::fileSize(writer) != sizeWhenFull + 15) return 8;
        const std::string content = readFile("/qlc-small/out.log");
        if (content.size() < 15 || content.substr(content.size() - 15) != "after cleaning\n") {
            return 9;
        }
        return content.find("lost") == std::string::npos && errors() == 4 ? 0 : 10;
    });

    EXPECT_EQ(0, result.exitCode) << result.stdoutText << result.stderrText;
}

}  // namespace
