// The diagnostic logger on real files in a temporary directory; cases that
// must create files at the root of the file system run in a private root.

#include "logging/Logger.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <regex>
#include <string>
#include <vector>

#include "support/ScopedTimeZone.h"
#include "support/ServiceRunner.h"
#include "support/TestSupport.h"

using namespace testing_support;
using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

namespace {

// "[YYYY-MM-DD HH:MM:SS.mmm]" as a regular expression, for lines whose
// timestamp is the current time.
const std::string TIMESTAMP = R"(\[\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3}\])";

bool matches(const std::string& text, const std::string& pattern) {
    return std::regex_match(text, std::regex(pattern));
}

// Replaces mkdir on the PATH of a private root by a script that records its
// arguments before running the real one, so that the shell command the logger
// composes can be seen. Only for use inside runInPrivateRoot.
void recordMkdirCalls() {
    mkdir("/qlc-shim", 0755);
    writeFile("/qlc-shim/mkdir",
              "#!/bin/sh\n"
              "printf '[%s]' \"$@\" >> /qlc-mkdir-calls\n"
              "echo >> /qlc-mkdir-calls\n"
              "exec /usr/bin/mkdir \"$@\"\n");
    chmod("/qlc-shim/mkdir", 0755);
    setenv("PATH", "/qlc-shim:/usr/sbin:/usr/bin:/sbin:/bin", 1);
}

std::string recordedMkdirCalls() {
    return fileExists("/qlc-mkdir-calls") ? readFile("/qlc-mkdir-calls") : "none\n";
}

class LoggerTest : public ::testing::Test {
protected:
    // The logger is one object per process: each test starts and ends with it
    // closed and its DEBUG filter shut, as a fresh process would have it. On a
    // closed logger setDebugMode prints nothing.
    void SetUp() override { resetLogger(); }
    void TearDown() override { resetLogger(); }

    static void resetLogger() {
        Logger::getInstance().closeFile();
        Logger::getInstance().setDebugMode(false);
    }

    std::string logPath() const { return dir_.file("diag.log"); }

    // Initialises the logger on logPath(), keeping its console lines out of
    // the test's own captures.
    void initQuietly(bool debug) {
        CaptureStdout();
        CaptureStderr();
        Logger::getInstance().init(logPath(), debug);
        GetCapturedStdout();
        GetCapturedStderr();
    }

    std::vector<std::string> logLines() const { return readLines(logPath()); }

