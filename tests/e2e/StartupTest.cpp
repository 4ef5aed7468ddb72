// Start-up, status loop and shutdown of the real binary in a private mount
// namespace: console texts, diagnostic log lines and exit status.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <ostream>
#include <regex>
#include <string>
#include <vector>

#include "support/ServiceRunner.h"
#include "support/TestSupport.h"

using namespace testing_support;
using std::chrono::seconds;

namespace {

const char* const TIMESTAMP_PATTERN = R"(\[\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3}\])";
const char* const SCOPE_LINE = "Processing QIRN_AVC and QIRN_NETCTL logs with container_id field\n";

// Replaces every "[YYYY-MM-DD HH:MM:SS.mmm]" by "[TIMESTAMP]" so that console
// texts can be compared whole.
std::string maskTimestamps(const std::string& text) {
    return std::regex_replace(text, std::regex(TIMESTAMP_PATTERN), "[TIMESTAMP]");
}

std::string firstLines(const std::string& text, std::size_t count) {
    std::size_t end = 0;
    for (std::size_t i = 0; i < count; ++i) {
        end = text.find('\n', end);
        if (end == std::string::npos) {
            return text;
        }
        ++end;
    }
    return text.substr(0, end);
}

// What the console shows after the start-up block.
std::string textAfter(const std::string& text, const std::string& marker) {
    const std::size_t at = text.find(marker);
    return at == std::string::npos ? "<marker not found>" : text.substr(at + marker.size());
}

// Index of the first (or last) line equal to `line`; -1 when there is none.
long indexOf(const std::vector<std::string>& lines, const std::string& line) {
    const auto it = std::find(lines.begin(), lines.end(), line);
    return it == lines.end() ? -1 : static_cast<long>(it - lines.begin());
}

long lastIndexOf(const std::vector<std::string>& lines, const std::string& line) {
    const auto it = std::find(lines.rbegin(), lines.rend(), line);
    return it == lines.rend() ? -1 : static_cast<long>(lines.rend() - it) - 1;
}

long countLine(const std::vector<std::string>& lines, const std::string& line) {
    return std::count(lines.begin(), lines.end(), line);
}

class StartupTest : public ::testing::Test {
protected:
    void SetUp() override { QLC_SKIP_WITHOUT_PRIVATE_MOUNTS(); }

    // Starts the service on an existing, empty input file, so that it
    // follows it at once, and waits until it reports that it is running.
    void startService(const ServiceOptions& options = ServiceOptions()) {
        writeFile(runner_.inputPath(), "");
        runner_.start(options);
        ASSERT_TRUE(runner_.waitForStdout(SCOPE_LINE, seconds(15)))
            << runner_.stdoutText() << runner_.stderrText();
    }

    // Starts the service expecting a start-up failure and returns its status.
    int startAndWaitForFailure(const ServiceOptions& options) {
        runner_.start(options);
        int code = -1;
        EXPECT_TRUE(runner_.waitForExit(seconds(15), &code));
        return code;
    }

    std::string consoleConfigBlock() const { return firstLines(runner_.stdoutText(), 6); }

