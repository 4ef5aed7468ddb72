#pragma once
// The store over libpq: one connection, opened when a call needs it and
// dropped when it breaks, so that the next call opens a new one. Only
// unnamed statements with binary parameters, one statement per transaction,
// so that PgBouncer's transaction pooling can hand the server connection to
// another host between any two calls.

#include <libpq-fe.h>

#include <memory>
#include <string>

#include "agent/StoreSession.h"

class PgStoreSession : public StoreSession {
public:
    // `agent` names this running agent, `zone` the host's time zone; both go
    // with every call that needs them.
    PgStoreSession(std::string conninfo, std::string agent, std::string zone);

    Status position(const std::string& stream, Position& position) override;
    void ship(const std::vector<Batch>& batches, std::vector<Shipped>& replies) override;
    Status heartbeat(const Heartbeat& heartbeat) override;
    Status release() override;
    void rest() override;
    bool connected() const override;

    // The value libpq takes for `keyword` given this connection string: the
    // agent's default unless the string says otherwise. Starts no connection
    // beyond libpq's first non-blocking step.
    static std::string settingFor(const std::string& conninfo, const std::string& keyword);

private:
    struct ConnectionCloser {
        void operator()(PGconn* connection) const { PQfinish(connection); }
    };
    struct ResultClearer {
        void operator()(PGresult* result) const { PQclear(result); }
    };
    using Connection = std::unique_ptr<PGconn, ConnectionCloser>;
    using Result = std::unique_ptr<PGresult, ResultClearer>;

    Status connect();
    // The status of one statement's result; drops a broken connection.
    Status statusOf(const PGresult* result, ExecStatusType wanted);
    Shipped shippedOf(const PGresult* result);
    void shipPipelined(const std::vector<Batch>& batches, std::vector<Shipped>& replies);

    std::string conninfo_;
    std::string agent_;
    std::string zone_;
    Connection connection_;
    bool reached_ = false;
    // The connection carried a batch big enough to leave large buffers.
    bool bulky_ = false;
};
