#pragma once
// A store in memory with the real one's rules: a ship commits only when it
// finds the position it expects, the lease is one agent's, and failures can
// be queued to come back from the next calls. Safe to drive from the agent's
// thread while a test watches.

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "agent/StoreSession.h"

class FakeStoreSession : public StoreSession {
public:
    struct Unparsed {
        std::string line;
        std::string reason;
    };

    Status position(const std::string& stream, Position& position) override;
    void ship(const std::vector<Batch>& batches, std::vector<Shipped>& replies) override;
    Status heartbeat(const Heartbeat& heartbeat) override;
    Status release() override;
    bool connected() const override;

    // The next `calls` calls of any kind fail with `status`.
    void failNext(const Status& status, int calls = 1);
    // Another agent holds the lease (empty: nobody does).
    void setLeaseHolder(const std::string& other);
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

    mutable std::mutex mutex_;
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
