// The command's own face: its arguments and its refusal to start without a
// usable configuration. Only files in a fresh directory are given to it.

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "agent/AgentLock.h"

#include "support/CommandRunner.h"
#include "support/TestSupport.h"

using testing_support::runCommand;
using testing_support::TempDir;
using testing_support::writeFile;

TEST(AgentCommandTest, AnUnknownArgumentPrintsTheUsage) {
    const auto result = runCommand(QLC_AGENT_PATH, {"--verbose"});
    EXPECT_EQ(2, result.exitCode);
    EXPECT_EQ("usage: qirn-fleet-agent [--config FILE]\n", result.stderrText);
}

TEST(AgentCommandTest, AMissingConfigurationIsNamedWithItsReason) {
    TempDir dir;
    const auto result = runCommand(QLC_AGENT_PATH, {"--config", dir.file("absent.conf")});
    EXPECT_EQ(3, result.exitCode);
    EXPECT_EQ(
        "cannot start: cannot read " + dir.file("absent.conf") + ": No such file or directory\n",
        result.stderrText);
}

TEST(AgentCommandTest, AConfigurationWithoutAConnectionStringIsRefused) {
    TempDir dir;
    writeFile(dir.file("agent.conf"), "event_log=" + dir.file("events.log") + "\n");
    const auto result = runCommand(QLC_AGENT_PATH, {"--config=" + dir.file("agent.conf")});
    EXPECT_EQ(3, result.exitCode);
    EXPECT_EQ("cannot start: " + dir.file("agent.conf") + ": conninfo is required\n",
              result.stderrText);
}

TEST(AgentCommandTest, ASecondAgentOnTheMachineIsRefusedByTheLock) {
    TempDir dir;
    AgentLock running;
    ASSERT_TRUE(running.take(dir.file("agent.lock")).ok());
    // Refused before any connection: the connection string leads nowhere.
    writeFile(dir.file("agent.conf"),
              "conninfo=host=/nonexistent\nevent_log=" + dir.file("events.log") +
                  "\nbackfill_log=" + dir.file("backfill.log") +
                  "\ntextfile_dir=\nlock_file=" + dir.file("agent.lock") + "\n");
    const auto result = runCommand(QLC_AGENT_PATH, {"--config", dir.file("agent.conf")});
    EXPECT_EQ(3, result.exitCode);
    EXPECT_EQ("cannot start: another qirn-fleet-agent holds " + dir.file("agent.lock") + " (pid " +
                  std::to_string(getpid()) + "): one agent per machine\n",
              result.stderrText);
}

namespace {

// Whether the process has its own SIGTERM handler yet. Until then (exec,
// the dynamic loader) no program can catch a signal.
bool catchesStop(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("SigCgt:", 0) == 0) {
            const unsigned long long caught = std::stoull(line.substr(7), nullptr, 16);
            return (caught & (1ULL << (SIGTERM - 1))) != 0;
        }
    }
    return false;
}

// Starts the agent and signals it as soon as it can catch the signal (its
// first statement; before it only the loader runs), plus
// `later`: its exit status, 128 + the signal's number when the signal killed it.
int stopEarly(const std::string& config, std::chrono::microseconds later) {
    const std::string program = QLC_AGENT_PATH;
    const std::string option = "--config=" + config;
    char* const argv[] = {const_cast<char*>(program.c_str()), const_cast<char*>(option.c_str()),
                          nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    const int spawned = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) {
        return -1;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!catchesStop(pid) && std::chrono::steady_clock::now() < deadline) {
    }
    // A spin, not a sleep: the stop lands at a chosen moment of the start.
    const auto at = std::chrono::steady_clock::now() + later;
    while (std::chrono::steady_clock::now() < at) {
    }
    kill(pid, SIGTERM);
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) {
        return -1;
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace

TEST(AgentCommandTest, AStopAtAnyMomentOfTheStartEndsWithStatusZero) {
    TempDir dir;
    // A store that cannot be reached: the stop meets the agent at start-up,
    // in its configuration, its lock, or its first connection.
    writeFile(dir.file("agent.conf"),
              "conninfo=host=/nonexistent\nevent_log=" + dir.file("events.log") +
                  "\nbackfill_log=" + dir.file("backfill.log") +
                  "\ntextfile_dir=\nlock_file=" + dir.file("agent.lock") + "\n");
    std::vector<int> statuses;
    for (int i = 0; i < 50; ++i) {
        statuses.push_back(stopEarly(dir.file("agent.conf"), std::chrono::microseconds(i * 100)));
    }
    EXPECT_EQ(std::vector<int>(50, 0), statuses);
}

TEST(AgentCommandTest, AStopWhileTheConfigurationIsReadEndsWithStatusZero) {
    TempDir dir;
    // A pipe for a configuration: the agent is stopped while it waits for it.
    const std::string config = dir.file("agent.conf");
    ASSERT_EQ(0, mkfifo(config.c_str(), 0600));
    const std::string program = QLC_AGENT_PATH;
    const std::string option = "--config=" + config;
    char* const argv[] = {const_cast<char*>(program.c_str()), const_cast<char*>(option.c_str()),
                          nullptr};
    pid_t pid = 0;
    ASSERT_EQ(0, posix_spawn(&pid, program.c_str(), nullptr, nullptr, argv, environ));
    // Opened once the agent opens it to read.
    const int writer = open(config.c_str(), O_WRONLY);
    ASSERT_GE(writer, 0);
    kill(pid, SIGTERM);
    const std::string text = "conninfo=host=/nonexistent\nevent_log=" + dir.file("events.log") +
                             "\nbackfill_log=" + dir.file("backfill.log") +
                             "\ntextfile_dir=\nlock_file=" + dir.file("agent.lock") + "\n";
    EXPECT_EQ(static_cast<ssize_t>(text.size()), write(writer, text.data(), text.size()));
    close(writer);
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_FALSE(WIFSIGNALED(status)) << "killed by signal " << WTERMSIG(status);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}