    ServiceRunner runner_;
};

TEST_F(StartupTest, NoConfigurationAndNoArgumentsPrintTheDefaultConsoleBlock) {
    startService();

    EXPECT_EQ(
        "Starting QIRN Log Converter...\n"
        "Using default configuration\n"
        "Config:\n"
        "  Input:  /var/log/qirn_audit.log\n"
        "  Output: /var/log/zarvo_container.log\n"
        "  Debug:  no\n"
        "SUCCESS: Opened existing log file: /var/log/qirn-log-converter.log\n"
        "[TIMESTAMP] [INFO] Logger initialized\n"
        "Logger initialized successfully\n"
        "Log converter is running. Press Ctrl+C to stop.\n"
        "Processing QIRN_AVC and QIRN_NETCTL logs with container_id field\n",
        maskTimestamps(runner_.stdoutText()));
    EXPECT_EQ("", runner_.stderrText());
    EXPECT_EQ(0, runner_.stop());
}

// One way of settling the configuration and the console block it must print.
struct ConsoleCase {
    const char* name;
    const char* config;  // the configuration file's text; nullptr: no file
    std::vector<std::string> args;
    // An input file under /var/log to create, so that the service follows it
    // at once; nullptr: the default input.
    const char* input;
    const char* consoleBlock;  // the first six console lines
    std::vector<std::string> logged;
    std::vector<std::string> notLogged;
};

// Names the case in gtest's messages instead of dumping its bytes.
void PrintTo(const ConsoleCase& example, std::ostream* out) { *out << example.name; }

const ConsoleCase CONSOLE_CASES[] = {
    {"ConfigurationFileSettingAllThreeKeysIsLoadedAndApplied",
     "input_log=/var/log/custom_audit.log\n"
     "output_log=/var/log/custom_events.log\n"
     "debug=true\n",
     {},
     "custom_audit.log",
     "Starting QIRN Log Converter...\n"
     "Loaded configuration from /etc/qirn/qirn-log-converter.conf\n"
     "Config:\n"
     "  Input:  /var/log/custom_audit.log\n"
     "  Output: /var/log/custom_events.log\n"
     "  Debug:  yes\n",
     {"[INFO] Input: /var/log/custom_audit.log", "[INFO] Output: /var/log/custom_events.log",
      "[INFO] Debug mode: enabled", "[INFO] Monitor thread started for /var/log/custom_audit.log"},
     {}},
    {"EmptyConfigurationFileIsReportedAsLoaded",
     "",
     {},
     nullptr,
     "Starting QIRN Log Converter...\n"
     "Loaded configuration from /etc/qirn/qirn-log-converter.conf\n"
     "Config:\n"
     "  Input:  /var/log/qirn_audit.log\n"
     "  Output: /var/log/zarvo_container.log\n"
     "  Debug:  no\n",
     {},
     {}},
    {"OneArgumentChangesOnlyTheInputPathKeepingTheConfiguredOutput",
     "output_log=/var/log/configured_events.log\n",
     {"/var/log/argument_audit.log"},
     "argument_audit.log",
     "Starting QIRN Log Converter...\n"
     "Loaded configuration from /etc/qirn/qirn-log-converter.conf\n"
     "Config:\n"
     "  Input:  /var/log/argument_audit.log\n"
     "  Output: /var/log/configured_events.log\n"
     "  Debug:  no\n",
     {},
     {}},
    {"OneArgumentChangesOnlyTheInputPathKeepingTheDefaultOutput",
     nullptr,
     {"/var/log/argument_audit.log"},
     "argument_audit.log",
     "Starting QIRN Log Converter...\n"
     "Using default configuration\n"
     "Config:\n"
     "  Input:  /var/log/argument_audit.log\n"
     "  Output: /var/log/zarvo_container.log\n"
     "  Debug:  no\n",
     {},
     {}},
    {"TwoArgumentsSetInputAndOutputAndKeepTheConfiguredDebug",
     "input_log=/var/log/configured_audit.log\n"
     "output_log=/var/log/configured_events.log\n"
     "debug=true\n",
     {"/var/log/argument_audit.log", "/var/log/argument_events.log"},
     "argument_audit.log",
     "Starting QIRN Log Converter...\n"
     "Loaded configuration from /etc/qirn/qirn-log-converter.conf\n"
     "Config:\n"
     "  Input:  /var/log/argument_audit.log\n"
     "  Output: /var/log/argument_events.log\n"
     "  Debug:  yes\n",
     {},
     {}},
    {"ThirdArgumentDebugSwitchesDebugOnAgainstTheFile",
     "debug=no\n",
     {"/var/log/qirn_audit.log", "/var/log/zarvo_container.log", "debug"},
     nullptr,
     "Starting QIRN Log Converter...\n"
     "Loaded configuration from /etc/qirn/qirn-log-converter.conf\n"
     "Config:\n"
     "  Input:  /var/log/qirn_audit.log\n"
     "  Output: /var/log/zarvo_container.log\n"
     "  Debug:  yes\n",
     {"[INFO] Debug mode: enabled"},
     {}},
    {"ThirdArgumentUpperCaseDebugSwitchesOffTheDebugThatTheFileSwitchedOn",
     "debug=true\n",
     {"/var/log/qirn_audit.log", "/var/log/zarvo_container.log", "DEBUG"},
     nullptr,
     "Starting QIRN Log Converter...\n"
     "Loaded configuration from /etc/qirn/qirn-log-converter.conf\n"
     "Config:\n"
     "  Input:  /var/log/qirn_audit.log\n"
     "  Output: /var/log/zarvo_container.log\n"
     "  Debug:  no\n",
     {"[INFO] Debug mode: disabled"},
     {"[INFO] Debug mode: enabled"}},
    {"ThirdArgumentOneSwitchesOffTheDebugThatTheFileSwitchedOn",
     "debug=true\n",
     {"/var/log/qirn_audit.log", "/var/log/zarvo_container.log", "1"},
     nullptr,
     "Starting QIRN Log Converter...\n"
     "Loaded configuration from /etc/qirn/qirn-log-converter.conf\n"
     "Config:\n"
     "  Input:  /var/log/qirn_audit.log\n"
     "  Output: /var/log/zarvo_container.log\n"
     "  Debug:  no\n",
     {"[INFO] Debug mode: disabled"},
     {"[INFO] Debug mode: enabled"}},
    {"FourthArgumentIsIgnored",
     nullptr,
     {"/var/log/qirn_audit.log", "/var/log/zarvo_container.log", "debug", "extra"},
     nullptr,
     "Starting QIRN Log Converter...\n"
     "Using default configuration\n"
     "Config:\n"
     "  Input:  /var/log/qirn_audit.log\n"
     "  Output: /var/log/zarvo_container.log\n"
     "  Debug:  yes\n",
     {},
     {}},
};

class StartupConsoleTest : public StartupTest, public ::testing::WithParamInterface<ConsoleCase> {};

TEST_P(StartupConsoleTest, ShowsTheSettledConfiguration) {
    const ConsoleCase& example = GetParam();
    if (example.config != nullptr) {
        runner_.writeConfig(example.config);
    }
    if (example.input != nullptr) {
        writeFile(runner_.varLog(example.input), "");
    }
    ServiceOptions options;
    options.args = example.args;

    startService(options);

    EXPECT_EQ(example.consoleBlock, consoleConfigBlock());
    for (const std::string& message : example.logged) {
        // Polled: the monitor thread's lines may follow the console's last line.
        EXPECT_TRUE(
            waitUntil([&] { return containsLine(runner_.diagMessages(), message); }, seconds(10)))
            << message;
    }
    for (const std::string& message : example.notLogged) {
        EXPECT_FALSE(containsLine(runner_.diagMessages(), message)) << message;
    }
    EXPECT_EQ(0, runner_.stop());
}

INSTANTIATE_TEST_SUITE_P(Startup, StartupConsoleTest, ::testing::ValuesIn(CONSOLE_CASES),
                         [](const ::testing::TestParamInfo<ConsoleCase>& info) {
                             return std::string(info.param.name);
                         });

// A shutdown signal and what the service prints and logs for it.
struct SignalCase {
    const char* name;
    int signum;
    const char* consoleAfterStartup;
    const char* receivedMessage;
};

// Names the case in gtest's messages instead of dumping its bytes.
void PrintTo(const SignalCase& example, std::ostream* out) { *out << example.name; }

const SignalCase SIGNAL_CASES[] = {
    {"Sigterm", SIGTERM,
     "\nReceived signal 15, shutting down...\n"
     "\nShutdown complete. Total processed lines: 0\n",
     "[INFO] Received signal 15, shutting down..."},
    {"Sigint", SIGINT,
     "\nReceived signal 2, shutting down...\n"
     "\nShutdown complete. Total processed lines: 0\n",
     "[INFO] Received signal 2, shutting down..."},
};

class StartupSignalTest : public StartupTest, public ::testing::WithParamInterface<SignalCase> {};

TEST_P(StartupSignalTest, PrintsReceivedSignalAndShutdownCompleteAndExitsZero) {
    startService();

    runner_.sendSignal(GetParam().signum);
    int code = -1;
    ASSERT_TRUE(runner_.waitForExit(seconds(10), &code));

    EXPECT_EQ(0, code);
    EXPECT_EQ(GetParam().consoleAfterStartup, textAfter(runner_.stdoutText(), SCOPE_LINE));
    EXPECT_EQ("", runner_.stderrText());
}

TEST_P(StartupSignalTest, LogsHandlerLinesThenShutdownReport) {
    startService();

    runner_.sendSignal(GetParam().signum);
    ASSERT_TRUE(runner_.waitForExit(seconds(10), nullptr));

    const auto messages = runner_.diagMessages();
    const long received = indexOf(messages, GetParam().receivedMessage);
    const long handlerTotal = indexOf(messages, "[INFO] Total processed lines: 0");
    const long banner =
        indexOf(messages, "[INFO] ========== Shutting down log converter ==========");
    const long mainTotal = indexOf(messages, "[INFO] Total lines processed: 0");
    EXPECT_NE(-1, received);
    EXPECT_LT(received, handlerTotal);
    EXPECT_LT(handlerTotal, banner);
    EXPECT_LT(banner, mainTotal);
}

INSTANTIATE_TEST_SUITE_P(Startup, StartupSignalTest, ::testing::ValuesIn(SIGNAL_CASES),
                         [](const ::testing::TestParamInfo<SignalCase>& info) {
                             return std::string(info.param.name);
                         });

TEST_F(StartupTest, SigtermWithinTheFirst29SecondsLogsNoStatusLine) {
    const auto started = std::chrono::steady_clock::now();
    startService();

    EXPECT_EQ(0, runner_.stop());

    ASSERT_LT(std::chrono::steady_clock::now() - started, seconds(29));
    EXPECT_EQ(0, countSubstring(runner_.diagMessages(), "Status: running"));
    EXPECT_TRUE(containsLine(runner_.diagMessages(), "[INFO] Total lines processed: 0"));
}

// A start-up that must fail before the logger exists.
struct FailureCase {
    const char* name;
    bool hideVarLog;
    bool readOnlyVarLog;
    const char* stderrText;
};

// Names the case in gtest's messages instead of dumping its bytes.
void PrintTo(const FailureCase& example, std::ostream* out) { *out << example.name; }

const FailureCase FAILURE_CASES[] = {
    {"MissingVarLogExitsWithStatusOneAndOnlyTheErrorLine", true, false,
     "ERROR: Log directory /var/log does not exist!\n"},
    {"UnwritableDiagnosticLogExitsWithStatusOneAndAPermissionHint", false, true,
     "ERROR: Cannot write to log file: /var/log/qirn-log-converter.log\n"
     "Please check permissions or run as root.\n"},
};

class StartupFailureTest : public StartupTest, public ::testing::WithParamInterface<FailureCase> {};

TEST_P(StartupFailureTest, ExitsWithStatusOneBeforeTheLoggerExists) {
    ServiceOptions options;
    options.hideVarLog = GetParam().hideVarLog;
    options.readOnlyVarLog = GetParam().readOnlyVarLog;

    EXPECT_EQ(1, startAndWaitForFailure(options));

    EXPECT_EQ(GetParam().stderrText, runner_.stderrText());
    // The logger is never initialised, so nothing follows the configuration block.
    EXPECT_EQ(
        "Starting QIRN Log Converter...\n"
        "Using default configuration\n"
        "Config:\n"
        "  Input:  /var/log/qirn_audit.log\n"
        "  Output: /var/log/zarvo_container.log\n"
        "  Debug:  no\n",
        runner_.stdoutText());
    EXPECT_FALSE(fileExists(runner_.diagPath()));
}

INSTANTIATE_TEST_SUITE_P(Startup, StartupFailureTest, ::testing::ValuesIn(FAILURE_CASES),
                         [](const ::testing::TestParamInfo<FailureCase>& info) {
                             return std::string(info.param.name);
                         });

TEST_F(StartupTest, HeaderAndStartBannerAreTheFirstLinesInOrderAndFormat) {
    startService();

    const auto lines = runner_.diagLines();
    ASSERT_GE(lines.size(), 7u);
    const std::vector<std::string> expected{
        "Logger initialized",
        "Log file: /var/log/qirn-log-converter.log",
        "Debug mode: disabled",
        "========== QIRN Log Converter Started ==========",
        "Input: /var/log/qirn_audit.log",
        "Output: /var/log/zarvo_container.log",
        "Debug mode: disabled",
    };
    const std::regex infoLine(std::string(TIMESTAMP_PATTERN) + R"( \[INFO\] (.*))");
    for (std::size_t i = 0; i < expected.size(); ++i) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(lines[i], match, infoLine)) << lines[i];
        EXPECT_EQ(expected[i], match[1].str());
    }
    EXPECT_EQ(0, runner_.stop());
}

