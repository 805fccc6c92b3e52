// zelctl status: the cluster's master and its nodes with their hosts, as a table or JSON.
#include <cstdio>

#include "commands.h"
#include "json_output.h"
#include "zelcapi/connection.h"

namespace zelctl {
namespace {

nlohmann::json status_json(const zelcore::properties& reply, const login_result& where) {
  nlohmann::json nodes = nlohmann::json::array();
  if (const auto* hosts = reply.get_properties_value_ptr("host-list")) {
    for (const auto& [id, entry] : *hosts) {
      if (!entry || entry->kind() != zelcore::property::kind_properties) continue;
      const auto& e = static_cast<const zelcore::properties&>(*entry);
      nodes.push_back({{"id", id},
                       {"host", e.get_string_value("hostname", "")},
                       {"port", e.get_string_value("client-port", "")},
                       {"master", id == where.master_id}});
    }
  }
  return {
      {"master", where.master_id},
      {"answered-by", where.node_id},
      {"node-count", reply.get_int_value("node-count", static_cast<std::int64_t>(nodes.size()))},
      {"nodes", nodes}};
}

void print_table(const nlohmann::json& status) {
  std::printf("master: %s\n", status["master"].get<std::string>().c_str());
  std::printf("%-16s %-24s %-7s %s\n", "NODE", "HOST", "PORT", "ROLE");
  for (const auto& n : status["nodes"]) {
    std::printf("%-16s %-24s %-7s %s\n", n["id"].get<std::string>().c_str(),
                n["host"].get<std::string>().c_str(), n["port"].get<std::string>().c_str(),
                n["master"].get<bool>() ? "master" : "node");
  }
}

}  // namespace

command add_status_command(CLI::App& app, global_options& options) {
  CLI::App* sub = app.add_subcommand("status", "show the cluster's master and nodes (no login)");
  add_json_flag(*sub, options);
  return {sub, [&options](target& t) {
            zelcapi::connection c;
            login_result where;
            const zelcore::properties reply = cluster_status(c, t, where);
            const nlohmann::json status = status_json(reply, where);
            if (options.json) {
              print_json(status, true);
            } else {
              print_table(status);
            }
            return int{exit_ok};
          }};
}

}  // namespace zelctl
