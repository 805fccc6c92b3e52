// zelctl's global options (where the cluster is, who logs in, output form, the embedded
// simulated cluster), its exit codes and the error that carries one.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include <CLI/CLI.hpp>

namespace zelctl {

// Exit codes: 0 success, 1 usage (bad flags or values), 2 the cluster could not be reached or
// refused the login, 3 anything else that failed (a request without answer, a file), 4 a work
// description with errors, 5 the master refused some item of a steering command (the others may
// have been applied); after a wait for submitted work: 6 it failed, 7 it was cancelled (killed),
// 8 the wait timed out, 9 it was removed before it ended (a lost link is 2).
enum exit_code : int {
  exit_ok = 0,
  exit_usage = 1,
  exit_connection = 2,
  exit_failure = 3,
  exit_invalid = 4,
  exit_refused = 5,
  exit_work_failed = 6,
  exit_work_cancelled = 7,
  exit_wait_timed_out = 8,
  exit_work_removed = 9,
  exit_interrupted = 130,  // a wait ended by Ctrl-C or SIGTERM (the shell's code for SIGINT)
};

// An error that ends the program: its message becomes the one line on stderr.
class failure : public std::runtime_error {
 public:
  failure(exit_code code, const std::string& message) : std::runtime_error(message), code_(code) {}
  exit_code code() const noexcept { return code_; }

 private:
  exit_code code_;
};

struct global_options {
  std::string host = "127.0.0.1";
  std::string port = "7000";
  std::string user;
  std::string password_file;
  unsigned timeout = 15;
  bool json = false;
  // An embedded simulated cluster instead of --host/--port.
  bool simulate = false;
  std::uint32_t rate = 200;
  std::size_t jobs = 1000;
  std::uint64_t seed = 1;
  std::uint64_t warm_up = 5000;
};

// Adds the global flags to the program's top level.
void add_global_options(CLI::App& app, global_options& options);

// Adds --json, and its other spelling -o json (-o text: the default), to a subcommand that
// prints a result.
void add_json_flag(CLI::App& command, global_options& options);

}  // namespace zelctl
