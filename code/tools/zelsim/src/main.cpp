// The zelsim program: a simulated cluster on consecutive loopback ports, its master's state
// changed by a seeded workload and by the work that clients submit, until SIGINT/SIGTERM.
#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "zelbase/exceptions.h"
#include "zelsim/cluster.h"

namespace {

// "NAME:PASSWORD" into the table; false when there is no colon.
bool add_account(const std::string& text, std::map<std::string, std::string>& accounts) {
  const auto colon = text.find(':');
  if (colon == std::string::npos || colon == 0) return false;
  accounts[text.substr(0, colon)] = text.substr(colon + 1);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  zelsim::options o;
  // The account a new user logs in with; --user adds others or gives it another password.
  o.users = {{"demo", "demo"}};
  o.workload = true;
  o.rate = 10;
  bool idle = false;
  std::uint64_t changes = 0;
  std::vector<std::string> users, admins;
  std::string accounts_file;
  CLI::App app{
      "zelsim: a simulated cluster on loopback. Log in as user \"demo\" with password \"demo\"."};
  app.add_option("--nodes", o.nodes, "number of nodes")->check(CLI::Range(1, 64));
  app.add_option("--master", o.master, "node number (1..nodes) of the master");
  app.add_option("--port", o.port, "port of node 1; the others follow (0: free ports)");
  app.add_option("--host", o.host, "address to listen on");
  app.add_option("--user", users,
                 "a user account NAME:PASSWORD (repeatable); the user demo:demo is always there "
                 "unless given another password");
  app.add_option("--admin", admins, "an admin account NAME:PASSWORD (repeatable)");
  app.add_option("--accounts", accounts_file,
                 "file of 'user NAME PASSWORD' and 'admin NAME PASSWORD' lines");
  app.add_option("--rate", o.rate, "workload changes per second (0: as fast as possible)")
      ->check(CLI::Range(0u, 1000000u))
      ->capture_default_str();
  app.add_option("--jobs", o.jobs, "live jobs the workload keeps at most")
      ->check(CLI::Range(std::size_t{1}, std::size_t{10000000}))
      ->capture_default_str();
  app.add_option("--seed", o.seed, "workload seed: the same seed gives the same changes")
      ->capture_default_str();
  app.add_option("--warm-up", o.warm_up,
                 "changes made at once before the nodes listen, so that the cluster starts busy")
      ->check(CLI::Range(std::uint64_t{0}, std::uint64_t{100000000}))
      ->capture_default_str();
  app.add_option("--start-time", o.start_time,
                 "the workload's clock at its start, seconds since 1970 (0: now)");
  app.add_option("--history-keep", o.history_keep_time,
                 "seconds the master keeps history (0: none)")
      ->capture_default_str();
  app.add_flag("--idle", idle,
               "no workload: the state keeps its nodes and templates, and what clients submit");
  app.add_option("--run-ms", o.run_ms,
                 "simulated run time in milliseconds of a submitted job or task that names none")
      ->check(CLI::Range(0u, 86400000u))
      ->capture_default_str();
  app.add_option("--key-keep", o.key_keep_time,
                 "seconds the master remembers client keys and the ids of ended workflows")
      ->check(CLI::Range(1u, 604800u))
      ->capture_default_str();
  app.add_option("--job-keep", o.job_keep_time,
                 "seconds an ended submitted job stays live before it goes to history")
      ->check(CLI::Range(0u, 604800u))
      ->capture_default_str();
  app.add_option("--changes", changes,
                 "the workload makes this many changes, then stops (0: no end)")
      ->excludes("--idle");
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    std::fprintf(stderr, "zelsim: %s (see zelsim --help)\n", e.what());
    return 2;
  }
  o.workload = !idle && changes == 0;

  for (const auto& u : users) {
    if (!add_account(u, o.users)) {
      std::fprintf(stderr, "zelsim: --user wants NAME:PASSWORD, got '%s'\n", u.c_str());
      return 2;
    }
  }
  for (const auto& a : admins) {
    if (!add_account(a, o.admins)) {
      std::fprintf(stderr, "zelsim: --admin wants NAME:PASSWORD, got '%s'\n", a.c_str());
      return 2;
    }
  }

  // Block the stop signals in every thread, then wait for them here.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

  try {
    if (!accounts_file.empty()) zelsim::read_accounts_file(accounts_file, o);
    zelsim::cluster sim(o);
    sim.start();
    if (changes > 0) sim.run_workload(changes);
    int received = 0;
    sigwait(&stop_signals, &received);
    std::fprintf(stderr, "zelsim: stopping on %s\n", received == SIGINT ? "SIGINT" : "SIGTERM");
    sim.stop();
  } catch (const zelbase::es::base& e) {
    std::fprintf(stderr, "zelsim: %s\n", e.message().c_str());
    return 1;
  }
  return 0;
}
