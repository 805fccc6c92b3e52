// zelctl login: checks a user's (or with --admin an administrator's) login and tells which node
// turned out to be the master.
#include <cstdio>
#include <memory>

#include "commands.h"
#include "json_output.h"
#include "zelcapi/connection.h"

namespace zelctl {

command add_login_command(CLI::App& app, global_options& options) {
  CLI::App* sub = app.add_subcommand("login", "check a login and show which node is the master");
  auto admin = std::make_shared<bool>(false);
  sub->add_flag("--admin", *admin, "log in as an administrator");
  add_json_flag(*sub, options);
  return {
      sub, [&options, admin](target& t) {
        zelcapi::connection c;
        const login_result r = *admin ? admin_log_in(c, t) : log_in(c, t);
        if (options.json) {
          print_json({{"user", t.user()},
                      {"admin", *admin},
                      {"master", r.master_id},
                      {"master-host", r.host},
                      {"master-port", r.port},
                      {"redirected", r.redirected}},
                     true);
        } else {
          std::printf(
              "%s login of '%s' OK; master is %s at %s:%s%s\n", *admin ? "admin" : "user",
              t.user().c_str(), r.master_id.c_str(), r.host.c_str(), r.port.c_str(),
              r.redirected ? (" (redirected from " + t.host() + ":" + t.port() + ")").c_str() : "");
        }
        return int{exit_ok};
      }};
}

}  // namespace zelctl