    TempDir dir_;
    // Tests that set a zone of their own get the previous one back.
    ScopedTimeZone zone_{"UTC"};
};

TEST_F(LoggerTest, DebugLineWithDebugOffGoesNowhere) {
    initQuietly(false);
    const auto before = logLines();

    CaptureStdout();
    CaptureStderr();
    Logger::getInstance().log(Logger::DEBUG, "parsing decision");
    const std::string out = GetCapturedStdout();
    const std::string err = GetCapturedStderr();

    EXPECT_EQ(before, logLines());
    EXPECT_EQ("", out);
    EXPECT_EQ("", err);
}

TEST_F(LoggerTest, DebugLineWithDebugOnGoesToTheFileOnly) {
    initQuietly(true);

    CaptureStdout();
    CaptureStderr();
    Logger::getInstance().log(Logger::DEBUG, "parsing decision");
    const std::string out = GetCapturedStdout();
    const std::string err = GetCapturedStderr();

    const auto lines = logLines();
    ASSERT_EQ(4u, lines.size());
    EXPECT_TRUE(matches(lines[3], TIMESTAMP + R"( \[DEBUG\] parsing decision)")) << lines[3];
    EXPECT_EQ("", out);
    EXPECT_EQ("", err);
}

TEST_F(LoggerTest, InfoAndWarnLinesAfterInitGoToTheFileOnly) {
    initQuietly(false);

    CaptureStdout();
    CaptureStderr();
    Logger::getInstance().log(Logger::INFO, "all is well");
    Logger::getInstance().log(Logger::WARN, "something odd");
    const std::string out = GetCapturedStdout();
    const std::string err = GetCapturedStderr();

    const auto lines = logLines();
    ASSERT_EQ(5u, lines.size());
    EXPECT_TRUE(matches(lines[3], TIMESTAMP + R"( \[INFO\] all is well)")) << lines[3];
    EXPECT_TRUE(matches(lines[4], TIMESTAMP + R"( \[WARN\] something odd)")) << lines[4];
    EXPECT_EQ("", out);
    EXPECT_EQ("", err);
}

TEST_F(LoggerTest, ErrorLineIsIdenticalInTheFileAndOnStandardError) {
    initQuietly(false);

    CaptureStderr();
    Logger::getInstance().log(Logger::ERROR, "disk on fire");
    const std::string err = GetCapturedStderr();

    const auto lines = logLines();
    ASSERT_EQ(4u, lines.size());
    EXPECT_TRUE(matches(lines[3], TIMESTAMP + R"( \[ERROR\] disk on fire)")) << lines[3];
    EXPECT_EQ(lines[3] + "\n", err);
}

TEST_F(LoggerTest, InfoLineBeforeInitGoesToStandardErrorWithoutTimestamp) {
    CaptureStdout();
    CaptureStderr();
    Logger::getInstance().log(Logger::INFO, "too early");
    const std::string out = GetCapturedStdout();
    const std::string err = GetCapturedStderr();

    EXPECT_EQ("[INFO] too early\n", err);
    EXPECT_EQ("", out);
}

TEST_F(LoggerTest, LevelOutsideZeroToThreeIsWrittenAsUnknown) {
    initQuietly(false);

    Logger::getInstance().log(static_cast<Logger::Level>(7), "strange level");

    const auto lines = logLines();
    ASSERT_EQ(4u, lines.size());
    EXPECT_TRUE(matches(lines[3], TIMESTAMP + R"( \[UNKNOWN\] strange level)")) << lines[3];
}

TEST_F(LoggerTest, LevelTextsAreDebugInfoWarnErrorAndUnknown) {
    EXPECT_EQ("DEBUG", Logger::levelToString(Logger::DEBUG));
    EXPECT_EQ("INFO", Logger::levelToString(Logger::INFO));
    EXPECT_EQ("WARN", Logger::levelToString(Logger::WARN));
    EXPECT_EQ("ERROR", Logger::levelToString(Logger::ERROR));
    EXPECT_EQ("UNKNOWN", Logger::levelToString(static_cast<Logger::Level>(-1)));
    EXPECT_EQ("UNKNOWN", Logger::levelToString(static_cast<Logger::Level>(4)));
}

TEST_F(LoggerTest, TimestampHasZeroPaddedThreeDigitMilliseconds) {
    // 2026-03-01 08:05:09.042 UTC.
    EXPECT_EQ("2026-03-01 08:05:09.042", Logger::formatTimestamp(1772352309042000000LL));
}

TEST_F(LoggerTest, TimestampIsLocalTime) {
    // Three hours east of UTC, written so that no time zone database is needed.
    const ScopedTimeZone east("QST-3");

    // 2026-03-01 05:05:09.042 UTC is 08:05:09.042 in that zone.
    EXPECT_EQ("2026-03-01 08:05:09.042", Logger::formatTimestamp(1772341509042000000LL));
}

TEST_F(LoggerTest, TimestampMillisecondsAreTruncatedNotRounded) {
    EXPECT_EQ("2026-03-01 08:05:09.042", Logger::formatTimestamp(1772352309042999999LL));
}

TEST_F(LoggerTest, CurrentTimestampHasTheLineFormat) {
    EXPECT_TRUE(matches("[" + Logger::getCurrentTimestamp() + "]", TIMESTAMP));
}

TEST_F(LoggerTest, InitWritesTheThreeHeaderLinesWithOneTimestamp) {
    initQuietly(false);

    const auto lines = logLines();
    ASSERT_EQ(3u, lines.size());
    const std::string stamp = lines[0].substr(0, 25);
    EXPECT_TRUE(matches(stamp, TIMESTAMP)) << stamp;
    EXPECT_EQ(stamp + " [INFO] Logger initialized", lines[0]);
    EXPECT_EQ(stamp + " [INFO] Log file: " + logPath(), lines[1]);
    EXPECT_EQ(stamp + " [INFO] Debug mode: disabled", lines[2]);
}

TEST_F(LoggerTest, InitWithDebugWritesDebugModeEnabledInTheHeader) {
    initQuietly(true);

    const auto messages = stripTimestamps(logLines());
    EXPECT_EQ(
        (std::vector<std::string>{"[INFO] Logger initialized", "[INFO] Log file: " + logPath(),
                                  "[INFO] Debug mode: enabled"}),
        messages);
}

TEST_F(LoggerTest, InitPrintsOpenedAndLoggerInitializedWithTheHeaderTimestamp) {
    CaptureStdout();
    CaptureStderr();
    Logger::getInstance().init(logPath(), false);
    const std::string out = GetCapturedStdout();
    const std::string err = GetCapturedStderr();

    const std::string stamp = logLines().at(0).substr(0, 25);
    EXPECT_EQ("SUCCESS: Opened existing log file: " + logPath() + "\n" + stamp +
                  " [INFO] Logger initialized\n",
              out);
    EXPECT_EQ("", err);
}

TEST_F(LoggerTest, InitAppendsToAnExistingFile) {
    writeFile(logPath(), "earlier line\n");

    initQuietly(false);

    const auto lines = logLines();
    ASSERT_EQ(4u, lines.size());
    EXPECT_EQ("earlier line", lines[0]);
    EXPECT_EQ("[INFO] Logger initialized", stripTimestamps(lines)[1]);
}

TEST_F(LoggerTest, InitInAMissingDirectoryCreatesItAndReportsOpenedExisting) {
    const std::string path = dir_.file("missing/deeper/diag.log");

    CaptureStdout();
    CaptureStderr();
    Logger::getInstance().init(path, false);
    const std::string out = GetCapturedStdout();
    GetCapturedStderr();

    struct stat info {};
    ASSERT_EQ(0, stat(dir_.file("missing/deeper").c_str(), &info));
    EXPECT_TRUE(S_ISDIR(info.st_mode));
    EXPECT_TRUE(matches(out, "SUCCESS: Opened existing log file: " + path + "\n" + TIMESTAMP +
                                 " \\[INFO\\] Logger initialized\n"))
        << out;
    EXPECT_EQ(3u, readLines(path).size());
}

TEST_F(LoggerTest, InitOnAPathWithoutSlashRunsNoMkdir) {
    QLC_SKIP_WITHOUT_PRIVATE_MOUNTS();
    const PrivateRootResult result = runInPrivateRoot([] {
        recordMkdirCalls();
        mkdir("/qlc-work", 0755);
        if (chdir("/qlc-work") != 0) return 2;
        Logger::getInstance().init("diag.log", false);
        std::cout << "mkdir calls: " << recordedMkdirCalls();
        return readLines("/qlc-work/diag.log").size() == 3 ? 0 : 3;
    });

    EXPECT_EQ(0, result.exitCode) << result.stderrText;
    EXPECT_TRUE(matches(result.stdoutText, "SUCCESS: Opened existing log file: diag.log\n" +
                                               TIMESTAMP +
                                               " \\[INFO\\] Logger initialized\n"
                                               "mkdir calls: none\n"))
        << result.stdoutText;
}

TEST_F(LoggerTest, InitOnAPathWhoseOnlySlashIsFirstRunsMkdirWithNoDirectory) {
    QLC_SKIP_WITHOUT_PRIVATE_MOUNTS();
    const PrivateRootResult result = runInPrivateRoot([] {
        recordMkdirCalls();
        Logger::getInstance().init("/qlc-diag.log", false);
        std::cout << "mkdir calls: " << recordedMkdirCalls();
        return readLines("/qlc-diag.log").size() == 3 ? 0 : 3;
    });

    // The empty directory name fails stat, so "mkdir -p " runs with no operand;
    // its complaint is harmless and the file opens all the same.
    EXPECT_EQ(0, result.exitCode) << result.stderrText;
    EXPECT_TRUE(matches(result.stdoutText, "SUCCESS: Opened existing log file: /qlc-diag.log\n" +
                                               TIMESTAMP +
                                               " \\[INFO\\] Logger initialized\n"
                                               "mkdir calls: \\[-p\\]\n"))
        << result.stdoutText;
}

TEST_F(LoggerTest, InitOnADirectoryPathReportsTheOpenErrorOnStandardError) {
    const std::string path = dir_.path();

    CaptureStdout();
    CaptureStderr();
    Logger::getInstance().init(path, false);
    const std::string out = GetCapturedStdout();
    const std::string err = GetCapturedStderr();

    EXPECT_EQ("ERROR: Cannot open log file: " + path + " (errno: 21 - Is a directory)\n", err);
    EXPECT_TRUE(matches(out, TIMESTAMP + " \\[INFO\\] Logger initialized\n")) << out;
}

TEST_F(LoggerTest, InitUnderAReadOnlyLocationReportsTheOpenErrorOnStandardError) {
    QLC_SKIP_WITHOUT_PRIVATE_MOUNTS();
    const PrivateRootResult result = runInPrivateRoot([] {
        mkdir("/qlc-ro", 0755);
        if (mount("tmpfs", "/qlc-ro", "tmpfs", MS_RDONLY, "mode=0755") != 0) return 2;
        Logger::getInstance().init("/qlc-ro/diag.log", false);
        return fileExists("/qlc-ro/diag.log") ? 3 : 0;
    });

    EXPECT_EQ(0, result.exitCode);
    EXPECT_EQ("ERROR: Cannot open log file: /qlc-ro/diag.log (errno: 30 - Read-only file system)\n",
              result.stderrText);
    // The touch attempt's own complaint comes first, on standard output.
    EXPECT_TRUE(matches(result.stdoutText, "touch: [^\n]*/qlc-ro/diag.log[^\n]*\n" + TIMESTAMP +
                                               " \\[INFO\\] Logger initialized\n"))
        << result.stdoutText;
}

TEST_F(LoggerTest, LinesAfterAFailedOpenGoToStandardErrorWithClosedFileSuffix) {
    CaptureStdout();
    CaptureStderr();
    Logger::getInstance().init(dir_.path(), false);
    GetCapturedStdout();
    GetCapturedStderr();

    CaptureStdout();
    CaptureStderr();
    Logger::getInstance().log(Logger::INFO, "nowhere to go");
    Logger::getInstance().log(Logger::ERROR, "still nowhere");
    const std::string out = GetCapturedStdout();
    const std::string err = GetCapturedStderr();

    EXPECT_TRUE(matches(err, TIMESTAMP + " \\[INFO\\] nowhere to go \\[LOG_FILE_CLOSED\\]\n" +
                                 TIMESTAMP + " \\[ERROR\\] still nowhere \\[LOG_FILE_CLOSED\\]\n"))
        << err;
    EXPECT_EQ("", out);
}

TEST_F(LoggerTest, LinesUnderAReadOnlyLocationGoToStandardErrorWithClosedFileSuffix) {
    QLC_SKIP_WITHOUT_PRIVATE_MOUNTS();
    const PrivateRootResult result = runInPrivateRoot([] {
        mkdir("/qlc-ro", 0755);
        if (mount("tmpfs", "/qlc-ro", "tmpfs", MS_RDONLY, "mode=0755") != 0) return 2;
        Logger::getInstance().init("/qlc-ro/diag.log", false);
        std::fflush(nullptr);
        // Only what follows init is of interest here.
        std::cerr << "--- after init\n";
        Logger::getInstance().log(Logger::WARN, "read-only");
        return 0;
    });

    const auto cut = result.stderrText.find("--- after init\n");
    ASSERT_NE(std::string::npos, cut) << result.stderrText;
    const std::string after = result.stderrText.substr(cut + 15);
    EXPECT_TRUE(matches(after, TIMESTAMP + " \\[WARN\\] read-only \\[LOG_FILE_CLOSED\\]\n"))
        << after;
}

TEST_F(LoggerTest, AfterCloseFileLinesGoToStandardErrorWithoutTimestamp) {
    initQuietly(false);
    Logger::getInstance().closeFile();

    CaptureStdout();
    CaptureStderr();
    Logger::getInstance().log(Logger::INFO, "after close");
    Logger::getInstance().log(Logger::ERROR, "error after close");
    const std::string out = GetCapturedStdout();
    const std::string err = GetCapturedStderr();

    EXPECT_EQ("[INFO] after close\n[ERROR] error after close\n", err);
    EXPECT_EQ("", out);
    EXPECT_EQ(3u, logLines().size());
}

TEST_F(LoggerTest, SetDebugModeLogsAndPrintsTheChangeAndLetsDebugLinesThrough) {
    initQuietly(false);

    CaptureStdout();
    Logger::getInstance().setDebugMode(true);
    const std::string out = GetCapturedStdout();
    Logger::getInstance().log(Logger::DEBUG, "now visible");

    const auto lines = logLines();
    ASSERT_EQ(5u, lines.size());
    EXPECT_TRUE(matches(lines[3], TIMESTAMP + R"( \[INFO\] Debug mode changed to: enabled)"))
        << lines[3];
    EXPECT_EQ(lines[3] + "\n", out);
    EXPECT_TRUE(matches(lines[4], TIMESTAMP + R"( \[DEBUG\] now visible)")) << lines[4];
}

TEST_F(LoggerTest, SetDebugModeBeforeInitPrintsNothing) {
    CaptureStdout();
    CaptureStderr();
    Logger::getInstance().setDebugMode(true);
    const std::string out = GetCapturedStdout();
    const std::string err = GetCapturedStderr();

    EXPECT_EQ("", out);
    EXPECT_EQ("", err);
}

}  // namespace

