// The connection's own bounds, as libpq takes them: no server here, the
// connection string leads nowhere.

#include "agent/PgStoreSession.h"

#include <gtest/gtest.h>

namespace {

const std::string NOWHERE = "host=/nonexistent dbname=fleet";

}  // namespace

TEST(PgStoreSessionTest, ADeadLinkIsNoticedWithinSecondsByDefault) {
    EXPECT_EQ("5", PgStoreSession::settingFor(NOWHERE, "connect_timeout"));
    EXPECT_EQ("5000", PgStoreSession::settingFor(NOWHERE, "tcp_user_timeout"));
    EXPECT_EQ("1", PgStoreSession::settingFor(NOWHERE, "keepalives"));
    EXPECT_EQ("5", PgStoreSession::settingFor(NOWHERE, "keepalives_idle"));
    EXPECT_EQ("1", PgStoreSession::settingFor(NOWHERE, "keepalives_interval"));
    EXPECT_EQ("3", PgStoreSession::settingFor(NOWHERE, "keepalives_count"));
    EXPECT_EQ("qirn-fleet-agent", PgStoreSession::settingFor(NOWHERE, "application_name"));
    EXPECT_EQ("disable", PgStoreSession::settingFor(NOWHERE, "gssencmode"));
    EXPECT_EQ("fleet", PgStoreSession::settingFor(NOWHERE, "dbname"));
}

TEST(PgStoreSessionTest, TheConnectionStringOverridesTheBounds) {
    const std::string conninfo = NOWHERE + " tcp_user_timeout=20000 keepalives_idle=60";
    EXPECT_EQ("20000", PgStoreSession::settingFor(conninfo, "tcp_user_timeout"));
    EXPECT_EQ("60", PgStoreSession::settingFor(conninfo, "keepalives_idle"));
    EXPECT_EQ("5", PgStoreSession::settingFor(conninfo, "connect_timeout"));
}
