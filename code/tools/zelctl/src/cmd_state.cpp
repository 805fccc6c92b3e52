// zelctl state: loads the cluster's snapshot, or a mirror's last save with --from, and prints it
// as JSON: whole, one kind, one item, or the number of records per kind.
#include <memory>
#include <string>

#include "commands.h"
#include "json_output.h"
#include "kinds.h"
#include "mirror_location.h"
#include "replica_json.h"
#include "zelbase/exceptions.h"
#include "zelcapi/state_connection.h"

namespace zelctl {
namespace {

struct state_flags {
  std::string kind;
  std::string id;
  bool count = false;
  std::string from;
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
    throw failure(exit_failure, "no " + key + " record '" + f.id + "' in the " +
                                    (f.from.empty() ? "cluster's state" : "mirror"));
  }
  return records[f.id];
}

// The snapshot of the cluster, or of the mirror's last complete save, as JSON.
nlohmann::json snapshot_of(const state_flags& f, target& t) {
  zelcore::plugin_db plugins;
  if (f.from.empty()) {
    zelcapi::state_handler quiet;
    zelcapi::state_connection c(&quiet, 0, &plugins);
    load_snapshot(c, t);
    return state_json(*c.get_state());
  }
  const mirror_location mirror = open_mirror(f.from, "--from", mirror_use::read_states);
  try {
    if (!mirror.states->has_saved_state())
      throw failure(exit_failure, "the mirror at --from '" + mirror.name + "' holds no save yet");
    zelcapi::state replica(plugins, nullptr);
    replica.set_and_update_from_state_db(mirror.states.get());
    return state_json(replica);
  } catch (const zelbase::es::base& e) {
    throw failure(exit_failure, "cannot load --from '" + mirror.name + "': " + e.message());
  }
}

}  // namespace

command add_state_command(CLI::App& app, global_options& options) {
  CLI::App* sub = app.add_subcommand("state", "print the cluster's state as JSON");
  auto flags = std::make_shared<state_flags>();
  CLI::Option* kind = sub->add_option("--kind", flags->kind, "only this kind (jobs, nodes, ...)")
                          ->check(CLI::IsMember(kind_names()));
  sub->add_option("--id", flags->id, "only this record of --kind")->needs(kind);
  sub->add_flag("--count", flags->count, "print the number of records per kind");
  sub->add_option("--from", flags->from,
                  "read a mirror's last save (an SQLite file or a PostgreSQL connection string) "
                  "instead of the cluster");
  add_json_flag(*sub, options);
  return {sub, [flags](target& t) {
            print_json(select(snapshot_of(*flags, t), *flags), true);
            return int{exit_ok};
          }};
}

}  // namespace zelctl