TEST_F(StartupTest, EveryDiagnosticLineHasTimestampAndLevel) {
    startService();
    EXPECT_EQ(0, runner_.stop());

    const std::regex anyLine(std::string(TIMESTAMP_PATTERN) + R"( \[(DEBUG|INFO|WARN|ERROR)\] .*)");
    const auto lines = runner_.diagLines();
    ASSERT_FALSE(lines.empty());
    for (const auto& line : lines) {
        EXPECT_TRUE(std::regex_match(line, anyLine)) << line;
    }
}

TEST_F(StartupTest, LogConverterInitializedComesOnceAfterDebugModeAndBeforeReaderAndWriter) {
    startService();

    const auto messages = runner_.diagMessages();
    const long debugMode = lastIndexOf(messages, "[INFO] Debug mode: disabled");
    const long converter = indexOf(messages, "[INFO] LogConverter initialized");
    const long readerAndWriter =
        indexOf(messages, "[INFO] Reader and writer initialized successfully");
    EXPECT_EQ(1, countLine(messages, "[INFO] LogConverter initialized"));
    EXPECT_NE(-1, debugMode);
    EXPECT_LT(debugMode, converter);
    EXPECT_LT(converter, readerAndWriter);
    EXPECT_EQ(0, runner_.stop());
}

