#pragma once
// The agent's loop: takes the host's lease, follows the event log and the
// backfill log from the store's positions, ships whole lines in batches
// (at once when a batch is full, else within the commit delay of the first
// line's arrival), heartbeats and writes its metrics. Asked to stop, it
// ships what it holds, gives the lease up and returns.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "agent/AgentConfig.h"
#include "agent/ChangeWatch.h"
#include "agent/LogFollower.h"
#include "agent/MetricsFile.h"
#include "agent/RetryPolicy.h"
#include "agent/StoreSession.h"

class FleetAgent {
public:
    using Clock = std::chrono::steady_clock;
    using Log = std::function<void(const std::string&)>;

    static constexpr const char* EVENTS_STREAM = "events";
    static constexpr const char* BACKFILL_STREAM = "backfill";
    // Wakes at least this often, for what inotify cannot report (a log's
    // directory that does not exist yet).
    static constexpr std::chrono::milliseconds FALLBACK_POLL{1000};
    // How long a stop keeps shipping a log that is still being written.
    static constexpr std::chrono::milliseconds STOP_DEADLINE{10000};

    struct Counters {
        uint64_t stored = 0;
        uint64_t duplicates = 0;
        uint64_t unparsed = 0;
        uint64_t errors = 0;
        uint64_t lostFiles = 0;
    };

    FleetAgent(const AgentConfig& config, StoreSession& store, Log log);

    void run();
    // Safe in a signal handler and from another thread.
    void requestStop();
    // Read once run() has returned.
    Counters counters() const;

private:
    bool mayCall(Clock::time_point now) const;
    void heartbeat(Clock::time_point now);
    void readPositions(Clock::time_point now);
    bool dueToShip(const LogFollower& follower, Clock::time_point now) const;
    bool ship(LogFollower& follower, Clock::time_point now);
    void succeeded();
    void failed(const Status& status, LogFollower* follower, Clock::time_point now);
    void writeMetrics();
    // Whether lines wait only for their commit deadline.
    bool waitingToShip(Clock::time_point now) const;
    std::chrono::milliseconds untilNextWake(Clock::time_point now) const;

    AgentConfig config_;
    StoreSession& store_;
    Log log_;
    std::vector<std::unique_ptr<LogFollower>> followers_;
    ChangeWatch watch_;
    RetryPolicy retry_;
    std::atomic<bool> stopRequested_{false};
    bool stopping_ = false;
    bool stopFailed_ = false;
    Clock::time_point stopDeadline_{};
    bool leaseHeld_ = false;
    bool shippedSinceHeartbeat_ = false;
    bool waitedForLease_ = false;
    Clock::time_point retryAt_{};
    Clock::time_point nextHeartbeat_{};
    double lastCommit_ = 0;
    double lastHeartbeat_ = 0;
    Counters counters_;
    std::string lastMetricsError_;
};
