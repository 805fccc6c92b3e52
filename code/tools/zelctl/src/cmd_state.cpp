// zelctl state: loads the cluster's snapshot and prints it as JSON: whole, one kind, one item,
// or the number of records per kind.
#include <memory>
#include <string>

#include "commands.h"
#include "json_output.h"
#include "kinds.h"
#include "replica_json.h"
#include "zelcapi/state_connection.h"

namespace zelctl {
namespace {

struct state_flags {
  std::string kind;
  std::string id;
  bool count = false;
};

// The part of the snapshot that the flags select.
nlohmann::json select(const nlohmann::json& snapshot, const state_flags& f) {
  if (f.count) {
    nlohmann::json counts = nlohmann::json::object();
    for (const auto& key : snapshot_keys()) {
      if (!f.kind.empty() && key != snapshot_key_of(f.kind)) continue;
      counts[key] = snapshot.contains(key) ? snapshot[key].size() : 0;
    }
    return counts;
  }
  if (f.kind.empty()) return snapshot;
  const std::string key = snapshot_key_of(f.kind);
  const nlohmann::json records = snapshot.contains(key) ? snapshot[key] : nlohmann::json::object();
  if (f.id.empty()) return records;
  if (!records.contains(f.id)) {
    throw failure(exit_failure, "no " + key + " record '" + f.id + "' in the cluster's state");
  }
  return records[f.id];
}

}  // namespace

command add_state_command(CLI::App& app, global_options& options) {
  CLI::App* sub = app.add_subcommand("state", "print the cluster's state as JSON");
  auto flags = std::make_shared<state_flags>();
  CLI::Option* kind = sub->add_option("--kind", flags->kind, "only this kind (jobs, nodes, ...)")
                          ->check(CLI::IsMember(kind_names()));
  sub->add_option("--id", flags->id, "only this record of --kind")->needs(kind);
  sub->add_flag("--count", flags->count, "print the number of records per kind");
  add_json_flag(*sub, options);
  return {sub, [flags](target& t) {
            zelcore::plugin_db plugins;
            zelcapi::state_handler quiet;
            zelcapi::state_connection c(&quiet, 0, &plugins);
            load_snapshot(c, t);
            print_json(select(state_json(*c.get_state()), *flags), true);
            return int{exit_ok};
          }};
}

}  // namespace zelctl
