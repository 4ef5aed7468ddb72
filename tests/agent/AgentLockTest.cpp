#include "agent/AgentLock.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "support/TestSupport.h"

using testing_support::TempDir;
using testing_support::writeFile;

namespace {

std::string contents(const std::string& path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

}  // namespace

TEST(AgentLockTest, TheHolderWritesItsPid) {
    TempDir dir;
    AgentLock lock;
    ASSERT_TRUE(lock.take(dir.file("agent.lock")).ok());
    EXPECT_EQ(std::to_string(getpid()) + "\n", contents(dir.file("agent.lock")));
}

TEST(AgentLockTest, ASecondAgentIsRefusedWithTheFileAndTheHoldersPid) {
    TempDir dir;
    AgentLock first;
    ASSERT_TRUE(first.take(dir.file("agent.lock")).ok());
    AgentLock second;
    const Status refused = second.take(dir.file("agent.lock"));
    EXPECT_EQ(Status::Code::BUSY, refused.code());
    EXPECT_EQ("another qirn-fleet-agent holds " + dir.file("agent.lock") + " (pid " +
                  std::to_string(getpid()) + "): one agent per machine",
              refused.message());
    EXPECT_EQ(std::to_string(getpid()) + "\n", contents(dir.file("agent.lock")));
}

TEST(AgentLockTest, ALockLeftByADeadAgentIsTaken) {
    TempDir dir;
    // What a killed agent leaves: the file with its pid, and no lock on it.
    writeFile(dir.file("agent.lock"), "999999999\n");
    AgentLock lock;
    ASSERT_TRUE(lock.take(dir.file("agent.lock")).ok());
    EXPECT_EQ(std::to_string(getpid()) + "\n", contents(dir.file("agent.lock")));
}

TEST(AgentLockTest, TheLockIsLetGoWithItsHolder) {
    TempDir dir;
    {
        AgentLock first;
        ASSERT_TRUE(first.take(dir.file("agent.lock")).ok());
    }
    AgentLock second;
    EXPECT_TRUE(second.take(dir.file("agent.lock")).ok());
}

TEST(AgentLockTest, AMissingDirectoryIsNamed) {
    TempDir dir;
    AgentLock lock;
    const Status status = lock.take(dir.file("absent/agent.lock"));
    EXPECT_EQ(Status::Code::IO_ERROR, status.code());
    EXPECT_EQ("cannot open the lock file " + dir.file("absent/agent.lock") +
                  ": No such file or directory",
              status.message());
}