TEST_F(StartupTest, RunningAndScopeLinesAreLoggedAfterTheReaderAndWriter) {
    startService();

    const auto messages = runner_.diagMessages();
    const long readerAndWriter =
        indexOf(messages, "[INFO] Reader and writer initialized successfully");
    const long runningLine =
        indexOf(messages, "[INFO] Log converter is running. Press Ctrl+C to stop.");
    const long scopeLine = indexOf(
        messages, "[INFO] Processing QIRN_AVC and QIRN_NETCTL logs with container_id field");
    EXPECT_NE(-1, readerAndWriter);
    EXPECT_LT(readerAndWriter, runningLine);
    EXPECT_LT(runningLine, scopeLine);
    EXPECT_EQ(0, runner_.stop());
}

// Slow: runs for the 65 seconds the behaviour is about.
TEST_F(StartupTest, RunOf65SecondsLogsExactlyTwoStatusLines) {
    startService();
    const auto deadline = std::chrono::steady_clock::now() + seconds(65);

    ASSERT_TRUE(
        waitUntil([&] { return std::chrono::steady_clock::now() >= deadline; }, seconds(70)));
    EXPECT_EQ(0, runner_.stop());

    EXPECT_EQ(2, countLine(runner_.diagMessages(), "[INFO] Status: running, processed 0 lines"));
    EXPECT_EQ(2, countSubstring(runner_.diagMessages(), "Status: "));
}

}  // namespace
