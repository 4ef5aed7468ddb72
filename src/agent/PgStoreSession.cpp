#include "agent/PgStoreSession.h"

#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

constexpr const char* POSITION_SQL =
    "SELECT file_key, file_offset FROM qirn_fleet.agent_position($1)";
constexpr const char* SHIP_SQL =
    "SELECT stored, duplicates, unparsed FROM "
    "qirn_fleet.agent_ship($1, $2, $3, $4, $5, $6, $7, $8, $9, $10)";
constexpr const char* HEARTBEAT_SQL = "SELECT qirn_fleet.agent_heartbeat($1, $2, $3, $4, $5)";
constexpr const char* RELEASE_SQL = "SELECT qirn_fleet.agent_release($1)";

// The types' oids are fixed in every PostgreSQL catalog.
constexpr Oid TEXT_OID = 25;
constexpr Oid INT4_OID = 23;
constexpr Oid INT8_OID = 20;
constexpr Oid FLOAT8_OID = 701;
constexpr Oid BYTEA_OID = 17;
constexpr Oid TEXT_ARRAY_OID = 1009;
constexpr Oid BYTEA_ARRAY_OID = 1001;
constexpr int BINARY = 1;
constexpr int TEXT_RESULTS = 0;
// Parameters of this size leave buffers worth giving back once idle.
constexpr std::size_t BULKY_PARAMETERS = std::size_t{256} << 10;

constexpr std::string_view POSITION_MOVED = "QF001";
constexpr std::string_view LEASE_HELD = "QF002";
constexpr std::string_view NOT_ENROLLED = "QF003";

// Every wait bounded: a store that does not answer a connection in 5 s, a
// link that dies under a call (data unacknowledged for 5 s), or under a call
// waiting for its reply (keepalives unanswered from 5 s idle on) is noticed
// within seconds instead of after TCP's own retransmissions (minutes). The
// connection string may override any of these. A host's credential is a
// certificate or a password, never Kerberos: not asking for GSSAPI
// encryption spares each connection a look for Kerberos credentials (and the
// agent the memory Kerberos' libraries take once used).
constexpr const char* CONNECT_KEYWORDS[] = {
    "connect_timeout",  "tcp_user_timeout", "keepalives", "keepalives_idle", "keepalives_interval",
    "keepalives_count", "application_name", "gssencmode", "dbname",          nullptr};
constexpr const char* CONNECT_DEFAULTS[] = {
    "5", "5000", "1", "5", "1", "3", "qirn-fleet-agent", "disable"};
static_assert(std::size(CONNECT_DEFAULTS) + 2 == std::size(CONNECT_KEYWORDS),
              "one default per keyword but dbname");

// The connection string comes last, so that what it says wins.
struct ConnectValues {
    explicit ConnectValues(const std::string& conninfo) {
        for (std::size_t i = 0; i < std::size(CONNECT_DEFAULTS); ++i) {
            values[i] = CONNECT_DEFAULTS[i];
        }
        values[std::size(CONNECT_DEFAULTS)] = conninfo.c_str();
    }
    const char* values[std::size(CONNECT_KEYWORDS)] = {};
};

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

void appendInt32(std::string& out, uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        out += static_cast<char>((value >> shift) & 0xff);
    }
}

void appendInt64(std::string& out, uint64_t value) {
    appendInt32(out, static_cast<uint32_t>(value >> 32));
    appendInt32(out, static_cast<uint32_t>(value));
}

std::string int32Value(int32_t value) {
    std::string out;
    appendInt32(out, static_cast<uint32_t>(value));
    return out;
}

std::string int64Value(int64_t value) {
    std::string out;
    appendInt64(out, static_cast<uint64_t>(value));
    return out;
}

std::string float8Value(double value) {
    uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return int64Value(static_cast<int64_t>(bits));
}

