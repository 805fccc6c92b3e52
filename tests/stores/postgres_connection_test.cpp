// The settings that the PostgreSQL stores' connections are made with: a connect time-out and TCP
// keepalives unless the connection string (or PGCONNECT_TIMEOUT) says otherwise, read back from
// libpq on open connections to the binary's private server; and a server that accepts but never
// answers gives up after the time-out.
#include <gtest/gtest.h>
#include <stdlib.h>

#include "postgres_connection.h"
#include "stores/store_test_support.h"
#include "support/postgres_server.h"
#include "support/raised_message.h"
#include "support/silent_socket.h"
#include "zelbase/exceptions.h"

using zelcapi::postgres_detail::connection;
using zeltest::postgres_environment;

namespace {

void expect_settings(const connection& c, const char* timeout, const char* idle) {
  EXPECT_EQ(c.setting("connect_timeout"), timeout);
  EXPECT_EQ(c.setting("keepalives"), "1");
  EXPECT_EQ(c.setting("keepalives_idle"), idle);
  EXPECT_EQ(c.setting("keepalives_interval"), "10");
  EXPECT_EQ(c.setting("keepalives_count"), "3");
}

}  // namespace

TEST(PostgresConnection, ConnectionsHaveATimeOutAndKeepalivesByDefault) {
  const connection c(postgres_environment::server().conninfo("postgres"));
  expect_settings(c, "10", "30");
}

TEST(PostgresConnection, SettingsOfTheConnectionStringComeFirst) {
  zeltest::postgres_server& server = postgres_environment::server();
  const connection pairs(server.conninfo("postgres") + " connect_timeout=3 keepalives_idle=7");
  expect_settings(pairs, "3", "7");
  const connection uri("postgresql:///postgres?host=" + server.socket_dir() +
                       "&user=" + server.user() + "&connect_timeout=4&keepalives_idle=8");
  expect_settings(uri, "4", "8");
  const connection off(server.conninfo("postgres") + " keepalives=0");
  EXPECT_EQ(off.setting("keepalives"), "0");
}

TEST(PostgresConnection, TimeOutOfTheEnvironmentComesBeforeTheDefault) {
  setenv("PGCONNECT_TIMEOUT", "6", 1);
  const connection c(postgres_environment::server().conninfo("postgres"));
  unsetenv("PGCONNECT_TIMEOUT");
  EXPECT_EQ(c.setting("connect_timeout"), "6");
}

TEST(PostgresConnection, ServerThatNeverAnswersIsGivenUpAfterTheTimeOut) {
  zeltest::scratch_dir dir;
  const std::string socket_dir = dir.file("");
  zeltest::silent_socket hung(dir.file(".s.PGSQL.5432"));
  const std::string message = zeltest::raised_message<zelbase::es::uspec>([&] {
    connection c("host=" + socket_dir.substr(0, socket_dir.size() - 1) +
                 " dbname=x connect_timeout=2");
  });
  EXPECT_NE(message.find("timeout expired"), std::string::npos) << message;
  EXPECT_EQ(hung.connections(), 1u);
}
