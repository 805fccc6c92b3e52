// The metrics of a replica kept by serve or mirror: what its state connection heard, counted as
// it happens (a handler between the connection and the program's own), and the replica's
// records per kind and per state, counted when the metrics are asked for.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "metrics.h"
#include "zelcapi/state.h"
#include "zelcapi/state_connection.h"

namespace zelctl {

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

  zelcapi::state_handler& next_;
  replica_counters& counts_;
};

// The records of an item kind by their "state" field ("" when a record has none).
std::map<std::string, std::uint64_t> count_by_state(const zelcapi::state::item_map& items);

// How the replica's link to the cluster stands, as its keeper knows it.
struct link_figures {
  bool connected = false;
  std::uint64_t reconnects = 0;  // times the link came back after it went
};

// The replica's families: zelcapi_replica_records{kind}, zelcapi_jobs{state},
// zelcapi_nodes{state}, zelcapi_changes_applied_total, zelcapi_notifications_total{name},
// zelcapi_snapshots_loaded_total, zelcapi_reconnects_total, zelcapi_cluster_connected. A walk
// over the jobs and the nodes, no copy of a record.
void write_replica_metrics(metrics_text& out, const zelcapi::state& replica,
                           const replica_counters& counts, const link_figures& link);

}  // namespace zelctl
