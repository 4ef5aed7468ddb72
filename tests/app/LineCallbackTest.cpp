#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <memory>
#include <string>

#include "app/Globals.h"
#include "app/Pipeline.h"
#include "converter/LogConverter.h"
#include "support/AuditLines.h"
#include "support/ScopedTimeZone.h"
#include "support/TestSupport.h"
#include "writer/LogWriter.h"

using namespace testing_support;

namespace {

constexpr int64_t BASE_TIME = 1731676205;

class LineCallbackTest : public ::testing::Test {
protected:
    // The duplicate cache and both counters are process-wide: each test starts
    // with an empty cache and processedCount at 0. The callback's own counter
    // has no reset; tests that depend on it first bring it to a multiple of 100.
    void SetUp() override {
        ASSERT_TRUE(emptyDuplicateCache(dir_.file("drain.log")));
        initLogger(dir_.file("diag.log"), false);
        LogConverter::setDebugMode(false);
        processedCount.store(0);
    }

    std::vector<std::string> messages() const {
        return stripTimestamps(readLines(dir_.file("diag.log")));
    }

    // Writes fresh events through a callback of its own until the callback's
    // counter reports progress, so that it stands at a multiple of 100, and
    // returns that multiple. Leaves processedCount at 0 and the cache empty.
    int alignOutputCount() {
        const std::string logPath = dir_.file("align.log");
        initLogger(logPath, false);
        WriterHolder holder = std::make_unique<LogWriter>(dir_.file("align.out"));
        auto callback = makeLineCallback(LogConverter::getInstance(), holder);
        int reported = -1;
        for (int i = 0; i < 100 && reported < 0; ++i) {
            callback(avcLine(BASE_TIME, "align", "/align" + std::to_string(i)));
            for (const std::string& line : stripTimestamps(readLines(logPath))) {
                if (std::sscanf(line.c_str(), "[INFO] Processed %d lines", &reported) != 1) {
                    reported = -1;
                } else {
                    break;
                }
            }
        }
        holder.reset();
        EXPECT_TRUE(emptyDuplicateCache(dir_.file("drain.log")));
        initLogger(dir_.file("diag.log"), false);
        processedCount.store(0);
        return reported;
    }

