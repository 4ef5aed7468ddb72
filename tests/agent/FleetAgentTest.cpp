#include "agent/FleetAgent.h"

#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "FakeStoreSession.h"
#include "agent/HostIdentity.h"
#include "support/TestSupport.h"

using namespace std::chrono_literals;
using testing_support::appendFile;
using testing_support::TempDir;
using testing_support::waitUntil;
using testing_support::writeFile;

namespace {

// An agent on its own thread over a fake store, on logs in a fresh directory.
class RunningAgent {
public:
    explicit RunningAgent(FakeStoreSession& store, const TempDir& dir,
                          void (*adjust)(AgentConfig&) = nullptr)
        : config_(configFor(dir, adjust)), agent_(config_, store, [this](const std::string& line) {
              std::lock_guard<std::mutex> lock(mutex_);
              said_.push_back(line);
          }) {}
    ~RunningAgent() { stop(); }

    void start() {
        thread_ = std::thread([this] { agent_.run(); });
    }
    void stop() {
        agent_.requestStop();
        if (thread_.joinable()) {
            thread_.join();
        }
    }
    std::vector<std::string> said() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return said_;
    }
    int countSaid(const std::string& part) const {
        return testing_support::countSubstring(said(), part);
    }
    FleetAgent& agent() { return agent_; }

private:
    static AgentConfig configFor(const TempDir& dir, void (*adjust)(AgentConfig&)) {
        AgentConfig config;
        config.conninfo = "unused";
        config.eventLog = dir.file("events.log");
        config.backfillLog = dir.file("backfill.log");
        config.textfileDir = dir.path();
        config.heartbeatSeconds = 1;
        config.batchLines = 100;
        config.commitDelay = 20ms;
        config.shipsInFlight = 1;
        if (adjust != nullptr) {
            adjust(config);
        }
        return config;
    }

    AgentConfig config_;
    mutable std::mutex mutex_;
    std::vector<std::string> said_;
    FleetAgent agent_;
    std::thread thread_;
};

std::vector<std::string> numbered(int from, int to) {
    std::vector<std::string> lines;
    for (int i = from; i <= to; ++i) {
        lines.push_back("line " + std::to_string(i));
    }
    return lines;
}

// A machine of its own under `root`, known by its machine id.
std::string machine(const TempDir& root, const std::string& machineId) {
    mkdir(root.file("etc").c_str(), 0755);
    writeFile(root.file("etc/machine-id"), machineId + "\n");
    return HostIdentity::agentName(root.path());
}

void longLease(AgentConfig& config) { config.heartbeatSeconds = 30; }

bool storedCount(const FakeStoreSession& store, std::size_t count) {
    return waitUntil([&] { return store.lines("events").size() >= count; }, 5s);
}

}  // namespace

TEST(FleetAgentTest, ShipsTheEventLogsLinesByteExact) {
    TempDir dir;
    writeFile(dir.file("events.log"), "a\tb\x1b[0m\rc\xff\n");
    FakeStoreSession store;
    RunningAgent agent(store, dir);
    agent.start();
    ASSERT_TRUE(storedCount(store, 1));
    EXPECT_EQ(std::vector<std::string>{"a\tb\x1b[0m\rc\xff"}, store.lines("events"));
    EXPECT_EQ(11, store.committed("events").fileOffset);
}

TEST(FleetAgentTest, ShipsTheBackfillLogAsItsOwnStream) {
    TempDir dir;
    writeFile(dir.file("backfill.log"), "repaired\n");
    FakeStoreSession store;
    RunningAgent agent(store, dir);
    agent.start();
    ASSERT_TRUE(waitUntil([&] { return store.lines("backfill").size() == 1; }, 5s));
    EXPECT_EQ(std::vector<std::string>{"repaired"}, store.lines("backfill"));
    EXPECT_TRUE(store.lines("events").empty());
}