// A one-dimensional array in PostgreSQL's binary form: the elements' bytes go
// as they are, so nothing is escaped and any byte but NUL reaches a text.
std::string arrayValue(const std::vector<std::string_view>& elements, Oid elementType) {
    std::size_t size = 20;
    for (std::string_view element : elements) {
        size += 4 + element.size();
    }
    std::string out;
    out.reserve(size);
    appendInt32(out, 1);  // dimensions
    appendInt32(out, 0);  // no nulls
    appendInt32(out, elementType);
    appendInt32(out, static_cast<uint32_t>(elements.size()));
    appendInt32(out, 1);  // lower bound
    for (std::string_view element : elements) {
        appendInt32(out, static_cast<uint32_t>(element.size()));
        out.append(element.data(), element.size());
    }
    return out;
}

// One statement's parameters, all in binary form.
class Parameters {
public:
    void add(Oid type, std::string value) {
        values_.push_back(std::move(value));
        types_.push_back(type);
    }
    void addView(Oid type, std::string_view value) { add(type, std::string(value)); }

    int count() const { return static_cast<int>(values_.size()); }
    std::size_t bytes() const {
        std::size_t total = 0;
        for (const std::string& value : values_) {
            total += value.size();
        }
        return total;
    }
    const Oid* types() const { return types_.data(); }
    void pointers(std::vector<const char*>& values, std::vector<int>& lengths,
                  std::vector<int>& formats) const {
        values.clear();
        lengths.clear();
        formats.clear();
        for (const std::string& value : values_) {
            values.push_back(value.data());
            lengths.push_back(static_cast<int>(value.size()));
            formats.push_back(BINARY);
        }
    }

private:
    std::vector<std::string> values_;
    std::vector<Oid> types_;
};

Parameters shipParameters(const std::string& agent, const std::string& zone,
                          const StoreSession::Batch& batch) {
    Parameters parameters;
    parameters.addView(TEXT_OID, agent);
    parameters.addView(TEXT_OID, batch.stream);
    parameters.addView(TEXT_OID, batch.expectedFile);
    parameters.add(INT8_OID, int64Value(batch.expectedOffset));
    parameters.addView(TEXT_OID, batch.fileKey);
    parameters.add(INT8_OID, int64Value(batch.endOffset));
    parameters.addView(TEXT_OID, zone);
    parameters.add(TEXT_ARRAY_OID, arrayValue(batch.lines, TEXT_OID));
    parameters.add(BYTEA_ARRAY_OID, arrayValue(batch.unparsedLines, BYTEA_OID));
    parameters.add(TEXT_ARRAY_OID, arrayValue(batch.unparsedReasons, TEXT_OID));
    return parameters;
}

PGresult* execute(PGconn* connection, const char* sql, const Parameters& parameters) {
    std::vector<const char*> values;
    std::vector<int> lengths;
    std::vector<int> formats;
    parameters.pointers(values, lengths, formats);
    return PQexecParams(connection, sql, parameters.count(), parameters.types(), values.data(),
                        lengths.data(), formats.data(), TEXT_RESULTS);
}

bool sendQuery(PGconn* connection, const char* sql, const Parameters& parameters) {
    std::vector<const char*> values;
    std::vector<int> lengths;
    std::vector<int> formats;
    parameters.pointers(values, lengths, formats);
    return PQsendQueryParams(connection, sql, parameters.count(), parameters.types(), values.data(),
                             lengths.data(), formats.data(), TEXT_RESULTS) == 1;
}

int64_t numberAt(const PGresult* result, int column) {
    return PQgetisnull(result, 0, column) != 0
               ? 0
               : std::strtoll(PQgetvalue(result, 0, column), nullptr, 10);
}

}  // namespace

PgStoreSession::PgStoreSession(std::string conninfo, std::string agent, std::string zone)
    : conninfo_(std::move(conninfo)), agent_(std::move(agent)), zone_(std::move(zone)) {}

bool PgStoreSession::connected() const { return reached_; }

// libpq keeps a connection's buffers at the largest batch they held; after a
// burst an idle agent gives them back by closing, and opens a new connection
// for its next call. A light flow keeps its connection and its latency.
void PgStoreSession::rest() {
    if (bulky_) {
        connection_.reset();
        bulky_ = false;
    }
}

