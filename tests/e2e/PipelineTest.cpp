// The whole service end to end: the real binary in a private mount namespace,
// following an input file and writing converted events.

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include "support/AuditLines.h"
#include "support/ServiceRunner.h"
#include "support/TestSupport.h"

using namespace testing_support;
using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

constexpr int64_t BASE_TIME = 1731676205;  // Nov 15 13:10:05 UTC

std::string expectedLine(const std::string& time, const std::string& container,
                         const std::string& event, const std::string& path,
                         const std::string& status) {
    return time + ",container_id=" + container + ",Event=" + event + ",path=" + path +
           ",status=" + status;
}

class PipelineTest : public ::testing::Test {
protected:
    void SetUp() override { QLC_SKIP_WITHOUT_PRIVATE_MOUNTS(); }

    // Starts the service with its defaults on an existing, empty input file.
    void startService(const ServiceOptions& options = ServiceOptions()) {
        writeFile(runner_.inputPath(), "");
        runner_.start(options);
        ASSERT_TRUE(runner_.waitUntilMonitoring(seconds(15))) << runner_.stderrText();
    }

    std::vector<std::string> output() const { return readLines(runner_.outputPath()); }

    ServiceRunner runner_;
};

TEST_F(PipelineTest, AppendedAccessVectorLineAppearsInTheExactFormat) {
    startService();

    appendLines(runner_.inputPath(), {avcLine(BASE_TIME, "3f2a9c", "/etc/passwd")});

    ASSERT_TRUE(runner_.waitForOutputLines(1, seconds(10)));
    EXPECT_EQ(std::vector<std::string>{"Nov 15 13:10:05,container_id=3f2a9c,Event=filectl,"
                                       "path=/etc/passwd,status=enforcing"},
              output());
    EXPECT_EQ(0, runner_.stop());
}

TEST_F(PipelineTest, EachEventKindAndStatusIsConverted) {
    startService();

    appendLines(runner_.inputPath(),
                {avcLine(BASE_TIME, "c1", "/usr/bin/python3", "execute", "detected"),
                 avcLine(BASE_TIME + 1, "c1", "/tmp/f", "unlink", "denied"),
                 netctlLine(BASE_TIME + 2, "c2", "/usr/bin/curl", "denied")});

    ASSERT_TRUE(runner_.waitForOutputLines(3, seconds(10)));
    EXPECT_EQ((std::vector<std::string>{
                  expectedLine("Nov 15 13:10:05", "c1", "exectl", "/usr/bin/python3", "permissive"),
                  expectedLine("Nov 15 13:10:06", "c1", "filectl", "/tmp/f", "enforcing"),
                  expectedLine("Nov 15 13:10:07", "c2", "netctl", "/usr/bin/curl", "enforcing")}),
              output());
    EXPECT_EQ(0, runner_.stop());
}

TEST_F(PipelineTest, ConvertedTimeFollowsTheServiceTimeZone) {
    ServiceOptions options;
    options.tz = "Asia/Tokyo";
    startService(options);

    appendLines(runner_.inputPath(), {avcLine(BASE_TIME, "3f2a9c", "/etc/passwd")});

    ASSERT_TRUE(runner_.waitForOutputLines(1, seconds(10)));
    EXPECT_EQ(expectedLine("Nov 15 22:10:05", "3f2a9c", "filectl", "/etc/passwd", "enforcing"),
              output().at(0));
    EXPECT_EQ(0, runner_.stop());
}

TEST_F(PipelineTest, OtherLinesProduceNothing) {
    startService();

    appendLines(runner_.inputPath(),
                {syscallLine(BASE_TIME), "type=PATH msg=audit(1731676205.123:4566): item=0",
                 "type=QIRN_AVC msg=audit(1731676205.1:1): avc:  denied  { write } name=/x",
                 "garbage without any structure", ""});
    // A marker event after them shows that they have all been read.
    appendLines(runner_.inputPath(), {avcLine(BASE_TIME + 9, "marker", "/m")});

    ASSERT_TRUE(runner_.waitForOutputLines(1, seconds(10)));
    EXPECT_EQ(std::vector<std::string>{expectedLine("Nov 15 13:10:14", "marker", "filectl", "/m",
                                                    "enforcing")},
              output());
    EXPECT_EQ(0, runner_.stop());
}