TEST(FleetAgentTest, BatchesHoldAtMostBatchLinesLines) {
    TempDir dir;
    testing_support::appendLines(dir.file("events.log"), numbered(1, 250));
    FakeStoreSession store;
    RunningAgent agent(store, dir);
    agent.start();
    ASSERT_TRUE(storedCount(store, 250));
    EXPECT_EQ((std::vector<std::size_t>{100, 100, 50}), store.batchSizes("events"));
    EXPECT_EQ(numbered(1, 250), store.lines("events"));
}

TEST(FleetAgentTest, ALightFlowIsCommittedWithinTheCommitDelay) {
    TempDir dir;
    writeFile(dir.file("events.log"), "");
    FakeStoreSession store;
    RunningAgent agent(store, dir, [](AgentConfig& config) { config.commitDelay = 50ms; });
    agent.start();
    ASSERT_TRUE(waitUntil([&] { return store.heartbeats() >= 1; }, 5s));
    std::this_thread::sleep_for(100ms);  // the agent settles into its idle wait
    for (int i = 1; i <= 3; ++i) {
        const auto written = std::chrono::steady_clock::now();
        appendFile(dir.file("events.log"), "line " + std::to_string(i) + "\n");
        ASSERT_TRUE(storedCount(store, static_cast<std::size_t>(i)));
        EXPECT_LT(std::chrono::steady_clock::now() - written, 300ms);
    }
}

TEST(FleetAgentTest, LinesArrivingTogetherWithinTheDelayGoInOneBatch) {
    TempDir dir;
    writeFile(dir.file("events.log"), "");
    FakeStoreSession store;
    RunningAgent agent(store, dir, [](AgentConfig& config) { config.commitDelay = 500ms; });
    agent.start();
    ASSERT_TRUE(waitUntil([&] { return store.heartbeats() >= 1; }, 5s));
    appendFile(dir.file("events.log"), "one\n");
    appendFile(dir.file("events.log"), "two\n");
    ASSERT_TRUE(storedCount(store, 2));
    EXPECT_EQ(std::vector<std::size_t>{2}, store.batchSizes("events"));
}

TEST(FleetAgentTest, AMovedPositionIsReadAgainAndShippingGoesOnFromIt) {
    TempDir dir;
    writeFile(dir.file("events.log"), "one\n");
    FakeStoreSession store;
    RunningAgent agent(store, dir);
    agent.start();
    ASSERT_TRUE(storedCount(store, 1));
    // Another agent shipped "two" meanwhile.
    store.setPosition("events", store.committed("events").fileKey, 8);
    appendFile(dir.file("events.log"), "two\nthree\n");
    ASSERT_TRUE(storedCount(store, 2));
    EXPECT_EQ((std::vector<std::string>{"one", "three"}), store.lines("events"));
    EXPECT_EQ(1, agent.countSaid("the store's position moved"));
}

TEST(FleetAgentTest, AHeldLeaseIsSaidAndWaitedFor) {
    TempDir dir;
    writeFile(dir.file("events.log"), "one\n");
    FakeStoreSession store;
    store.setLeaseHolder("other:42:2026-11-24T20:00:00Z");
    RunningAgent agent(store, dir);
    agent.start();
    ASSERT_TRUE(waitUntil([&] { return agent.countSaid("another agent holds") == 1; }, 5s));
    std::this_thread::sleep_for(300ms);
    EXPECT_TRUE(store.lines("events").empty());
    EXPECT_EQ(1, agent.countSaid(
                     "agent other:42:2026-11-24T20:00:00Z holds the lease of this host until"));
    store.setLeaseHolder("");
    ASSERT_TRUE(storedCount(store, 1));
    EXPECT_EQ(1, agent.countSaid("took this host's lease"));
}

TEST(FleetAgentTest, AHostNotEnrolledIsSaidOnceAndRetriedSlowly) {
    TempDir dir;
    writeFile(dir.file("events.log"), "one\n");
    FakeStoreSession store;
    store.failNext(Status::failure(Status::Code::REFUSED, "host not enrolled"), 1);
    RunningAgent agent(store, dir);
    agent.start();
    ASSERT_TRUE(waitUntil([&] { return agent.countSaid("not enrolled or retired") == 1; }, 5s));
    std::this_thread::sleep_for(500ms);
    EXPECT_EQ(1, store.calls());
    EXPECT_TRUE(store.lines("events").empty());
}

