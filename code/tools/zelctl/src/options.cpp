// zelctl's global flags: connection, login, time-out, output and the embedded cluster.
#include "options.h"

namespace zelctl {

void add_global_options(CLI::App& app, global_options& o) {
  app.add_option("--host", o.host, "address of any node of the cluster")->capture_default_str();
  app.add_option("--port", o.port, "client port of that node")->capture_default_str();
  app.add_option("--user", o.user,
                 "user name to log in with (default: demo with --simulate, else $USER)");
  app.add_option("--password-file", o.password_file,
                 "read the password from the first line of this file instead of a prompt")
      ->check(CLI::ExistingFile);
  app.add_option("--timeout", o.timeout, "seconds to wait for the cluster's answers")
      ->check(CLI::Range(1u, 3600u))
      ->capture_default_str();
  app.add_flag("--simulate", o.simulate,
               "run against an embedded simulated cluster (three nodes, user demo/demo) instead "
               "of --host/--port");
  app.add_option("--rate", o.rate, "with --simulate: workload changes per second")
      ->check(CLI::Range(0u, 1000000u))
      ->capture_default_str();
  app.add_option("--jobs", o.jobs, "with --simulate: live jobs the workload keeps at most")
      ->check(CLI::Range(std::size_t{1}, std::size_t{10000000}))
      ->capture_default_str();
  app.add_option("--seed", o.seed, "with --simulate: workload seed (same seed, same changes)")
      ->capture_default_str();
  app.add_option("--warm-up", o.warm_up,
                 "with --simulate: changes made before the cluster opens, so that it starts busy")
      ->check(CLI::Range(std::uint64_t{0}, std::uint64_t{100000000}))
      ->capture_default_str();
}

void add_json_flag(CLI::App& command, global_options& o) {
  command.add_flag("--json", o.json, "print the result as JSON");
  command
      .add_option_function<std::string>(
          "-o,--output", [&o](const std::string& form) { o.json = form == "json"; },
          "FORMAT: json (as --json) or text")
      ->check(CLI::IsMember({"text", "json"}));
}

}  // namespace zelctl