std::string PgStoreSession::settingFor(const std::string& conninfo, const std::string& keyword) {
    const ConnectValues values(conninfo);
    const Connection connection(PQconnectStartParams(CONNECT_KEYWORDS, values.values, 1));
    std::string setting;
    PQconninfoOption* options = connection != nullptr ? PQconninfo(connection.get()) : nullptr;
    for (PQconninfoOption* option = options; option != nullptr && option->keyword != nullptr;
         ++option) {
        if (keyword == option->keyword && option->val != nullptr) {
            setting = option->val;
        }
    }
    PQconninfoFree(options);
    return setting;
}

Status PgStoreSession::connect() {
    if (connection_ != nullptr && PQstatus(connection_.get()) == CONNECTION_OK) {
        return Status::success();
    }
    const ConnectValues values(conninfo_);
    connection_.reset(PQconnectdbParams(CONNECT_KEYWORDS, values.values, 1));
    if (connection_ == nullptr) {
        reached_ = false;
        return Status::failure(Status::Code::UNAVAILABLE,
                               "cannot connect to the store: out of memory");
    }
    if (PQstatus(connection_.get()) != CONNECTION_OK) {
        const std::string why = oneLine(PQerrorMessage(connection_.get()));
        const bool credential = why.find("authentication failed") != std::string::npos ||
                                why.find("certificate") != std::string::npos ||
                                why.find("pg_hba.conf") != std::string::npos ||
                                why.find("password") != std::string::npos;
        connection_.reset();
        reached_ = false;
        return Status::failure(Status::Code::UNAVAILABLE,
                               (credential ? "the store refused this host's credential: "
                                           : "cannot connect to the store: ") +
                                   why);
    }
    return Status::success();
}

Status PgStoreSession::statusOf(const PGresult* result, ExecStatusType wanted) {
    if (result != nullptr && PQresultStatus(result) == wanted) {
        reached_ = true;
        return Status::success();
    }
    const char* state = result != nullptr ? PQresultErrorField(result, PG_DIAG_SQLSTATE) : nullptr;
    const char* primary =
        result != nullptr ? PQresultErrorField(result, PG_DIAG_MESSAGE_PRIMARY) : nullptr;
    std::string message = oneLine(primary != nullptr ? primary : PQerrorMessage(connection_.get()));
    if (connection_ == nullptr || PQstatus(connection_.get()) != CONNECTION_OK) {
        connection_.reset();
        reached_ = false;
        return Status::failure(Status::Code::UNAVAILABLE, "lost the store: " + message);
    }
    reached_ = true;
    const std::string_view code = state != nullptr ? state : "";
    if (code == POSITION_MOVED) {
        return Status::failure(Status::Code::CONFLICT, message);
    }
    if (code == LEASE_HELD) {
        return Status::failure(Status::Code::BUSY, message);
    }
    if (code == NOT_ENROLLED) {
        return Status::failure(Status::Code::REFUSED, message);
    }
    return Status::failure(Status::Code::UNAVAILABLE,
                           "the store failed (" + std::string(code) + "): " + message);
}

Status PgStoreSession::position(const std::string& stream, Position& position) {
    Status status = connect();
    if (!status.ok()) {
        return status;
    }
    Parameters parameters;
    parameters.addView(TEXT_OID, stream);
    const Result result(execute(connection_.get(), POSITION_SQL, parameters));
    status = statusOf(result.get(), PGRES_TUPLES_OK);
    if (!status.ok()) {
        return status;
    }
    position = Position{};
    if (PQntuples(result.get()) > 0 && PQgetisnull(result.get(), 0, 0) == 0) {
        position.present = true;
        position.fileKey = PQgetvalue(result.get(), 0, 0);
        position.fileOffset = numberAt(result.get(), 1);
    }
    return Status::success();
}

