// The logger used from several threads at once: every line reaches the file
// (and, for errors, standard error) whole, never interleaved with another.

#include <gtest/gtest.h>

#include <cstdio>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "logging/Logger.h"
#include "support/TestSupport.h"

using namespace testing_support;

namespace {

constexpr int THREADS = 8;
constexpr int LINES_PER_THREAD = 500;
// Long enough that one line takes several writes if nothing serialised them.
const std::string PAYLOAD(3000, 'x');

std::string message(int thread, int index) {
    return "thread " + std::to_string(thread) + " line " + std::to_string(index) + " " + PAYLOAD +
           " end";
}

// Runs THREADS threads that each log LINES_PER_THREAD numbered lines at `level`.
void logFromThreads(Logger::Level level) {
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t) {
        threads.emplace_back([t, level] {
            for (int i = 0; i < LINES_PER_THREAD; ++i) {
                Logger::getInstance().log(level, message(t, i));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// "[YYYY-MM-DD HH:MM:SS.mmm] " followed by the rest; false when the prefix
// is not a timestamp.
bool splitTimestamp(const std::string& line, std::string& rest) {
    const std::string shape = "[dddd-dd-dd dd:dd:dd.ddd] ";
    if (line.size() < shape.size()) {
        return false;
    }
    for (size_t i = 0; i < shape.size(); ++i) {
        const bool digit = std::isdigit(static_cast<unsigned char>(line[i])) != 0;
        if (shape[i] == 'd' ? !digit : line[i] != shape[i]) {
            return false;
        }
    }
    rest = line.substr(shape.size());
    return true;
}

// Every line is one whole message in the diagnostic format, and each thread's
// lines appear complete and in the order that thread logged them.
void expectWholeLinesInThreadOrder(const std::vector<std::string>& lines,
                                   const std::string& levelText) {
    std::map<int, int> nextIndex;
    for (const std::string& line : lines) {
        std::string rest;
        ASSERT_TRUE(splitTimestamp(line, rest)) << line.substr(0, 200);
        int thread = -1;
        int index = -1;
        char level[16] = {};
        int consumed = 0;
        ASSERT_EQ(3, std::sscanf(rest.c_str(), "[%15[A-Z]] thread %d line %d %n", level, &thread,
                                 &index, &consumed))
            << line.substr(0, 200);
        EXPECT_EQ(levelText, level);
        ASSERT_EQ(message(thread, index), rest.substr(rest.find("thread "))) << line.substr(0, 200);
        EXPECT_EQ(nextIndex[thread], index) << "thread " << thread;
        nextIndex[thread] = index + 1;
    }
    ASSERT_EQ(static_cast<size_t>(THREADS), nextIndex.size());
    for (const auto& [thread, next] : nextIndex) {
        EXPECT_EQ(LINES_PER_THREAD, next) << "thread " << thread;
    }
}

std::vector<std::string> withoutHeader(std::vector<std::string> lines) {
    // init writes three lines of its own before the threads start.
    lines.erase(lines.begin(), lines.begin() + std::min<size_t>(3, lines.size()));
    return lines;
}

TEST(LoggerConcurrencyTest, LinesFromEightThreadsNeverInterleaveInTheFile) {
    TempDir dir;
    initLogger(dir.file("diag.log"), false);

    logFromThreads(Logger::INFO);

    const std::vector<std::string> lines = withoutHeader(readLines(dir.file("diag.log")));
    EXPECT_EQ(static_cast<size_t>(THREADS * LINES_PER_THREAD), lines.size());
    expectWholeLinesInThreadOrder(lines, "INFO");
}

TEST(LoggerConcurrencyTest, ErrorLinesFromEightThreadsNeverInterleaveOnStandardError) {
    TempDir dir;
    initLogger(dir.file("diag.log"), false);

    ::testing::internal::CaptureStderr();
    logFromThreads(Logger::ERROR);
    const std::string captured = ::testing::internal::GetCapturedStderr();

    const std::string echo = dir.file("stderr.txt");
    writeFile(echo, captured);
    expectWholeLinesInThreadOrder(readLines(echo), "ERROR");
    expectWholeLinesInThreadOrder(withoutHeader(readLines(dir.file("diag.log"))), "ERROR");
}

TEST(LoggerConcurrencyTest, DebugLinesFromAnotherThreadAreDroppedWhileEightThreadsLogWholeLines) {
    TempDir dir;
    initLogger(dir.file("diag.log"), false);

    std::thread debugThread([] {
        for (int i = 0; i < THREADS * LINES_PER_THREAD; ++i) {
            Logger::getInstance().log(Logger::DEBUG, "dropped");
        }
    });
    logFromThreads(Logger::WARN);
    debugThread.join();

    expectWholeLinesInThreadOrder(withoutHeader(readLines(dir.file("diag.log"))), "WARN");
}

// The DEBUG filter reads the switch without the lock while another thread
// changes it; under ThreadSanitizer this is the test that would report a race.
TEST(LoggerConcurrencyTest, DebugSwitchChangedWhileAnotherThreadLogsDebugLines) {
    constexpr int SWITCHES = 200;
    TempDir dir;
    initLogger(dir.file("diag.log"), false);

    ::testing::internal::CaptureStdout();
    std::atomic<bool> started{false};
    std::atomic<bool> stop{false};
    std::thread debugThread([&started, &stop] {
        started.store(true);
        while (!stop.load()) {
            Logger::getInstance().log(Logger::DEBUG, "traced");
        }
    });
    EXPECT_TRUE(waitUntil([&started] { return started.load(); }, std::chrono::seconds(10)));
    // On, off, on, ... while the other thread logs, ending with off.
    for (int i = 0; i < SWITCHES; ++i) {
        Logger::getInstance().setDebugMode(i % 2 == 0);
    }
    stop.store(true);
    debugThread.join();
    Logger::getInstance().log(Logger::DEBUG, "after the last switch");
    ::testing::internal::GetCapturedStdout();

    int changes = 0;
    for (const std::string& line : withoutHeader(readLines(dir.file("diag.log")))) {
        std::string rest;
        ASSERT_TRUE(splitTimestamp(line, rest)) << line;
        if (rest == "[DEBUG] traced") {
            continue;
        }
        ASSERT_TRUE(rest == "[INFO] Debug mode changed to: enabled" ||
                    rest == "[INFO] Debug mode changed to: disabled")
            << line;
        ++changes;
    }
    EXPECT_EQ(SWITCHES, changes);
    EXPECT_FALSE(containsSubstring(readLines(dir.file("diag.log")), "after the last switch"));
}

}  // namespace
