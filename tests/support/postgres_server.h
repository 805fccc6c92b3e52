// Test support: a private PostgreSQL server in a temporary directory, reachable only through a
// Unix socket there, run by Debian's initdb and pg_ctl (as the "postgres" user when the tests
// run as root), with a fresh database per test.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>

namespace zeltest {

// A connection of the test's own to a server, apart from the stores' connections.
class postgres_session {
 public:
  // Raises std::runtime_error with libpq's text when the connection fails.
  explicit postgres_session(const std::string& conninfo);
  ~postgres_session();
  postgres_session(const postgres_session&) = delete;
  postgres_session& operator=(const postgres_session&) = delete;

  // Runs `sql` (statements without parameters); raises std::runtime_error with the server's text.
  void execute(const std::string& sql);
  // The first value of the answer to `sql` ("" when there is no row).
  std::string query(const std::string& sql);
  std::int64_t query_int(const std::string& sql);

 private:
  struct connection;
  std::unique_ptr<connection> conn_;
};

class postgres_server {
 public:
  // Creates the cluster and starts the server; raises std::runtime_error with the tools' output
  // when either fails.
  postgres_server();
  // Stops the server and removes the directory.
  ~postgres_server();
  postgres_server(const postgres_server&) = delete;
  postgres_server& operator=(const postgres_server&) = delete;

  // A connection string to `dbname` as the cluster's superuser, without password.
  std::string conninfo(const std::string& dbname) const;
  // Creates an empty database and returns its connection string.
  std::string fresh_database();

  // pg_ctl stop -m immediate: the server dies as in a crash, without a checkpoint.
  void stop_immediately();
  // pg_ctl start, after a stop.
  void start();

  // Runs `sql` in `dbname` as the superuser; raises std::runtime_error with the server's text.
  void execute(const std::string& dbname, const std::string& sql) const;
  // The first column of the first row of `sql`'s answer as an integer.
  std::int64_t query_int(const std::string& dbname, const std::string& sql) const;
  // Sets the password of the superuser and requires it (SCRAM) for every connection from then
  // on; the fixture's own connections give it.
  void require_password(const std::string& password);

  // How the stores' error texts name the server of `conninfo`, a database of this server:
  // "host=<dir> dbname=<name> user=<user>".
  std::string label_of(const std::string& conninfo) const {
    return "host=" + dir_ + " dbname=" + conninfo.substr(conninfo.rfind('=') + 1) +
           " user=" + user_;
  }
  const std::string& socket_dir() const noexcept { return dir_; }
  const std::string& user() const noexcept { return user_; }

 private:
  // pg_ctl `command` with the stop `mode` (fast, immediate) when not empty.
  void _pg_ctl(const std::string& command, const std::string& mode);

  std::string bindir_;
  std::string dir_;
  std::string user_ = "zeltest";
  std::string password_;
  int databases_ = 0;
};

// The server of one test binary: started before its first test, stopped after its last one.
class postgres_environment : public testing::Environment {
 public:
  void SetUp() override;
  void TearDown() override;
  // The running server; fails the test when it could not start.
  static postgres_server& server();
};

}  // namespace zeltest