namespace {

struct CapturedLine {
    Logger::Level level;
    std::string message;
};

void captureInto(void* context, Logger::Level level, const std::string& message) {
    static_cast<std::vector<CapturedLine>*>(context)->push_back({level, message});
}

}  // namespace

TEST(LoggerCaptureTest, CaptureReceivesLinesWithoutInitAndPrintsNothing) {
    Logger& logger = Logger::getInstance();
    logger.closeFile();
    std::vector<CapturedLine> lines;
    logger.setCapture(&captureInto, &lines);
    CaptureStdout();
    CaptureStderr();
    logger.log(Logger::INFO, "hello");
    logger.log(Logger::ERROR, "boom");
    const std::string out = GetCapturedStdout();
    const std::string err = GetCapturedStderr();
    logger.setCapture(nullptr, nullptr);

    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "");
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].level, Logger::INFO);
    EXPECT_EQ(lines[0].message, "hello");
    EXPECT_EQ(lines[1].level, Logger::ERROR);
    EXPECT_EQ(lines[1].message, "boom");
}

TEST(LoggerCaptureTest, CaptureKeepsTheDebugFilter) {
    Logger& logger = Logger::getInstance();
    logger.closeFile();
    std::vector<CapturedLine> lines;
    logger.setCapture(&captureInto, &lines);
    logger.setDebugMode(false);
    logger.log(Logger::DEBUG, "hidden");
    logger.setDebugMode(true);
    logger.log(Logger::DEBUG, "shown");
    logger.setDebugMode(false);
    logger.setCapture(nullptr, nullptr);

    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].message, "shown");
}

TEST(LoggerCaptureTest, ClearedCaptureRestoresNormalRouting) {
    Logger& logger = Logger::getInstance();
    logger.closeFile();
    std::vector<CapturedLine> lines;
    logger.setCapture(&captureInto, &lines);
    logger.setCapture(nullptr, nullptr);
    CaptureStderr();
    logger.log(Logger::INFO, "after");
    EXPECT_EQ(GetCapturedStderr(), "[INFO] after\n");
    EXPECT_TRUE(lines.empty());
}
