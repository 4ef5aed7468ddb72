#pragma once
// The fleet's event store as the collector's loader sees it: one libpq
// connection that stores a received line once (an event line in the events,
// anything else in the unparsed lines), alone or in a batch that is
// committed as a whole. A lost connection is opened again at the next call.

#include <libpq-fe.h>

#include <string>
#include <string_view>
#include <vector>

class EventStore {
public:
    enum class Outcome { STORED, DUPLICATE, UNPARSED, FAILED };

    explicit EventStore(std::string conninfo);
    ~EventStore();
    EventStore(const EventStore&) = delete;
    EventStore& operator=(const EventStore&) = delete;

    // One line in a transaction of its own: when this returns STORED,
    // DUPLICATE or UNPARSED the line is committed. A call whose connection
    // broke is tried once more on a new one: the identity makes a line that
    // was committed before the break a duplicate, not a second row.
    Outcome store(std::string_view sender, std::string_view line);

    // A batch, "SENDER LINE" messages stored in one transaction: nothing of
    // it is stored unless this returns true. The statements are sent in one
    // pipeline, so the batch costs one round trip to the database, not one
    // per line; `outcomes` gets one entry per message.
    bool storeBatch(const std::vector<std::string>& messages, std::vector<Outcome>& outcomes);

    // Splits a message as rsyslog hands it over: the sender, a blank, the line.
    static void split(std::string_view message, std::string_view& sender, std::string_view& line);

    // Why the last call failed, on one line.
    const std::string& lastError() const { return lastError_; }

private:
    bool connect();
    void disconnect();
    bool connectionLost() const;
    Outcome storeOnce(std::string_view sender, std::string_view line);
    void fail(std::string_view what, const PGresult* result);
    static Outcome outcomeOf(const PGresult* result);

    std::string conninfo_;
    PGconn* connection_ = nullptr;
    std::string key_;
    std::string lastError_;
};