TEST(FleetAgentTest, AnOutageIsSaidOnceBackedOffAndNothingIsLostOrDoubled) {
    TempDir dir;
    writeFile(dir.file("events.log"), "one\ntwo\n");
    FakeStoreSession store;
    store.failNext(
        Status::failure(Status::Code::UNAVAILABLE, "cannot connect to the store: refused"), 3);
    RunningAgent agent(store, dir);
    agent.start();
    ASSERT_TRUE(waitUntil([&] { return store.lines("events").size() == 2; }, 10s));
    EXPECT_EQ((std::vector<std::string>{"one", "two"}), store.lines("events"));
    EXPECT_EQ(1, agent.countSaid("store unavailable: cannot connect to the store: refused"));
    EXPECT_EQ(1, agent.countSaid("the store answers again after 3 failed calls"));
}

TEST(FleetAgentTest, AFailedShipIsRetriedFromTheSamePosition) {
    TempDir dir;
    writeFile(dir.file("events.log"), "");
    FakeStoreSession store;
    RunningAgent agent(store, dir);
    agent.start();
    ASSERT_TRUE(waitUntil([&] { return store.heartbeats() >= 1; }, 5s));
    std::this_thread::sleep_for(100ms);
    store.failNext(Status::failure(Status::Code::UNAVAILABLE, "lost the store: timeout"), 1);
    appendFile(dir.file("events.log"), "one\n");
    ASSERT_TRUE(storedCount(store, 1));
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(std::vector<std::string>{"one"}, store.lines("events"));
}

TEST(FleetAgentTest, ANulLineGoesToUnparsedAndTheBatchIsStored) {
    TempDir dir;
    writeFile(dir.file("events.log"), std::string("one\nt\0o\nthree\n", 14));
    FakeStoreSession store;
    RunningAgent agent(store, dir);
    agent.start();
    ASSERT_TRUE(storedCount(store, 2));
    EXPECT_EQ((std::vector<std::string>{"one", "three"}), store.lines("events"));
    ASSERT_EQ(1u, store.unparsed("events").size());
    EXPECT_EQ(std::string("t\0o", 3), store.unparsed("events")[0].line);
    EXPECT_EQ("line holds a NUL byte", store.unparsed("events")[0].reason);
}

TEST(FleetAgentTest, AnOverLongLineDoesNotStallTheStream) {
    TempDir dir;
    writeFile(dir.file("events.log"), std::string((1 << 20) + 100, 'x') + "\nafter\n");
    FakeStoreSession store;
    RunningAgent agent(store, dir);
    agent.start();
    ASSERT_TRUE(waitUntil([&] { return store.lines("events").size() == 2; }, 5s));
    EXPECT_EQ(std::string(100, 'x'), store.lines("events")[0]);
    EXPECT_EQ("after", store.lines("events")[1]);
    ASSERT_EQ(1u, store.unparsed("events").size());
    EXPECT_EQ(std::size_t{1} << 20, store.unparsed("events")[0].line.size());
}

TEST(FleetAgentTest, ARotationDuringTheFlowLosesAndDoublesNothing) {
    TempDir dir;
    testing_support::appendLines(dir.file("events.log"), numbered(1, 10));
    FakeStoreSession store;
    RunningAgent agent(store, dir);
    agent.start();
    ASSERT_TRUE(storedCount(store, 10));
    testing_support::appendLines(dir.file("events.log"), numbered(11, 20));
    ASSERT_EQ(0, rename(dir.file("events.log").c_str(), dir.file("events.log.1").c_str()));
    testing_support::appendLines(dir.file("events.log.1"), numbered(21, 25));
    testing_support::appendLines(dir.file("events.log"), numbered(26, 30));
    ASSERT_TRUE(storedCount(store, 30));
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(numbered(1, 30), store.lines("events"));
}

