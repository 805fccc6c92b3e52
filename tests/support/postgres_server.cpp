// The private PostgreSQL server of a test binary: initdb, pg_ctl start and stop run as children
// (under the "postgres" user's ids when the tests run as root, since the server refuses root),
// the superuser's statements through libpq.
#include "support/postgres_server.h"

#include <fcntl.h>
#include <glob.h>
#include <grp.h>
#include <libpq-fe.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace zeltest {

namespace {

std::string output_of(const char* command) {
  std::string out;
  if (FILE* pipe = ::popen(command, "r")) {
    char buffer[512];
    while (std::fgets(buffer, sizeof buffer, pipe)) out += buffer;
    ::pclose(pipe);
  }
  while (!out.empty() && (out.back() == '\n' || out.back() == ' ')) out.pop_back();
  return out;
}

// The directory of initdb and pg_ctl: pg_config's, or the newest of Debian's versioned ones.
std::string server_bindir() {
  const std::string configured = output_of("pg_config --bindir 2>/dev/null");
  if (!configured.empty() && std::filesystem::exists(configured + "/initdb")) return configured;
  glob_t found{};
  std::string newest;
  if (::glob("/usr/lib/postgresql/*/bin/initdb", 0, nullptr, &found) == 0) {
    for (std::size_t i = 0; i < found.gl_pathc; ++i) newest = found.gl_pathv[i];
  }
  ::globfree(&found);
  if (newest.empty())
    throw std::runtime_error("no PostgreSQL server programs (initdb) found: install postgresql");
  return std::filesystem::path(newest).parent_path().string();
}

std::string read_all(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// Runs `argv` to its end with its output appended to `log`, under the ids of `account` when
// this process is root; throws with the log when it fails.
void run_tool(const std::vector<std::string>& argv, const std::string& log, const passwd* account) {
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  const pid_t pid = ::fork();
  if (pid == 0) {
    const int out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    const int null = ::open("/dev/null", O_RDONLY);
    ::dup2(null, STDIN_FILENO);
    ::dup2(out, STDOUT_FILENO);
    ::dup2(out, STDERR_FILENO);
    if (account && (::setgroups(0, nullptr) != 0 || ::setgid(account->pw_gid) != 0 ||
                    ::setuid(account->pw_uid) != 0))
      ::_exit(126);
    ::execv(args[0], args.data());
    ::_exit(127);
  }
  int status = 0;
  if (pid < 0 || ::waitpid(pid, &status, 0) != pid || !WIFEXITED(status) ||
      WEXITSTATUS(status) != 0)
    throw std::runtime_error(argv[0] + " failed:\n" + read_all(log));
}

const passwd* server_account() {
  if (::geteuid() != 0) return nullptr;
  const passwd* account = ::getpwnam("postgres");
  if (!account)
    throw std::runtime_error("running as root, and no \"postgres\" user to run the server");
  return account;
}

struct pg_closer {
  void operator()(PGconn* c) const noexcept { PQfinish(c); }
};
struct result_clearer {
  void operator()(PGresult* r) const noexcept { PQclear(r); }
};

postgres_server* running = nullptr;

}  // namespace

struct postgres_session::connection {
  std::unique_ptr<PGconn, pg_closer> conn;
  std::unique_ptr<PGresult, result_clearer> run(const std::string& sql) {
    std::unique_ptr<PGresult, result_clearer> r(PQexec(conn.get(), sql.c_str()));
    const ExecStatusType status = PQresultStatus(r.get());
    if (status != PGRES_TUPLES_OK && status != PGRES_COMMAND_OK)
      throw std::runtime_error(sql + ": " + PQerrorMessage(conn.get()));
    return r;
  }
};

postgres_session::postgres_session(const std::string& conninfo)
    : conn_(new connection{std::unique_ptr<PGconn, pg_closer>(PQconnectdb(conninfo.c_str()))}) {
  if (PQstatus(conn_->conn.get()) != CONNECTION_OK)
    throw std::runtime_error(std::string("cannot connect: ") + PQerrorMessage(conn_->conn.get()));
}

postgres_session::~postgres_session() = default;

void postgres_session::execute(const std::string& sql) { conn_->run(sql); }

std::string postgres_session::query(const std::string& sql) {
  const auto r = conn_->run(sql);
  return PQntuples(r.get()) > 0 ? PQgetvalue(r.get(), 0, 0) : "";
}

std::int64_t postgres_session::query_int(const std::string& sql) {
  const std::string value = query(sql);
  if (value.empty()) throw std::runtime_error(sql + ": no value");
  return std::stoll(value);
}

postgres_server::postgres_server() : bindir_(server_bindir()) {
  char pattern[] = "/tmp/zelpg-XXXXXX";
  if (!::mkdtemp(pattern)) throw std::runtime_error("mkdtemp failed");
  dir_ = pattern;
  const passwd* account = server_account();
  if (account && ::chown(dir_.c_str(), account->pw_uid, account->pw_gid) != 0)
    throw std::runtime_error("cannot give " + dir_ + " to the postgres user");
  run_tool({bindir_ + "/initdb", "-D", dir_ + "/data", "-U", user_, "-A", "trust", "-E", "UTF8",
            "--locale=C", "--no-sync", "--no-instructions"},
           dir_ + "/initdb.log", account);
  start();
}

postgres_server::~postgres_server() {
  try {
    _pg_ctl("stop", "fast");
  } catch (const std::exception&) {
  }
  std::error_code ignored;
  std::filesystem::remove_all(dir_, ignored);
}

void postgres_server::_pg_ctl(const std::string& command, const std::string& mode) {
  std::vector<std::string> argv{bindir_ + "/pg_ctl", command, "-D", dir_ + "/data", "-w", "-s"};
  if (!mode.empty()) argv.insert(argv.end(), {"-m", mode});
  if (command == "start") {
    // Only the socket in the directory; no TCP, no durability (a crash test still loses nothing
    // committed, as the server's own memory and files survive a server-only crash).
    argv.insert(argv.end(), {"-l", dir_ + "/server.log", "-o",
                             "-c listen_addresses='' -c unix_socket_directories='" + dir_ +
                                 "' -c fsync=off -c full_page_writes=off"});
  }
  run_tool(argv, dir_ + "/pg_ctl.log", server_account());
}

void postgres_server::start() { _pg_ctl("start", ""); }

void postgres_server::stop_immediately() { _pg_ctl("stop", "immediate"); }

std::string postgres_server::conninfo(const std::string& dbname) const {
  return "host=" + dir_ + " user=" + user_ + " dbname=" + dbname;
}

std::string postgres_server::fresh_database() {
  const std::string name = "test" + std::to_string(++databases_);
  execute("postgres", "CREATE DATABASE " + name);
  return conninfo(name);
}

void postgres_server::execute(const std::string& dbname, const std::string& sql) const {
  std::string info = conninfo(dbname);
  if (!password_.empty()) info += " password=" + password_;
  postgres_session(info).execute(sql);
}

std::int64_t postgres_server::query_int(const std::string& dbname, const std::string& sql) const {
  std::string info = conninfo(dbname);
  if (!password_.empty()) info += " password=" + password_;
  return postgres_session(info).query_int(sql);
}

void postgres_server::require_password(const std::string& password) {
  execute("postgres", "ALTER USER " + user_ + " PASSWORD '" + password + "'");
  password_ = password;
  std::ofstream(dir_ + "/data/pg_hba.conf", std::ios::trunc) << "local all all scram-sha-256\n";
  execute("postgres", "SELECT pg_reload_conf()");
}

void postgres_environment::SetUp() {
  try {
    running = new postgres_server();
  } catch (const std::exception& e) {
    FAIL() << "the PostgreSQL server of the tests did not start: " << e.what();
  }
}

void postgres_environment::TearDown() {
  delete running;
  running = nullptr;
}

postgres_server& postgres_environment::server() {
  if (!running) throw std::runtime_error("no PostgreSQL server: the environment did not start");
  return *running;
}

}  // namespace zeltest
