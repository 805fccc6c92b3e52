// zelctl state: loads the cluster's snapshot, or a mirror's last save with --from, and prints it
// as JSON: whole, one kind, one item, or the number of records per kind.
#include <cstdio>
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

// Text passed on to stdout whenever this much has gathered.
constexpr std::size_t stdout_chunk = 64 * 1024;

// The record `id` of a snapshot key, or null; a workflow or workflow result is encoded into
// `tree`, which holds it.
const zelcore::property* find_record(const zelcapi::state& replica, const std::string& key,
                                     const std::string& id, zelcore::properties& tree) {
  zelcapi::state_item_type type{};
  if (item_type_of(key, type))
    return replica.has_item(type, id) ? &replica.get_item(type, id) : nullptr;
  if (!workflow_tree(replica, key, tree) || !tree.is_present(id)) return nullptr;
  return tree.get_property(id).get();
}

// Prints the part of the replica that the flags select: the counts of its records, or its JSON
// written straight from its trees a record at a time.
void print_selection(const zelcapi::state& replica, const state_flags& f) {
  if (f.count) {
    nlohmann::json counts = nlohmann::json::object();
    for (const auto& key : snapshot_keys()) {
      if (!f.kind.empty() && key != snapshot_key_of(f.kind)) continue;
      counts[key] = record_count(replica, key);
    }
    print_json(counts, true);
    return;
  }
  std::string text;
  json_writer out(text, true);
  const auto pass_on = [&text] {
    if (text.size() < stdout_chunk) return;
    std::fwrite(text.data(), 1, text.size(), stdout);
    text.clear();
  };
  if (f.kind.empty()) {
    write_state(out, replica, pass_on);
  } else if (f.id.empty()) {
    write_kind(out, replica, snapshot_key_of(f.kind), pass_on);
  } else {
    const std::string key = snapshot_key_of(f.kind);
    zelcore::properties tree;
    const zelcore::property* record = find_record(replica, key, f.id, tree);
    if (record == nullptr) {
      throw failure(exit_failure, "no " + key + " record '" + f.id + "' in the " +
                                      (f.from.empty() ? "cluster's state" : "mirror"));
    }
    out.value(*record);
  }
  text += '\n';
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

// Loads the snapshot of the cluster, or of the mirror's last complete save, and prints it.
void print_state(const state_flags& f, target& t) {
  zelcore::plugin_db plugins;
  if (f.from.empty()) {
    zelcapi::state_handler quiet;
    zelcapi::state_connection c(&quiet, 0, &plugins);
    load_snapshot(c, t);
    print_selection(*c.get_state(), f);
    return;
  }
  const mirror_location mirror = open_mirror(f.from, "--from", mirror_use::read_states);
  zelcapi::state replica(plugins, nullptr);
  try {
    if (!mirror.states->has_saved_state())
      throw failure(exit_failure, "the mirror at --from '" + mirror.name + "' holds no save yet");
    replica.set_and_update_from_state_db(mirror.states.get());
  } catch (const zelbase::es::base& e) {
    throw failure(exit_failure, "cannot load --from '" + mirror.name + "': " + e.message());
  }
  print_selection(replica, f);
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
            print_state(*flags, t);
            return int{exit_ok};
          }};
}

}  // namespace zelctl