TEST_F(PipelineTest, RepeatedEventIsWrittenOnce) {
    startService();
    const std::string event = avcLine(BASE_TIME, "3f2a9c", "/etc/passwd");

    appendLines(runner_.inputPath(), {event, event});
    appendLines(runner_.inputPath(), {event});
    appendLines(runner_.inputPath(), {avcLine(BASE_TIME + 1, "marker", "/m")});

    ASSERT_TRUE(runner_.waitForOutputLines(2, seconds(10)));
    const auto lines = output();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ(expectedLine("Nov 15 13:10:05", "3f2a9c", "filectl", "/etc/passwd", "enforcing"),
              lines[0]);
    EXPECT_EQ(0, runner_.stop());
}

TEST_F(PipelineTest, HundredthWrittenLineLogsProgress) {
    startService();
    std::vector<std::string> events;
    for (int i = 0; i < 100; ++i) {
        events.push_back(avcLine(BASE_TIME + i, "c" + std::to_string(i), "/p"));
    }
    appendLines(runner_.inputPath(), std::vector<std::string>(events.begin(), events.begin() + 99));
    ASSERT_TRUE(runner_.waitForOutputLines(99, seconds(10)));
    EXPECT_FALSE(containsSubstring(runner_.diagMessages(), "Processed "));

    appendLines(runner_.inputPath(), {events[99]});

    ASSERT_TRUE(runner_.waitForDiag("Processed 100 lines (total: 100)", seconds(10)));
    EXPECT_TRUE(containsLine(runner_.diagMessages(), "[INFO] Processed 100 lines (total: 100)"));
    EXPECT_EQ(0, runner_.stop());
    EXPECT_TRUE(containsLine(runner_.diagMessages(), "[INFO] Total lines processed: 100"));
}

TEST_F(PipelineTest, InputRotatedByRenameIsReadFromTheStartOfTheNewFileWithoutRepeats) {
    startService();
    appendLines(runner_.inputPath(), {avcLine(BASE_TIME, "old", "/a")});
    ASSERT_TRUE(runner_.waitForOutputLines(1, seconds(10)));

    ASSERT_EQ(0,
              std::rename(runner_.inputPath().c_str(), runner_.varLog("qirn_audit.log.1").c_str()));
    ASSERT_TRUE(runner_.waitForDiag("Failed to reopen file, retrying in 1s...", seconds(10)));
    appendLines(runner_.inputPath(),
                {avcLine(BASE_TIME + 1, "new", "/b"), avcLine(BASE_TIME + 2, "new", "/c")});

    ASSERT_TRUE(runner_.waitForOutputLines(3, seconds(10)));
    ASSERT_TRUE(runner_.waitForDiag("logrotate detected (inode changed, size=", seconds(10)));
    // The first chunk of the new file is delivered twice; the second copy is a
    // duplicate and is not written.
    EXPECT_EQ((std::vector<std::string>{
                  expectedLine("Nov 15 13:10:05", "old", "filectl", "/a", "enforcing"),
                  expectedLine("Nov 15 13:10:06", "new", "filectl", "/b", "enforcing"),
                  expectedLine("Nov 15 13:10:07", "new", "filectl", "/c", "enforcing")}),
              output());
    EXPECT_EQ(0, runner_.stop());
    EXPECT_EQ(3u, output().size());
}

TEST_F(PipelineTest, InputTruncatedInPlaceIsReadAgainFromItsStart) {
    startService();
    appendLines(runner_.inputPath(), {syscallLine(BASE_TIME), syscallLine(BASE_TIME),
                                      avcLine(BASE_TIME, "before", "/a")});
    ASSERT_TRUE(runner_.waitForOutputLines(1, seconds(10)));

    // Truncate and refill in one step, shorter than before.
    writeFile(runner_.inputPath(), avcLine(BASE_TIME + 1, "after", "/b") + "\n");

    ASSERT_TRUE(runner_.waitForOutputLines(2, seconds(10)));
    EXPECT_TRUE(runner_.waitForDiag("File change detected, reopening...", seconds(5)));
    EXPECT_EQ((std::vector<std::string>{
                  expectedLine("Nov 15 13:10:05", "before", "filectl", "/a", "enforcing"),
                  expectedLine("Nov 15 13:10:06", "after", "filectl", "/b", "enforcing")}),
              output());
    EXPECT_EQ(0, runner_.stop());
    EXPECT_EQ(2u, output().size());
}