TEST(FleetAgentTest, AStopShipsWhatItHoldsAndGivesTheLeaseUp) {
    TempDir dir;
    writeFile(dir.file("events.log"), "");
    FakeStoreSession store;
    RunningAgent agent(store, dir, [](AgentConfig& config) { config.commitDelay = 60s; });
    agent.start();
    ASSERT_TRUE(waitUntil([&] { return store.heartbeats() >= 1; }, 5s));
    appendFile(dir.file("events.log"), "held\n");
    std::this_thread::sleep_for(100ms);
    EXPECT_TRUE(store.lines("events").empty());
    const auto asked = std::chrono::steady_clock::now();
    agent.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - asked, 2s);
    EXPECT_EQ(std::vector<std::string>{"held"}, store.lines("events"));
    EXPECT_EQ(1, store.releases());
}

TEST(FleetAgentTest, HeartbeatsComeEvenWhenIdleAndWriteTheMetrics) {
    TempDir dir;
    writeFile(dir.file("events.log"), "one\n");
    FakeStoreSession store;
    RunningAgent agent(store, dir);
    agent.start();
    ASSERT_TRUE(storedCount(store, 1));
    ASSERT_TRUE(waitUntil([&] { return store.heartbeats() >= 3; }, 5s));
    ASSERT_TRUE(testing_support::fileExists(dir.file("qirn_fleet_agent.prom")));
    const auto lines = testing_support::readLines(dir.file("qirn_fleet_agent.prom"));
    EXPECT_TRUE(testing_support::containsLine(lines, "qirn_fleet_agent_connected 1"));
    EXPECT_TRUE(testing_support::containsLine(lines, "qirn_fleet_agent_events_stored_total 1"));
    EXPECT_TRUE(
        testing_support::containsLine(lines, "qirn_fleet_agent_lag_bytes{stream=\"events\"} 0"));
}

TEST(FleetAgentTest, HeartbeatCarriesTheLag) {
    TempDir dir;
    writeFile(dir.file("events.log"), "one\n");
    FakeStoreSession store;
    store.setLeaseHolder("other");
    RunningAgent agent(store, dir);
    agent.start();
    ASSERT_TRUE(waitUntil([&] { return agent.countSaid("another agent holds") == 1; }, 5s));
    store.setLeaseHolder("");
    ASSERT_TRUE(waitUntil([&] { return store.heartbeats() >= 1; }, 5s));
    EXPECT_EQ(4, store.lastHeartbeat().lagBytes);
    EXPECT_EQ(1, store.lastHeartbeat().heartbeatSeconds);
}

TEST(FleetAgentTest, IdleAgentMakesFewCalls) {
    TempDir dir;
    writeFile(dir.file("events.log"), "");
    FakeStoreSession store;
    RunningAgent agent(store, dir);
    agent.start();
    std::this_thread::sleep_for(1500ms);
    // Two position reads and one heartbeat a second.
    EXPECT_LE(store.calls(), 5);
}

TEST(FleetAgentTest, TwoShipsInFlightCarryChainedBatchesInOneCall) {
    TempDir dir;
    testing_support::appendLines(dir.file("events.log"), numbered(1, 250));
    FakeStoreSession store;
    RunningAgent agent(store, dir, [](AgentConfig& config) { config.shipsInFlight = 2; });
    agent.start();
    ASSERT_TRUE(storedCount(store, 250));
    EXPECT_EQ(numbered(1, 250), store.lines("events"));
    EXPECT_EQ((std::vector<std::size_t>{100, 100, 50}), store.batchSizes("events"));
    EXPECT_EQ(2, store.shipCalls());
}

TEST(FleetAgentTest, WhenTheFirstOfTwoBatchesFailsNeitherIsKeptAndBothAreShippedAgain) {
    TempDir dir;
    writeFile(dir.file("events.log"), "");
    FakeStoreSession store;
    RunningAgent agent(store, dir, [](AgentConfig& config) {
        config.shipsInFlight = 2;
        config.batchLines = 2;
    });
    agent.start();
    ASSERT_TRUE(waitUntil([&] { return store.heartbeats() >= 1; }, 5s));
    std::this_thread::sleep_for(100ms);
    store.failNext(Status::failure(Status::Code::UNAVAILABLE, "lost the store: reset"), 1);
    testing_support::appendLines(dir.file("events.log"), numbered(1, 4));
    ASSERT_TRUE(storedCount(store, 4));
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(numbered(1, 4), store.lines("events"));
}