PgStoreSession::Shipped PgStoreSession::shippedOf(const PGresult* result) {
    Shipped shipped;
    shipped.status = statusOf(result, PGRES_TUPLES_OK);
    if (shipped.status.ok() && PQntuples(result) > 0) {
        shipped.stored = numberAt(result, 0);
        shipped.duplicates = numberAt(result, 1);
        shipped.unparsed = numberAt(result, 2);
    }
    return shipped;
}

void PgStoreSession::ship(const std::vector<Batch>& batches, std::vector<Shipped>& replies) {
    replies.clear();
    const Status status = connect();
    if (!status.ok()) {
        replies.assign(batches.size(), Shipped{status, 0, 0, 0});
        return;
    }
    if (batches.size() > 1) {
        shipPipelined(batches, replies);
        return;
    }
    for (const Batch& batch : batches) {
        const Parameters parameters = shipParameters(agent_, zone_, batch);
        bulky_ = bulky_ || parameters.bytes() >= BULKY_PARAMETERS;
        const Result result(execute(connection_.get(), SHIP_SQL, parameters));
        replies.push_back(shippedOf(result.get()));
    }
}

// Each batch is followed by its own sync point, so each is its own implicit
// transaction: the second one's rows and position are committed only if it
// finds the position where the first one left it.
void PgStoreSession::shipPipelined(const std::vector<Batch>& batches,
                                   std::vector<Shipped>& replies) {
    PGconn* connection = connection_.get();
    if (PQenterPipelineMode(connection) != 1) {
        const Status failed =
            Status::failure(Status::Code::UNAVAILABLE,
                            "cannot start a pipeline: " + oneLine(PQerrorMessage(connection)));
        replies.assign(batches.size(), Shipped{failed, 0, 0, 0});
        return;
    }
    std::size_t sent = 0;
    for (const Batch& batch : batches) {
        const Parameters parameters = shipParameters(agent_, zone_, batch);
        bulky_ = bulky_ || parameters.bytes() >= BULKY_PARAMETERS;
        if (!sendQuery(connection, SHIP_SQL, parameters) || PQpipelineSync(connection) != 1) {
            break;
        }
        ++sent;
    }
    for (std::size_t i = 0; i < sent; ++i) {
        Result first(PQgetResult(connection));
        Shipped shipped = shippedOf(first.get());
        if (connection_ == nullptr) {
            replies.push_back(shipped);
            break;
        }
        // The statement's results end with a null, its transaction with a sync.
        while (Result more{PQgetResult(connection)}) {
        }
        const Result sync(PQgetResult(connection));
        replies.push_back(shipped);
    }
    if (connection_ != nullptr && PQexitPipelineMode(connection) != 1) {
        // Something is still owed on this connection: a new one is cleaner.
        connection_.reset();
        reached_ = false;
    }
    const Status unsent =
        Status::failure(Status::Code::UNAVAILABLE,
                        "a pipelined batch was not sent: " +
                            (connection_ != nullptr ? oneLine(PQerrorMessage(connection_.get()))
                                                    : std::string("the connection broke")));
    while (replies.size() < batches.size()) {
        replies.push_back(Shipped{unsent, 0, 0, 0});
    }
}

Status PgStoreSession::heartbeat(const Heartbeat& heartbeat) {
    Status status = connect();
    if (!status.ok()) {
        return status;
    }
    Parameters parameters;
    parameters.addView(TEXT_OID, agent_);
    parameters.addView(TEXT_OID, zone_);
    parameters.add(INT4_OID, int32Value(heartbeat.heartbeatSeconds));
    parameters.add(INT8_OID, int64Value(heartbeat.lagBytes));
    parameters.add(FLOAT8_OID, float8Value(heartbeat.lagSeconds));
    const Result result(execute(connection_.get(), HEARTBEAT_SQL, parameters));
    return statusOf(result.get(), PGRES_TUPLES_OK);
}

Status PgStoreSession::release() {
    Status status = connect();
    if (!status.ok()) {
        return status;
    }
    Parameters parameters;
    parameters.addView(TEXT_OID, agent_);
    const Result result(execute(connection_.get(), RELEASE_SQL, parameters));
    return statusOf(result.get(), PGRES_TUPLES_OK);
}