TEST_F(PipelineTest, ReplacementOf1024BytesOrMoreIsFollowedFromItsEnd) {
    startService();
    appendLines(runner_.inputPath(), {avcLine(BASE_TIME, "old", "/a")});
    ASSERT_TRUE(runner_.waitForOutputLines(1, seconds(10)));

    std::string content;
    for (int i = 0; content.size() < 2048; ++i) {
        content += avcLine(BASE_TIME + 10 + i, "skipped", "/s") + "\n";
    }
    const std::string staged = runner_.varLog("staged.log");
    writeFile(staged, content);
    ASSERT_EQ(0, std::rename(staged.c_str(), runner_.inputPath().c_str()));
    ASSERT_TRUE(runner_.waitForDiag("File inode changed (likely vim save), starting from end",
                                    seconds(10)));

    appendLines(runner_.inputPath(), {avcLine(BASE_TIME + 1, "later", "/b")});

    ASSERT_TRUE(runner_.waitForOutputLines(2, seconds(10)));
    EXPECT_EQ((std::vector<std::string>{
                  expectedLine("Nov 15 13:10:05", "old", "filectl", "/a", "enforcing"),
                  expectedLine("Nov 15 13:10:06", "later", "filectl", "/b", "enforcing")}),
              output());
    EXPECT_EQ(0, runner_.stop());
}

TEST_F(PipelineTest, OutputRotatedTruncatedAndDeletedWhileRunning) {
    startService();
    appendLines(runner_.inputPath(), {avcLine(BASE_TIME, "c", "/1")});
    ASSERT_TRUE(runner_.waitForOutputLines(1, seconds(10)));

    // Rotation by rename and a new empty file.
    const std::string rotated = runner_.varLog("zarvo_container.log.1");
    ASSERT_EQ(0, std::rename(runner_.outputPath().c_str(), rotated.c_str()));
    writeFile(runner_.outputPath(), "");
    appendLines(runner_.inputPath(), {avcLine(BASE_TIME + 1, "c", "/2")});
    ASSERT_TRUE(runner_.waitForOutputLines(1, seconds(10)));
    EXPECT_TRUE(runner_.waitForDiag("Output file rotated, reopening...", seconds(5)));
    EXPECT_EQ(std::vector<std::string>{expectedLine("Nov 15 13:10:05", "c", "filectl", "/1",
                                                    "enforcing")},
              readLines(rotated));
    EXPECT_EQ(std::vector<std::string>{expectedLine("Nov 15 13:10:06", "c", "filectl", "/2",
                                                    "enforcing")},
              output());

    // Truncation in place.
    ASSERT_EQ(0, truncate(runner_.outputPath().c_str(), 0));
    appendLines(runner_.inputPath(), {avcLine(BASE_TIME + 2, "c", "/3")});
    ASSERT_TRUE(runner_.waitForOutputLines(1, seconds(10)));
    EXPECT_TRUE(runner_.waitForDiag("Output file truncated, reopening...", seconds(5)));
    EXPECT_EQ(std::vector<std::string>{expectedLine("Nov 15 13:10:07", "c", "filectl", "/3",
                                                    "enforcing")},
              output());

    // Deletion.
    ASSERT_EQ(0, unlink(runner_.outputPath().c_str()));
    appendLines(runner_.inputPath(), {avcLine(BASE_TIME + 3, "c", "/4")});
    ASSERT_TRUE(runner_.waitForOutputLines(1, seconds(10)));
    EXPECT_EQ(std::vector<std::string>{expectedLine("Nov 15 13:10:08", "c", "filectl", "/4",
                                                    "enforcing")},
              output());

    EXPECT_EQ(0, runner_.stop());
    EXPECT_TRUE(containsLine(runner_.diagMessages(), "[INFO] Total lines processed: 4"));
}

TEST_F(PipelineTest, OutputInAMissingDirectoryIsNotAStartupFailure) {
    ServiceOptions options;
    options.args = {"/var/log/qirn_audit.log", "/var/log/missing/out.log"};
    startService(options);
    const std::string openError =
        "[ERROR] Failed to open output file: /var/log/missing/out.log - No such file or directory";
    EXPECT_EQ(1, countSubstring(runner_.diagMessages(), openError));

    appendLines(runner_.inputPath(), {avcLine(BASE_TIME, "c", "/1")});
    ASSERT_TRUE(runner_.waitForDiag("Failed to write to output file", seconds(10)));
    appendLines(runner_.inputPath(), {avcLine(BASE_TIME + 1, "c", "/2")});
    ASSERT_TRUE(runner_.waitForDiag("Failed to write to output file", seconds(10), 2));

    const auto messages = runner_.diagMessages();
    EXPECT_EQ(3, countSubstring(messages, openError));
    EXPECT_EQ(2, countSubstring(messages, "[ERROR] Failed to write to output file"));
    EXPECT_TRUE(runner_.isRunning());
    EXPECT_EQ(0, runner_.stop());
    EXPECT_TRUE(containsLine(runner_.diagMessages(), "[INFO] Total lines processed: 0"));
}

