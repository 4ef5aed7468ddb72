// Reconciliation against the real service: the service misses events by
// design (it starts at the end after a restart, skips a large replacement,
// never drains a rotated file, drops the rest of a read beyond 10000 lines);
// qirn-log-convert --reconcile over the rotated and current audit logs then
// writes exactly those to the backfill log, so that every event appears
// exactly once across the event log and the backfill log.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "support/AuditLines.h"
#include "support/CommandRunner.h"
#include "support/ServiceRunner.h"
#include "support/TestSupport.h"

using namespace testing_support;
using std::chrono::seconds;

namespace {

constexpr int64_t BASE_TIME = 1731676205;
constexpr std::size_t OVER_READ_LIMIT = 12000;

class ReconcileTest : public ::testing::Test {
protected:
    void SetUp() override {
        QLC_SKIP_WITHOUT_PRIVATE_MOUNTS();
        writeFile(runner_.inputPath(), "");
        startService();
    }

    void TearDown() override { runner_.stop(); }

    // The diagnostic log survives a restart, so the n-th start waits for the
    // n-th "started" line.
    void startService() {
        runner_.start();
        ++starts_;
        ASSERT_TRUE(runner_.waitForDiag("Monitor thread started for ", seconds(15), starts_))
            << runner_.stderrText();
    }

    // `count` audit lines, each a distinct event.
    std::vector<std::string> events(std::size_t count) {
        std::vector<std::string> lines;
        for (std::size_t i = 0; i < count; ++i, ++next_) {
            lines.push_back(avcLine(BASE_TIME + static_cast<int64_t>(next_ % 3600), "c1",
                                    "/r/" + std::to_string(next_)));
        }
        return lines;
    }

    bool serviceHasWritten(std::size_t lines) {
        return waitUntil([&] { return readLines(runner_.outputPath()).size() >= lines; },
                         seconds(30));
    }

    std::string rotated() const { return runner_.inputPath() + ".1"; }
    std::string backfill() const { return runner_.varLog("zarvo_container.backfill.log"); }

    // Reconciles the audit logs against the event logs, appends what was
    // missing to the backfill log, and checks that every event the audit logs
    // hold appears exactly once across event log and backfill log. Returns
    // how many the backfill got.
    std::size_t reconcileAndCheck() {
        std::vector<std::string> audits;
        if (fileExists(rotated())) {
            audits.push_back(rotated());
        }
        audits.push_back(runner_.inputPath());
        std::vector<std::string> args{"--quiet", "--reconcile", runner_.outputPath(), "--reconcile",
                                      backfill()};
        args.insert(args.end(), audits.begin(), audits.end());
        writeFile(backfill(), "");
        const CommandResult reconciled = runConvert(args);
        EXPECT_EQ(reconciled.exitCode, 0) << reconciled.stderrText;
        appendFile(backfill(), reconciled.stdoutText);

        std::vector<std::string> truthArgs{"--quiet"};
        truthArgs.insert(truthArgs.end(), audits.begin(), audits.end());
        const std::vector<std::string> truth = splitLines(runConvert(truthArgs).stdoutText);
        EXPECT_EQ(truth.size(), next_);

        std::map<std::string, int> seen;
        for (const std::string& line : readLines(runner_.outputPath())) {
            ++seen[line];
        }
        for (const std::string& line : readLines(backfill())) {
            ++seen[line];
        }
        for (const std::string& line : truth) {
            EXPECT_EQ(seen[line], 1) << line;
        }
        EXPECT_EQ(seen.size(), truth.size());

        // Run again with the backfill in place: nothing is missing any more.
        EXPECT_EQ(runConvert(args).stdoutText, "");
        return readLines(backfill()).size();
    }

    static std::vector<std::string> splitLines(const std::string& text) {
        std::vector<std::string> lines;
        std::size_t start = 0;
        for (std::size_t end; (end = text.find('\n', start)) != std::string::npos;
             start = end + 1) {
            lines.push_back(text.substr(start, end - start));
        }
        return lines;
    }

    ServiceRunner runner_;
    std::size_t next_ = 0;
    int starts_ = 0;
};

}  // namespace

TEST_F(ReconcileTest, EventsAppendedWhileStoppedAreBackfilled) {
    appendLines(runner_.inputPath(), events(5));
    ASSERT_TRUE(serviceHasWritten(5));
    ASSERT_EQ(runner_.stop(), 0);
    appendLines(runner_.inputPath(), events(7));
    startService();
    appendLines(runner_.inputPath(), events(3));
    ASSERT_TRUE(serviceHasWritten(8));

    EXPECT_EQ(reconcileAndCheck(), 7u);
}