TEST(FleetAgentTest, AStopWithTheStoreUnreachableEndsPromptly) {
    TempDir dir;
    writeFile(dir.file("events.log"), "");
    FakeStoreSession store;
    RunningAgent agent(store, dir, [](AgentConfig& config) { config.commitDelay = 60s; });
    agent.start();
    ASSERT_TRUE(waitUntil([&] { return store.heartbeats() >= 1; }, 5s));
    store.failNext(Status::failure(Status::Code::UNAVAILABLE, "cannot connect"), 100);
    appendFile(dir.file("events.log"), "held\n");
    std::this_thread::sleep_for(100ms);
    const auto asked = std::chrono::steady_clock::now();
    agent.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - asked, 2s);
    EXPECT_TRUE(store.lines("events").empty());
    EXPECT_EQ(0, store.releases());
}

TEST(FleetAgentTest, ALostFileIsCountedInTheMetrics) {
    TempDir dir;
    writeFile(dir.file("events.log"), "new\n");
    FakeStoreSession store;
    store.setPosition("events", "1:2:4:" + std::string(64, '0'), 4);
    RunningAgent agent(store, dir);
    agent.start();
    ASSERT_TRUE(storedCount(store, 1));
    EXPECT_EQ(1, agent.countSaid("rotation outran the agent"));
    ASSERT_TRUE(waitUntil(
        [&] {
            return testing_support::containsLine(
                testing_support::readLines(dir.file("qirn_fleet_agent.prom")),
                "qirn_fleet_agent_lost_files_total 1");
        },
        5s));
}

TEST(FleetAgentTest, AnAgentRestartedAfterAKillResumesAtOnceUnderItsOwnLease) {
    TempDir dir;
    TempDir root;
    testing_support::appendLines(dir.file("events.log"), numbered(1, 3));
    FakeStoreSession store(machine(root, "0123456789abcdef0123456789abcdef"));
    {
        RunningAgent first(store, dir, longLease);
        first.start();
        ASSERT_TRUE(storedCount(store, 3));
    }
    // A kill gives nothing up: the lease stays under the agent's name, 90 s
    // long, and the position is where the last COMMIT left it.
    store.setLeaseHolder(HostIdentity::agentName(root.path()));
    testing_support::appendLines(dir.file("events.log"), numbered(4, 6));
    FakeStoreSession restarted(HostIdentity::agentName(root.path()));
    restarted.setLeaseHolder(store.leaseHolder());
    restarted.setPosition("events", store.committed("events").fileKey,
                          store.committed("events").fileOffset);
    RunningAgent second(restarted, dir, longLease);
    const auto started = std::chrono::steady_clock::now();
    second.start();
    ASSERT_TRUE(storedCount(restarted, 3));
    EXPECT_LT(std::chrono::steady_clock::now() - started, 5s);
    EXPECT_EQ(numbered(4, 6), restarted.lines("events"));
    EXPECT_EQ(0, second.countSaid("another agent holds"));
}

TEST(FleetAgentTest, AnAgentOfAnotherMachineWaitsForTheLeaseAndSaysWhose) {
    TempDir dir;
    TempDir here;
    TempDir clone;
    writeFile(dir.file("events.log"), "one\n");
    const std::string holder = machine(here, "0123456789abcdef0123456789abcdef");
    FakeStoreSession store(machine(clone, "fedcba9876543210fedcba9876543210"));
    store.setLeaseHolder(holder);
    RunningAgent agent(store, dir, longLease);
    agent.start();
    ASSERT_TRUE(waitUntil([&] { return agent.countSaid("another agent holds") == 1; }, 5s));
    EXPECT_EQ(1, agent.countSaid("agent " + holder + " holds the lease of this host until"));
    EXPECT_TRUE(store.lines("events").empty());
    EXPECT_EQ(holder, store.leaseHolder());
}
