#include "loader/EventStore.h"

#include <utility>

#include "common/EventLine.h"

namespace {

constexpr const char* STORE_EVENT = "store_event";
constexpr const char* STORE_UNPARSED = "store_unparsed";
constexpr const char* STORE_EVENT_SQL =
    "SELECT qirn_fleet.store_event($1, $2, $3, $4, $5, $6, $7, $8)";
constexpr const char* STORE_UNPARSED_SQL = "SELECT qirn_fleet.store_unparsed($1, $2, $3)";
constexpr std::string_view NOT_AN_EVENT_LINE = "not an event line";

std::string oneLine(const char* text) {
    std::string line = text == nullptr ? "" : text;
    for (char& c : line) {
        if (static_cast<unsigned char>(c) < ' ') {
            c = ' ';
        }
    }
    while (!line.empty() && line.back() == ' ') {
        line.pop_back();
    }
    return line;
}

}  // namespace

EventStore::EventStore(std::string conninfo) : conninfo_(std::move(conninfo)) {}

EventStore::~EventStore() { disconnect(); }

EventStore::Outcome EventStore::store(std::string_view sender, std::string_view line) {
    Outcome outcome = storeOnce(sender, line);
    if (outcome == Outcome::FAILED && !inBatch_ && connectionLost()) {
        disconnect();
        outcome = storeOnce(sender, line);
    }
    return outcome;
}

bool EventStore::begin() {
    if (!command("BEGIN")) {
        return false;
    }
    inBatch_ = true;
    return true;
}

bool EventStore::commit() {
    inBatch_ = false;
    return command("COMMIT");
}

void EventStore::rollback() {
    inBatch_ = false;
    if (connection_ != nullptr && PQstatus(connection_) == CONNECTION_OK) {
        PQclear(PQexec(connection_, "ROLLBACK"));
    }
}

bool EventStore::connect() {
    if (connection_ != nullptr && PQstatus(connection_) == CONNECTION_OK) {
        return true;
    }
    disconnect();
    connection_ = PQconnectdb(conninfo_.c_str());
    if (PQstatus(connection_) != CONNECTION_OK) {
        lastError_ = "cannot connect to the event store: " + oneLine(PQerrorMessage(connection_));
        disconnect();
        return false;
    }
    struct Statement {
        const char* name;
        const char* sql;
        int parameters;
    };
    for (const Statement& statement :
         {Statement{STORE_EVENT, STORE_EVENT_SQL, 8}, {STORE_UNPARSED, STORE_UNPARSED_SQL, 3}}) {
        PGresult* result =
            PQprepare(connection_, statement.name, statement.sql, statement.parameters, nullptr);
        const bool prepared = PQresultStatus(result) == PGRES_COMMAND_OK;
        if (!prepared) {
            fail("cannot prepare the statements", result);
        }
        PQclear(result);
        if (!prepared) {
            disconnect();
            return false;
        }
    }
    return true;
}

void EventStore::disconnect() {
    if (connection_ != nullptr) {
        PQfinish(connection_);
        connection_ = nullptr;
    }
}

bool EventStore::connectionLost() const {
    return connection_ == nullptr || PQstatus(connection_) != CONNECTION_OK;
}

EventStore::Outcome EventStore::storeOnce(std::string_view sender, std::string_view line) {
    if (!inBatch_ && !connect()) {
        return Outcome::FAILED;
    }
    EventLine::Fields fields;
    if (!EventLine::parse(line, fields)) {
        const std::string_view values[] = {sender, line, NOT_AN_EVENT_LINE};
        const char* pointers[3];
        int lengths[3];
        for (int i = 0; i < 3; ++i) {
            pointers[i] = values[i].data();
            lengths[i] = static_cast<int>(values[i].size());
        }
        return run(STORE_UNPARSED, 3, pointers, lengths);
    }
    EventLine::composeKey(key_, fields.containerId, fields.path, fields.time);
    const std::string_view values[] = {sender,       line,        fields.time,   fields.containerId,
                                       fields.event, fields.path, fields.status, key_};
    const char* pointers[8];
    int lengths[8];
    for (int i = 0; i < 8; ++i) {
        pointers[i] = values[i].data();
        lengths[i] = static_cast<int>(values[i].size());
    }
    return run(STORE_EVENT, 8, pointers, lengths);
}

EventStore::Outcome EventStore::run(const char* statement, int count, const char* const* values,
                                    const int* lengths) {
    if (connection_ == nullptr) {
        lastError_ = "no connection to the event store";
        return Outcome::FAILED;
    }
    // Sent in binary form, which for text is the bytes themselves with their
    // length: the views point into the received line and end without a NUL.
    const int formats[8] = {1, 1, 1, 1, 1, 1, 1, 1};
    PGresult* result = PQexecPrepared(connection_, statement, count, values, lengths, formats, 0);
    Outcome outcome = Outcome::FAILED;
    if (PQresultStatus(result) == PGRES_TUPLES_OK && PQntuples(result) == 1) {
        const std::string_view answer = PQgetvalue(result, 0, 0);
        outcome = answer == "stored"      ? Outcome::STORED
                  : answer == "duplicate" ? Outcome::DUPLICATE
                                          : Outcome::UNPARSED;
    } else {
        fail("the store refused a line", result);
    }
    PQclear(result);
    return outcome;
}

bool EventStore::command(const char* sql) {
    if (!connect()) {
        return false;
    }
    PGresult* result = PQexec(connection_, sql);
    const bool done = PQresultStatus(result) == PGRES_COMMAND_OK;
    if (!done) {
        fail(sql, result);
    }
    PQclear(result);
    return done;
}

void EventStore::fail(std::string_view what, const PGresult* result) {
    lastError_.assign(what);
    lastError_ += ": ";
    const char* message = result != nullptr ? PQresultErrorMessage(result) : "";
    lastError_ +=
        oneLine(message != nullptr && *message != '\0' ? message : PQerrorMessage(connection_));
}
