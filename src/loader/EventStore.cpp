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
constexpr int STORE_EVENT_PARAMETERS = 8;
constexpr int STORE_UNPARSED_PARAMETERS = 3;
// Sent in binary form, which for text is the bytes themselves with their
// length: the views point into the received line and end without a NUL.
constexpr int BINARY[STORE_EVENT_PARAMETERS] = {1, 1, 1, 1, 1, 1, 1, 1};
// A pipeline reads its results after this many statements, so that neither
// side's socket buffer fills while the other waits.
constexpr std::size_t PIPELINE_CHUNK = 256;

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

// The statement and its parameters for one line: libpq copies them when the
// statement is sent, so they need to live only that long.
struct Statement {
    const char* name;
    int count;
    const char* values[STORE_EVENT_PARAMETERS];
    int lengths[STORE_EVENT_PARAMETERS];

    void set(int i, std::string_view value) {
        values[i] = value.data();
        lengths[i] = static_cast<int>(value.size());
    }
};

Statement statementFor(std::string_view sender, std::string_view line, std::string& key) {
    Statement statement{};
    EventLine::Fields fields;
    if (!EventLine::parse(line, fields)) {
        statement.name = STORE_UNPARSED;
        statement.count = STORE_UNPARSED_PARAMETERS;
        statement.set(0, sender);
        statement.set(1, line);
        statement.set(2, NOT_AN_EVENT_LINE);
        return statement;
    }
    EventLine::composeKey(key, fields.containerId, fields.path, fields.time);
    statement.name = STORE_EVENT;
    statement.count = STORE_EVENT_PARAMETERS;
    const std::string_view values[] = {sender,       line,        fields.time,   fields.containerId,
                                       fields.event, fields.path, fields.status, key};
    for (int i = 0; i < STORE_EVENT_PARAMETERS; ++i) {
        statement.set(i, values[i]);
    }
    return statement;
}

}  // namespace

EventStore::EventStore(std::string conninfo) : conninfo_(std::move(conninfo)) {}

EventStore::~EventStore() { disconnect(); }

void EventStore::split(std::string_view message, std::string_view& sender, std::string_view& line) {
    const std::size_t blank = message.find(' ');
    sender = blank == std::string_view::npos ? "" : message.substr(0, blank);
    line = blank == std::string_view::npos ? message : message.substr(blank + 1);
}

EventStore::Outcome EventStore::store(std::string_view sender, std::string_view line) {
    Outcome outcome = storeOnce(sender, line);
    if (outcome == Outcome::FAILED && connectionLost()) {
        disconnect();
        outcome = storeOnce(sender, line);
    }
    return outcome;
}

bool EventStore::storeBatch(const std::vector<std::string>& messages,
                            std::vector<Outcome>& outcomes) {
    outcomes.clear();
    if (!connect()) {
        return false;
    }
    if (PQenterPipelineMode(connection_) != 1) {
        fail("cannot start a pipeline", nullptr);
        return false;
    }
    // Statement 0 is BEGIN, 1 to N store the lines, N + 1 is COMMIT.
    const std::size_t commitIndex = messages.size() + 1;
    std::size_t sent = 0;
    std::size_t read = 0;
    bool stored = true;
    const auto readUpTo = [&](std::size_t upTo) {
        while (read < upTo) {
            PGresult* result = PQgetResult(connection_);
            if (result == nullptr) {
                if (stored) {
                    fail("the batch's results ended early", nullptr);
                }
                stored = false;
                return false;
            }
            const ExecStatusType status = PQresultStatus(result);
            if (read > 0 && read < commitIndex && status == PGRES_TUPLES_OK) {
                outcomes.push_back(outcomeOf(result));
            } else if (status != PGRES_COMMAND_OK) {
                if (stored) {
                    fail("the store refused the batch", result);
                }
                stored = false;
            }
            PQclear(result);
            // Each statement's results end with a null result.
            PQclear(PQgetResult(connection_));
            ++read;
        }
        return true;
    };
    const auto sendCommand = [&](const char* sql) {
        return PQsendQueryParams(connection_, sql, 0, nullptr, nullptr, nullptr, nullptr, 0) == 1;
    };
    bool sending = sendCommand("BEGIN");
    sent = sending ? 1 : 0;
    for (std::size_t i = 0; sending && stored && i < messages.size(); ++i) {
        std::string_view sender;
        std::string_view line;
        split(messages[i], sender, line);
        const Statement statement = statementFor(sender, line, key_);
        sending = PQsendQueryPrepared(connection_, statement.name, statement.count,
                                      statement.values, statement.lengths, BINARY, 0) == 1;
        sent += sending ? 1 : 0;
        if (sending && sent % PIPELINE_CHUNK == 0) {
            sending =
                PQsendFlushRequest(connection_) == 1 && PQflush(connection_) == 0 && readUpTo(sent);
        }
    }
    if (sending && stored) {
        sending = sendCommand("COMMIT");
        sent += sending ? 1 : 0;
    }
    if (!sending && stored) {
        fail("cannot send the batch", nullptr);
        stored = false;
    }
    // Everything sent is read back, up to the pipeline's end, so that the
    // connection is usable again.
    if (PQpipelineSync(connection_) == 1 && readUpTo(sent)) {
        PGresult* result = PQgetResult(connection_);
        if (PQresultStatus(result) != PGRES_PIPELINE_SYNC && stored) {
            fail("the batch's pipeline did not end", result);
            stored = false;
        }
        PQclear(result);
    } else {
        stored = false;
    }
    stored = stored && read == commitIndex + 1;
    PQexitPipelineMode(connection_);
    if (!stored) {
        outcomes.clear();
        if (connectionLost()) {
            disconnect();
        } else if (PQtransactionStatus(connection_) != PQTRANS_IDLE) {
            PQclear(PQexec(connection_, "ROLLBACK"));
        }
    }
    return stored;
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
    struct Prepared {
        const char* name;
        const char* sql;
        int parameters;
    };
    for (const Prepared& statement :
         {Prepared{STORE_EVENT, STORE_EVENT_SQL, STORE_EVENT_PARAMETERS},
          {STORE_UNPARSED, STORE_UNPARSED_SQL, STORE_UNPARSED_PARAMETERS}}) {
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
    if (!connect()) {
        return Outcome::FAILED;
    }
    const Statement statement = statementFor(sender, line, key_);
    PGresult* result = PQexecPrepared(connection_, statement.name, statement.count,
                                      statement.values, statement.lengths, BINARY, 0);
    Outcome outcome = Outcome::FAILED;
    if (PQresultStatus(result) == PGRES_TUPLES_OK) {
        outcome = outcomeOf(result);
    } else {
        fail("the store refused a line", result);
    }
    PQclear(result);
    return outcome;
}

EventStore::Outcome EventStore::outcomeOf(const PGresult* result) {
    if (PQntuples(result) != 1) {
        return Outcome::FAILED;
    }
    const std::string_view answer = PQgetvalue(result, 0, 0);
    return answer == "stored"      ? Outcome::STORED
           : answer == "duplicate" ? Outcome::DUPLICATE
                                   : Outcome::UNPARSED;
}

void EventStore::fail(std::string_view what, const PGresult* result) {
    lastError_.assign(what);
    lastError_ += ": ";
    const char* message = result != nullptr ? PQresultErrorMessage(result) : "";
    lastError_ +=
        oneLine(message != nullptr && *message != '\0' ? message : PQerrorMessage(connection_));
}
