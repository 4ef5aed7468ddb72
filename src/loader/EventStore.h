#pragma once
// The fleet's event store as the collector's loader sees it: one libpq
// connection that stores a received line once (an event line in the events,
// anything else in the unparsed lines), alone or in a batch that is
// committed as a whole. A lost connection is opened again at the next call.

#include <libpq-fe.h>

#include <cstdint>
#include <string>
#include <string_view>

class EventStore {
public:
    enum class Outcome { STORED, DUPLICATE, UNPARSED, FAILED };

    explicit EventStore(std::string conninfo);
    ~EventStore();
    EventStore(const EventStore&) = delete;
    EventStore& operator=(const EventStore&) = delete;

    // Outside a batch each call is its own transaction: when it returns
    // STORED, DUPLICATE or UNPARSED the line is committed. A call whose
    // connection broke is tried once more on a new one: the identity makes
    // a line that was committed before the break a duplicate, not a second row.
    Outcome store(std::string_view sender, std::string_view line);

    // A batch: nothing of it is stored unless commit() returns true.
    bool begin();
    bool commit();
    void rollback();

    // Why the last call failed, on one line.
    const std::string& lastError() const { return lastError_; }

private:
    bool connect();
    void disconnect();
    bool connectionLost() const;
    Outcome storeOnce(std::string_view sender, std::string_view line);
    Outcome run(const char* statement, int count, const char* const* values, const int* lengths);
    bool command(const char* sql);
    void fail(std::string_view what, const PGresult* result);

    std::string conninfo_;
    PGconn* connection_ = nullptr;
    bool inBatch_ = false;
    std::string key_;
    std::string lastError_;
};