TEST_F(ReconcileTest, LargeReplacementAfterRenameIsBackfilled) {
    appendLines(runner_.inputPath(), events(4));
    ASSERT_TRUE(serviceHasWritten(4));
    ASSERT_TRUE(runner_.pause());
    ASSERT_EQ(std::rename(runner_.inputPath().c_str(), rotated().c_str()), 0);
    const std::vector<std::string> replacement = events(10);
    appendLines(runner_.inputPath(), replacement);
    ASSERT_GE(fileSize(runner_.inputPath()), 1024);
    runner_.resume();
    ASSERT_TRUE(runner_.waitForDiag("File inode changed (likely vim save)", seconds(10)));
    appendLines(runner_.inputPath(), events(2));
    ASSERT_TRUE(serviceHasWritten(6));

    EXPECT_EQ(reconcileAndCheck(), 10u);
}

TEST_F(ReconcileTest, LinesAppendedToTheRenamedFileAreBackfilled) {
    appendLines(runner_.inputPath(), events(3));
    ASSERT_TRUE(serviceHasWritten(3));
    ASSERT_TRUE(runner_.pause());
    ASSERT_EQ(std::rename(runner_.inputPath().c_str(), rotated().c_str()), 0);
    writeFile(runner_.inputPath(), "");
    runner_.resume();
    ASSERT_TRUE(runner_.waitForDiag("logrotate detected", seconds(10)));
    appendLines(rotated(), events(6));
    appendLines(runner_.inputPath(), events(2));
    ASSERT_TRUE(serviceHasWritten(5));

    EXPECT_EQ(reconcileAndCheck(), 6u);
}

TEST_F(ReconcileTest, LinesBeyondTenThousandInOneReadAreBackfilled) {
    ASSERT_TRUE(runner_.pause());
    appendLines(runner_.inputPath(), events(OVER_READ_LIMIT));
    runner_.resume();
    // The rest of that read is dropped; the next line is read on its own.
    ASSERT_TRUE(serviceHasWritten(10000));
    appendLines(runner_.inputPath(), events(1));
    ASSERT_TRUE(serviceHasWritten(10001));

    EXPECT_EQ(reconcileAndCheck(), OVER_READ_LIMIT - 10000);
}

// The service writes its event log under its own zone; reconciled under
// another, nothing matches although the logs cover the same hours: the
// command says so and exits 4 rather than passing every event off as
// missing. Under the service's zone nothing is missing.
TEST(ReconcileZoneTest, EventLogOfAnotherZoneIsReportedAndItsOwnZoneMatches) {
    ServiceRunner runner;
    writeFile(runner.inputPath(), "");
    ServiceOptions options;
    options.tz = "Asia/Tokyo";
    runner.start(options);
    ASSERT_TRUE(runner.waitForDiag("Monitor thread started for ", seconds(15)))
        << runner.stderrText();
    // One event a minute over twelve hours: longer than the zones are apart.
    constexpr std::size_t EVENTS = 720;
    constexpr int64_t MINUTE = 60;
    std::vector<std::string> lines;
    for (std::size_t i = 0; i < EVENTS; ++i) {
        lines.push_back(
            avcLine(BASE_TIME + static_cast<int64_t>(i) * MINUTE, "c1", "/z/" + std::to_string(i)));
    }
    appendLines(runner.inputPath(), lines);
    ASSERT_TRUE(
        waitUntil([&] { return readLines(runner.outputPath()).size() >= EVENTS; }, seconds(30)));
    runner.stop();

    const std::vector<std::string> args{"--quiet", "--reconcile", runner.outputPath(),
                                        runner.inputPath()};
    const CommandResult elsewhere = runConvert(args);
    EXPECT_EQ(elsewhere.exitCode, 4);
    EXPECT_NE(elsewhere.stderrText.find("none of the 720 events matched an event log line"),
              std::string::npos)
        << elsewhere.stderrText;
    const CommandResult here = runConvert(args, "", {{"TZ", "Asia/Tokyo"}});
    EXPECT_EQ(here.exitCode, 0) << here.stderrText;
    EXPECT_EQ(here.stdoutText, "");
    EXPECT_EQ(here.stderrText, "");
}
