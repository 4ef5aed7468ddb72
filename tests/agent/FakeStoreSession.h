#pragma once
// A store in memory with the real one's rules: a ship commits only when it
// finds the position it expects, the lease is one agent's (a lease held under
// the session's own agent name is renewed, any other holder's is refused),
// and failures can
// be queued to come back from the next calls. Safe to drive from the agent's
// thread while a test watches.

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "agent/StoreSession.h"

class FakeStoreSession : public StoreSession {
public:
    struct Unparsed {
        std::string line;
        std::string reason;
    };

    explicit FakeStoreSession(std::string agent = "this-host:0123456789abcdef")
        : agent_(std::move(agent)) {}

    Status position(const std::string& stream, Position& position) override;
    void ship(const std::vector<Batch>& batches, std::vector<Shipped>& replies) override;
    Status heartbeat(const Heartbeat& heartbeat) override;
    Status release() override;
    bool connected() const override;

    // The next `calls` calls of any kind fail with `status`.
    void failNext(const Status& status, int calls = 1);
    // Who holds the lease (empty: nobody does); the session's own agent name
    // is what a killed agent of this machine leaves behind.
    void setLeaseHolder(const std::string& holder);
    std::string leaseHolder() const;
    void setPosition(const std::string& stream, const std::string& key, int64_t offset);

    std::vector<std::string> lines(const std::string& stream) const;
    std::vector<Unparsed> unparsed(const std::string& stream) const;
    Position committed(const std::string& stream) const;
    std::vector<std::size_t> batchSizes(const std::string& stream) const;
    int shipCalls() const;
    int heartbeats() const;
    int releases() const;
    int calls() const;
    Heartbeat lastHeartbeat() const;

private:
    bool takeFailure(Status& status);
    // Takes or renews the lease for this session's agent, as every ship and
    // heartbeat does; BUSY when another agent holds it.
    Status takeLease();

    mutable std::mutex mutex_;
    const std::string agent_;
    std::deque<Status> failures_;
    std::string leaseHolder_;
    std::map<std::string, Position> positions_;
    std::map<std::string, std::vector<std::string>> lines_;
    std::map<std::string, std::vector<Unparsed>> unparsed_;
    std::map<std::string, std::vector<std::size_t>> batchSizes_;
    int shipCalls_ = 0;
    int heartbeats_ = 0;
    int releases_ = 0;
    int calls_ = 0;
    bool connected_ = false;
    Heartbeat lastHeartbeat_;
};
