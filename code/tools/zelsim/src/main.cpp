// The zelsim program: a simulated cluster on consecutive loopback ports until SIGINT/SIGTERM.
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
  std::vector<std::string> users, admins;
  std::string accounts_file;
  CLI::App app{"zelsim: a simulated cluster on loopback"};
  app.add_option("--nodes", o.nodes, "number of nodes")->check(CLI::Range(1, 64));
  app.add_option("--master", o.master, "node number (1..nodes) of the master");
  app.add_option("--port", o.port, "port of node 1; the others follow (0: free ports)");
  app.add_option("--host", o.host, "address to listen on");
  app.add_option("--user", users, "a user account NAME:PASSWORD (repeatable)");
  app.add_option("--admin", admins, "an admin account NAME:PASSWORD (repeatable)");
  app.add_option("--accounts", accounts_file,
                 "file of 'user NAME PASSWORD' and 'admin NAME PASSWORD' lines");
  CLI11_PARSE(app, argc, argv);

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
