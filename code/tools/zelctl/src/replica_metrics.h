// The metrics of a replica kept by serve or mirror: what its state connection heard and the
// replica's records per state, counted as it happens (a handler between the connection and the
// program's own), and its records per kind.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "metrics.h"
#include "zelcapi/state.h"
#include "zelcapi/state_connection.h"

namespace zelctl {

// The records of one kind of a replica by their "state" field ("" when a record has none, or a
// state that is no string), kept as the changes arrive: the handler tells each change, whose
// record or update mostly names the new state; a change that does not (a property erased, a
// state merged into) is looked up in the replica at the next reading. A replica replaced whole
// (a snapshot) is counted whole at the next reading. What it keeps: the state of each record,
// about 60 bytes a record.
class state_tally {
 public:
  explicit state_tally(zelcapi::state_item_type kind) : kind_(kind) {}

  // The record `id` was set whole to `record`.
  void set(const std::string& id, const zelcore::properties& record);
  // The update `update` was merged into the record `id`.
  void updated(const std::string& id, const zelcore::properties& update);
  // The record `id` goes (removed or historized).
  void gone(const std::string& id);
  // The record `id` changed otherwise: its state is read from the replica at the next reading.
  void touched(const std::string& id);
  // The replica was replaced: the next reading counts it whole.
  void replaced();
  // The counts as `replica` holds them now, by state; a state that no record has is not there.
  const std::map<std::string, std::uint64_t>& counts(const zelcapi::state& replica);

 private:
  using state_index = std::uint32_t;
  state_index _index_of(const std::string& state);
  // Moves the record from the state it had (if any) to `state`.
  void _move(const std::string& id, const std::string& state);
  void _remove(const std::string& id);

  zelcapi::state_item_type kind_;
  bool whole_ = true;                      // count the replica whole at the next reading
  std::unordered_set<std::string> dirty_;  // ids to read from the replica at the next reading
  std::unordered_map<std::string, state_index> state_of_;
  std::vector<std::string> names_;  // of the states, by index
  std::unordered_map<std::string, state_index> index_of_;
  std::vector<std::uint64_t> by_index_;
  std::map<std::string, std::uint64_t> counts_;  // the last reading
};

// The "cluster.api.state." notifications by name, and what they did to the replica.
struct replica_counters {
  enum notification : unsigned {
    update_item,
    set_item,
    remove_item,
    erase_property_ref,
    historize_item,
    update_workflow_result,
    remove_workflow_result,
    add_workflow,
    remove_workflow,
    update_workflow,
    notification_count
  };
  // "cluster.api.state.update-item" and so on.
  static const char* name_of(unsigned n);

  std::uint64_t notifications[notification_count] = {};
  // Notifications that changed the replica (add-workflow and remove-workflow do not).
  std::uint64_t changes = 0;
  // Snapshots that replaced the replica, the first one included.
  std::uint64_t snapshots = 0;
  // The jobs and the nodes by state.
  state_tally jobs{zelcapi::state_item_job};
  state_tally nodes{zelcapi::state_item_node};
};

// Sits between a state connection and the program's handler `next`: counts into `counts`, then
// passes every call on and returns what `next` returns (an exception of `next` passes too).
// Called on the connection's thread, as `next` is.
class counting_handler final : public zelcapi::state_handler {
 public:
  counting_handler(zelcapi::state_handler& next, replica_counters& counts)
      : next_(next), counts_(counts) {}

  bool state_item_updated(zelcapi::state_item_type type, const std::string& id,
                          const zelcore::properties& props) override;
  bool state_item_set(zelcapi::state_item_type type, const std::string& id,
                      const zelcore::properties& props) override;
  bool state_item_removed(zelcapi::state_item_type type, const std::string& id) override;
  bool state_item_erased_property_ref(zelcapi::state_item_type type, const std::string& id,
                                      const std::string& ref) override;
  bool state_item_historized(zelcapi::state_item_type type, const std::string& id) override;
  bool state_workflow_result_added(const std::string& id,
                                   zelcapi::workflow_result_info result) override;
  bool state_workflow_result_removed(const std::string& id) override;
  bool state_workflow_added(const std::string& id, const zelcore::properties& workflow) override;
  bool state_workflow_removed(const std::string& id) override;
  bool state_workflow_updated(const zelcore::properties& command) override;
  bool state_pre_workflow_update(const zelcore::properties& command) override;
  bool state_new_state(const zelcore::properties& state) override;
  bool history_request_reply(std::uint32_t request_id,
                             const zelcore::property_list& history) override;
  bool handle(const zelnet::zelp::packet& in, zelnet::zelp::packet& out) override;
  bool status(zelcapi::result_code code, const std::string& text, bool flag) override;
  void disconnected(const std::string& reason, bool reconnecting) override;

 private:
  void heard(replica_counters::notification n);
  // The tally of the kind, if one is kept (jobs, nodes).
  state_tally* tally_of(zelcapi::state_item_type type);

  zelcapi::state_handler& next_;
  replica_counters& counts_;
};

// A record's "state" as the tallies count it: "" when it has none, or one that is no string.
const std::string& state_text(const zelcore::properties& record);
// The records of an item kind by their state_text.
std::map<std::string, std::uint64_t> count_by_state(const zelcapi::state::item_map& items);

// How the replica's link to the cluster stands, as its keeper knows it.
struct link_figures {
  bool connected = false;
  std::uint64_t reconnects = 0;  // times the link came back after it went
};

// The replica's families: zelcapi_replica_records{kind}, zelcapi_jobs{state},
// zelcapi_nodes{state}, zelcapi_changes_applied_total, zelcapi_notifications_total{name},
// zelcapi_snapshots_loaded_total, zelcapi_reconnects_total, zelcapi_cluster_connected. The
// states' counts are the tallies' (no walk over the records but after a snapshot).
void write_replica_metrics(metrics_text& out, const zelcapi::state& replica,
                           replica_counters& counts, const link_figures& link);

}  // namespace zelctl