TEST_F(PipelineTest, EveryEventLostToAFullOutputDeviceIsReported) {
    ServiceOptions options;
    options.args = {"/var/log/qirn_audit.log", "/dev/full", "debug"};
    startService(options);
    const std::string writeError = "[ERROR] Failed to write to file: No space left on device";

    // Two events and a repeat of the first in one piece; the repeat is
    // suppressed, so the marker after it is the third line to fail.
    appendLines(runner_.inputPath(),
                {avcLine(BASE_TIME, "c", "/1"), avcLine(BASE_TIME + 1, "c", "/2"),
                 avcLine(BASE_TIME, "c", "/1")});
    appendLines(runner_.inputPath(), {avcLine(BASE_TIME + 2, "marker", "/m")});
    ASSERT_TRUE(runner_.waitForDiag(writeError, seconds(10), 3)) << runner_.stderrText();

    const auto messages = runner_.diagMessages();
    EXPECT_EQ(3, countSubstring(messages, writeError));
    EXPECT_EQ(3, countSubstring(messages, "[ERROR] Failed to write to output file"));
    EXPECT_EQ(0, runner_.stop());
    EXPECT_TRUE(containsLine(runner_.diagMessages(), "[INFO] Total lines processed: 0"));
}

TEST_F(PipelineTest, InputThatNeverAppearsEndsStartupWithStatusOne) {
    runner_.start();

    int exitCode = -1;
    ASSERT_TRUE(runner_.waitForExit(seconds(60), &exitCode));
    EXPECT_EQ(1, exitCode);
    const auto messages = runner_.diagMessages();
    EXPECT_TRUE(
        containsLine(messages, "[INFO] Waiting for file to appear: /var/log/qirn_audit.log"));
    EXPECT_TRUE(
        containsLine(messages, "[ERROR] File not found after waiting: /var/log/qirn_audit.log"));
    EXPECT_TRUE(containsLine(messages, "[ERROR] Failed to start monitoring"));
    EXPECT_NE(std::string::npos,
              runner_.stderrText().find("ERROR: Failed to start monitoring input file\n"));
    EXPECT_FALSE(containsSubstring(messages, "Log converter is running"));
}

TEST_F(PipelineTest, TotalAtShutdownEqualsTheLinesInTheOutputFile) {
    startService();
    std::vector<std::string> lines;
    for (int i = 0; i < 37; ++i) {
        lines.push_back(avcLine(BASE_TIME + i, "c", "/p"));
        lines.push_back(syscallLine(BASE_TIME + i));
        lines.push_back(avcLine(BASE_TIME + i, "c", "/p"));  // duplicate
    }
    appendLines(runner_.inputPath(), lines);
    ASSERT_TRUE(runner_.waitForOutputLines(37, seconds(10)));

    EXPECT_EQ(0, runner_.stop());
    EXPECT_EQ(37u, output().size());
    EXPECT_TRUE(containsLine(runner_.diagMessages(), "[INFO] Total lines processed: 37"));
    EXPECT_NE(std::string::npos,
              runner_.stdoutText().find("\nShutdown complete. Total processed lines: 37\n"));
}

TEST_F(PipelineTest, ExistingInputContentIsNotReplayedAtStart) {
    writeFile(runner_.inputPath(), avcLine(BASE_TIME, "old", "/a") + "\n");
    runner_.start();
    ASSERT_TRUE(runner_.waitUntilMonitoring(seconds(15)));

    appendLines(runner_.inputPath(), {avcLine(BASE_TIME + 1, "new", "/b")});

    ASSERT_TRUE(runner_.waitForOutputLines(1, seconds(10)));
    EXPECT_EQ(0, runner_.stop());
    EXPECT_EQ(std::vector<std::string>{expectedLine("Nov 15 13:10:06", "new", "filectl", "/b",
                                                    "enforcing")},
              output());
}

}  // namespace
