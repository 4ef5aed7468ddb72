#include "agent/FleetAgent.h"

#include <algorithm>

namespace {

// Never a busy loop, whatever a deadline says.
constexpr std::chrono::milliseconds SHORTEST_WAIT{10};
constexpr std::chrono::milliseconds KEY_RETRY{500};

double wallSeconds() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace

FleetAgent::FleetAgent(const AgentConfig& config, StoreSession& store, Log log)
    : config_(config), store_(store), log_(std::move(log)) {
    followers_.push_back(std::make_unique<LogFollower>(EVENTS_STREAM, config_.eventLog, log_));
    followers_.push_back(std::make_unique<LogFollower>(BACKFILL_STREAM, config_.backfillLog, log_));
}

void FleetAgent::requestStop() {
    stopRequested_.store(true);
    watch_.wake();
}

FleetAgent::Counters FleetAgent::counters() const {
    Counters total = counters_;
    for (const auto& follower : followers_) {
        total.lostFiles += follower->lostFiles();
    }
    return total;
}

bool FleetAgent::mayCall(Clock::time_point now) const { return stopping_ || now >= retryAt_; }

void FleetAgent::run() {
    nextHeartbeat_ = Clock::now();
    for (;;) {
        const Clock::time_point now = Clock::now();
        if (stopRequested_.load() && !stopping_) {
            stopping_ = true;
            stopDeadline_ = now + STOP_DEADLINE;
        }
        // Without the lease a stopping agent has nothing to ship.
        if (mayCall(now) && !(stopping_ && !leaseHeld_)) {
            readPositions(now);
        }
        for (const auto& follower : followers_) {
            follower->refill(now);
            watch_.watch(follower->path());
        }
        const bool heartbeatDue = now >= nextHeartbeat_;
        if ((heartbeatDue || !leaseHeld_) && mayCall(now) && !(stopping_ && !leaseHeld_)) {
            heartbeat(now);
        }
        if (heartbeatDue) {
            if (!shippedSinceHeartbeat_) {
                store_.rest();
            }
            shippedSinceHeartbeat_ = false;
            writeMetrics();
            nextHeartbeat_ = now + std::chrono::seconds(config_.heartbeatSeconds);
        }
        bool shipped = false;
        for (const auto& follower : followers_) {
            if (leaseHeld_ && mayCall(now) && dueToShip(*follower, now)) {
                shipped = ship(*follower, now) || shipped;
            }
        }
        if (stopping_) {
            if (shipped && !stopFailed_ && now < stopDeadline_) {
                continue;
            }
            break;
        }
        if (!shipped) {
            watch_.wait(untilNextWake(now), !waitingToShip(now));
        }
    }
    if (leaseHeld_ && !stopFailed_) {
        const Status released = store_.release();
        log_(released.ok() ? "gave the lease up"
                           : "cannot give the lease up: " + released.message());
    }
    writeMetrics();
}

void FleetAgent::heartbeat(Clock::time_point now) {
    StoreSession::Heartbeat beat;
    beat.heartbeatSeconds = config_.heartbeatSeconds;
    for (const auto& follower : followers_) {
        beat.lagBytes += follower->lagBytes();
        beat.lagSeconds = std::max(beat.lagSeconds, follower->lagSeconds(now));
    }
    const Status status = store_.heartbeat(beat);
    if (!status.ok()) {
        failed(status, nullptr, now);
        return;
    }
    succeeded();
    lastHeartbeat_ = wallSeconds();
    if (!leaseHeld_ && waitedForLease_) {
        log_("took this host's lease");
    }
    leaseHeld_ = true;
    waitedForLease_ = false;
}

void FleetAgent::readPositions(Clock::time_point now) {
    for (const auto& follower : followers_) {
        if (follower->positioned()) {
            continue;
        }
        StoreSession::Position position;
        const Status status = store_.position(follower->stream(), position);
        if (!status.ok()) {
            failed(status, nullptr, now);
            return;
        }
        succeeded();
        log_(position.present ? follower->stream() + ": the store's position is " +
                                    position.fileKey + " at " + std::to_string(position.fileOffset)
                              : follower->stream() + ": no position in the store yet, " +
                                    follower->path() + " from its start");
        follower->resume(position);
    }
}

bool FleetAgent::dueToShip(const LogFollower& follower, Clock::time_point now) const {
    if (!follower.positioned() || !follower.hasLines()) {
        return false;
    }
    return stopping_ || follower.hasFullBatch(config_.batchLines) ||
           now >= follower.pendingSince() + config_.commitDelay;
}

// One call per batch; each commits the batch's lines and the move of the
// stream's position together, so a batch is either stored with its position
// or not at all, and after any crash the agent resumes exactly where the
// store's COMMIT left it.
bool FleetAgent::ship(LogFollower& follower, Clock::time_point now) {
    std::vector<StoreSession::Batch> batches;
    const Status taken = follower.takeBatches(config_.batchLines, config_.shipsInFlight, batches);
    if (!taken.ok()) {
        log_(follower.stream() + ": " + taken.message());
        retryAt_ = now + KEY_RETRY;
        return false;
    }
    if (batches.empty()) {
        return false;
    }
    std::vector<StoreSession::Shipped> replies;
    store_.ship(batches, replies);
    bool committed = false;
    for (std::size_t i = 0; i < batches.size(); ++i) {
        const StoreSession::Shipped& reply = replies[i];
        if (!reply.status.ok()) {
            failed(reply.status, &follower, now);
            break;
        }
        succeeded();
        follower.committed(batches[i], Clock::now());
        counters_.stored += static_cast<uint64_t>(reply.stored);
        counters_.duplicates += static_cast<uint64_t>(reply.duplicates);
        counters_.unparsed += static_cast<uint64_t>(reply.unparsed);
        lastCommit_ = wallSeconds();
        committed = true;
        shippedSinceHeartbeat_ = true;
    }
    return committed;
}

void FleetAgent::succeeded() {
    const std::string message = retry_.onSuccess();
    if (!message.empty()) {
        log_(message);
    }
}

void FleetAgent::failed(const Status& status, LogFollower* follower, Clock::time_point now) {
    ++counters_.errors;
    const RetryPolicy::Decision decision = retry_.onFailure(status);
    if (!decision.message.empty()) {
        log_(decision.message);
    }
    switch (decision.action) {
        case RetryPolicy::Action::REREAD_POSITION:
            if (follower != nullptr) {
                follower->unposition();
            }
            return;
        case RetryPolicy::Action::WAIT_FOR_LEASE:
            leaseHeld_ = false;
            waitedForLease_ = true;
            break;
        case RetryPolicy::Action::RETRY_SLOWLY:
        case RetryPolicy::Action::BACK_OFF:
            break;
    }
    retryAt_ = now + decision.delay;
    if (stopping_) {
        stopFailed_ = true;
    }
}

void FleetAgent::writeMetrics() {
    MetricsFile::Values values;
    const Clock::time_point now = Clock::now();
    values.connected = store_.connected() && !retry_.inOutage();
    for (const auto& follower : followers_) {
        values.lags.push_back(
            {follower->stream(), follower->lagBytes(), follower->lagSeconds(now)});
    }
    const Counters total = counters();
    values.lastCommit = lastCommit_;
    values.lastHeartbeat = lastHeartbeat_;
    values.stored = total.stored;
    values.duplicates = total.duplicates;
    values.unparsed = total.unparsed;
    values.errors = total.errors;
    values.lostFiles = total.lostFiles;
    const Status written = MetricsFile::write(config_.textfileDir, values);
    const std::string problem = written.ok() ? "" : written.message();
    if (problem != lastMetricsError_ && !problem.empty()) {
        log_(problem);
    }
    lastMetricsError_ = problem;
}

bool FleetAgent::waitingToShip(Clock::time_point now) const {
    if (!leaseHeld_ || retryAt_ > now) {
        return false;
    }
    for (const auto& follower : followers_) {
        if (follower->positioned() && follower->hasLines()) {
            return true;
        }
    }
    return false;
}

std::chrono::milliseconds FleetAgent::untilNextWake(Clock::time_point now) const {
    Clock::time_point wake = std::min(nextHeartbeat_, now + FALLBACK_POLL);
    if (retryAt_ > now) {
        wake = std::min(wake, retryAt_);
    } else if (leaseHeld_) {
        for (const auto& follower : followers_) {
            if (follower->positioned() && follower->hasLines()) {
                wake = std::min(wake, follower->pendingSince() + config_.commitDelay);
            }
        }
    }
    const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(wake - now);
    // Rounded up, so a deadline a fraction of a millisecond away is not a spin.
    return std::max(wait + std::chrono::milliseconds(1), SHORTEST_WAIT);
}