    TempDir dir_;
    ScopedTimeZone utc_{"UTC"};
};

TEST_F(LineCallbackTest, MatchingLineIsConvertedWrittenAndCounted) {
    WriterHolder holder = std::make_unique<LogWriter>(dir_.file("out.log"));
    auto callback = makeLineCallback(LogConverter::getInstance(), holder);

    callback(avcLine(BASE_TIME, "3f2a9c", "/etc/passwd"));

    EXPECT_EQ(std::vector<std::string>{"Nov 15 13:10:05,container_id=3f2a9c,Event=filectl,"
                                       "path=/etc/passwd,status=enforcing"},
              readLines(dir_.file("out.log")));
    EXPECT_EQ(1, processedCount.load());
}

TEST_F(LineCallbackTest, NonMatchingLineWritesLogsAndCountsNothing) {
    WriterHolder holder = std::make_unique<LogWriter>(dir_.file("out.log"));
    auto callback = makeLineCallback(LogConverter::getInstance(), holder);
    const auto before = messages();

    callback(syscallLine(BASE_TIME));

    EXPECT_EQ("", readFile(dir_.file("out.log")));
    EXPECT_EQ(0, processedCount.load());
    EXPECT_EQ(before, messages());
}

TEST_F(LineCallbackTest, SameEventTwiceIsWrittenAndCountedOnce) {
    WriterHolder holder = std::make_unique<LogWriter>(dir_.file("out.log"));
    auto callback = makeLineCallback(LogConverter::getInstance(), holder);
    const std::string event = avcLine(BASE_TIME, "3f2a9c", "/etc/passwd");

    callback(event);
    callback(event);

    EXPECT_EQ(1u, readLines(dir_.file("out.log")).size());
    EXPECT_EQ(1, processedCount.load());
}

TEST_F(LineCallbackTest, EveryHundredthWrittenLineLogsProgress) {
    const int base = alignOutputCount();
    ASSERT_LE(0, base);
    WriterHolder holder = std::make_unique<LogWriter>(dir_.file("out.log"));
    auto callback = makeLineCallback(LogConverter::getInstance(), holder);

    for (int i = 0; i < 99; ++i) {
        callback(avcLine(BASE_TIME + i, "c", "/p"));
    }
    EXPECT_EQ(0, countSubstring(messages(), "Processed "));

    callback(avcLine(BASE_TIME + 99, "c", "/p"));
    EXPECT_EQ(1, countSubstring(messages(), "Processed "));
    EXPECT_TRUE(containsLine(
        messages(), "[INFO] Processed " + std::to_string(base + 100) + " lines (total: 100)"));

    callback(avcLine(BASE_TIME + 100, "c", "/p"));
    EXPECT_EQ(1, countSubstring(messages(), "Processed "));
    EXPECT_EQ(101, processedCount.load());
}

TEST_F(LineCallbackTest, FailedWriteIsReportedAndNotCounted) {
    const int base = alignOutputCount();
    ASSERT_LE(0, base);
    const std::string directory = dir_.file("later");
    WriterHolder holder = std::make_unique<LogWriter>(directory + "/out.log");
    auto callback = makeLineCallback(LogConverter::getInstance(), holder);

    callback(avcLine(BASE_TIME, "c", "/lost"));

    EXPECT_EQ(1, countSubstring(messages(), "[ERROR] Failed to write to output file"));
    EXPECT_EQ(0, processedCount.load());

    ASSERT_EQ(0, mkdir(directory.c_str(), 0755));
    for (int i = 1; i <= 100; ++i) {
        callback(avcLine(BASE_TIME + i, "c", "/kept"));
    }

    // The failed line never happened as far as either counter is concerned.
    EXPECT_EQ(100, processedCount.load());
    EXPECT_TRUE(containsLine(
        messages(), "[INFO] Processed " + std::to_string(base + 100) + " lines (total: 100)"));
    EXPECT_EQ(100u, readLines(directory + "/out.log").size());
}

TEST_F(LineCallbackTest, EveryEventLostToAFullDeviceIsReportedAndNoneCounted) {
    WriterHolder holder = std::make_unique<LogWriter>("/dev/full");
    auto callback = makeLineCallback(LogConverter::getInstance(), holder);

    callback(avcLine(BASE_TIME, "c", "/first"));
    callback(avcLine(BASE_TIME + 1, "c", "/second"));
    callback(avcLine(BASE_TIME + 2, "c", "/third"));

    EXPECT_EQ(
        3, countSubstring(messages(), "[ERROR] Failed to write to file: No space left on device"));
    EXPECT_EQ(3, countSubstring(messages(), "[ERROR] Failed to write to output file"));
    EXPECT_EQ(0, processedCount.load());
}

TEST_F(LineCallbackTest, CallbackReachesWhicheverWriterTheHolderOwns) {
    WriterHolder holder = std::make_unique<LogWriter>(dir_.file("first.log"));
    auto callback = makeLineCallback(LogConverter::getInstance(), holder);
    callback(avcLine(BASE_TIME, "c", "/1"));

    holder = std::make_unique<LogWriter>(dir_.file("second.log"));
    callback(avcLine(BASE_TIME + 1, "c", "/2"));

    EXPECT_EQ(1u, readLines(dir_.file("first.log")).size());
    EXPECT_EQ(1u, readLines(dir_.file("second.log")).size());
}

TEST_F(LineCallbackTest, LineArrivingAfterTheWriterWasReleasedIsDropped) {
    WriterHolder holder = std::make_unique<LogWriter>(dir_.file("out.log"));
    auto callback = makeLineCallback(LogConverter::getInstance(), holder);
    holder.reset();

    callback(avcLine(BASE_TIME, "c", "/late"));

    EXPECT_EQ(0, processedCount.load());
    EXPECT_EQ("", readFile(dir_.file("out.log")));
    EXPECT_FALSE(containsSubstring(messages(), "Failed to write to output file"));
}

}  // namespace
