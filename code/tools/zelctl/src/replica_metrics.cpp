// Counting a replica's notifications on their way to the program's handler, and writing the
// replica's figures as metrics.
#include "replica_metrics.h"

#include <algorithm>

#include "kinds.h"

namespace zelctl {
namespace {

const char* const notification_texts[replica_counters::notification_count] = {
    "cluster.api.state.update-item",
    "cluster.api.state.set-item",
    "cluster.api.state.remove-item",
    "cluster.api.state.erase-property-ref",
    "cluster.api.state.historize-item",
    "cluster.api.state.update-workflow-result",
    "cluster.api.state.remove-workflow-result",
    "cluster.api.state.add-workflow",
    "cluster.api.state.remove-workflow",
    "cluster.api.state.update-workflow",
};

void write_by_state(metrics_text& out, const char* name, const char* help,
                    const std::map<std::string, std::uint64_t>& counts) {
  out.family(name, "gauge", help);
  for (const auto& [state, n] : counts) out.sample(name, {{"state", state}}, n);
}

}  // namespace

const std::string& state_text(const zelcore::properties& record) {
  static const std::string none;
  const zelcore::property_ptr state = record.get_property("state");
  if (!state || state->kind() != zelcore::property::kind_string) return none;
  return static_cast<const zelcore::property_string&>(*state).value();
}

void state_tally::set(const std::string& id, const zelcore::properties& record) {
  if (!whole_) _move(id, state_text(record));
}

void state_tally::updated(const std::string& id, const zelcore::properties& update) {
  if (whole_) return;
  const zelcore::property_ptr state = update.get_property("state");
  if (!state) return;  // the merge leaves the state as it was
  if (state->kind() == zelcore::property::kind_string) {
    _move(id, static_cast<const zelcore::property_string&>(*state).value());
  } else {
    dirty_.insert(id);  // merged into whatever the record held there
  }
}

void state_tally::gone(const std::string& id) {
  if (!whole_) _remove(id);
}

void state_tally::touched(const std::string& id) {
  if (!whole_) dirty_.insert(id);
}

void state_tally::replaced() {
  whole_ = true;
  dirty_.clear();
}

state_tally::state_index state_tally::_index_of(const std::string& state) {
  const auto [at, added] = index_of_.emplace(state, static_cast<state_index>(names_.size()));
  if (added) {
    names_.push_back(state);
    by_index_.push_back(0);
  }
  return at->second;
}

void state_tally::_move(const std::string& id, const std::string& state) {
  const state_index now = _index_of(state);
  ++by_index_[now];
  const auto [known, added] = state_of_.emplace(id, now);
  if (added) return;
  --by_index_[known->second];
  known->second = now;
}

void state_tally::_remove(const std::string& id) {
  const auto known = state_of_.find(id);
  if (known == state_of_.end()) return;
  --by_index_[known->second];
  state_of_.erase(known);
}

const std::map<std::string, std::uint64_t>& state_tally::counts(const zelcapi::state& replica) {
  const zelcapi::state::item_map& items = replica.get_items(kind_);
  if (whole_) {
    state_of_.clear();
    std::fill(by_index_.begin(), by_index_.end(), 0);
    state_of_.reserve(items.size());
    for (const auto& [id, record] : items) {
      const state_index now = _index_of(state_text(record));
      ++by_index_[now];
      state_of_.emplace(id, now);
    }
    whole_ = false;
  } else {
    for (const std::string& id : dirty_) {
      const auto record = items.find(id);
      if (record == items.end()) {
        _remove(id);
      } else {
        _move(id, state_text(record->second));
      }
    }
  }
  dirty_.clear();
  counts_.clear();
  for (state_index n = 0; n < names_.size(); ++n) {
    if (by_index_[n] > 0) counts_.emplace(names_[n], by_index_[n]);
  }
  return counts_;
}

const char* replica_counters::name_of(unsigned n) {
  return n < notification_count ? notification_texts[n] : "";
}

state_tally* counting_handler::tally_of(zelcapi::state_item_type type) {
  if (type == zelcapi::state_item_job) return &counts_.jobs;
  if (type == zelcapi::state_item_node) return &counts_.nodes;
  return nullptr;
}

void counting_handler::heard(replica_counters::notification n) {
  ++counts_.notifications[n];
  if (n != replica_counters::add_workflow && n != replica_counters::remove_workflow) {
    ++counts_.changes;
  }
}

bool counting_handler::state_item_updated(zelcapi::state_item_type type, const std::string& id,
                                          const zelcore::properties& props) {
  heard(replica_counters::update_item);
  if (state_tally* tally = tally_of(type)) tally->updated(id, props);
  return next_.state_item_updated(type, id, props);
}

bool counting_handler::state_item_set(zelcapi::state_item_type type, const std::string& id,
                                      const zelcore::properties& props) {
  heard(replica_counters::set_item);
  if (state_tally* tally = tally_of(type)) tally->set(id, props);
  return next_.state_item_set(type, id, props);
}

bool counting_handler::state_item_removed(zelcapi::state_item_type type, const std::string& id) {
  heard(replica_counters::remove_item);
  if (state_tally* tally = tally_of(type)) tally->gone(id);
  return next_.state_item_removed(type, id);
}

bool counting_handler::state_item_erased_property_ref(zelcapi::state_item_type type,
                                                      const std::string& id,
                                                      const std::string& ref) {
  heard(replica_counters::erase_property_ref);
  if (state_tally* tally = tally_of(type)) tally->touched(id);
  return next_.state_item_erased_property_ref(type, id, ref);
}

bool counting_handler::state_item_historized(zelcapi::state_item_type type, const std::string& id) {
  heard(replica_counters::historize_item);
  if (state_tally* tally = tally_of(type)) tally->gone(id);
  return next_.state_item_historized(type, id);
}

bool counting_handler::state_workflow_result_added(const std::string& id,
                                                   zelcapi::workflow_result_info result) {
  heard(replica_counters::update_workflow_result);
  return next_.state_workflow_result_added(id, result);
}

bool counting_handler::state_workflow_result_removed(const std::string& id) {
  heard(replica_counters::remove_workflow_result);
  return next_.state_workflow_result_removed(id);
}

bool counting_handler::state_workflow_added(const std::string& id,
                                            const zelcore::properties& workflow) {
  heard(replica_counters::add_workflow);
  return next_.state_workflow_added(id, workflow);
}

bool counting_handler::state_workflow_removed(const std::string& id) {
  heard(replica_counters::remove_workflow);
  return next_.state_workflow_removed(id);
}

bool counting_handler::state_workflow_updated(const zelcore::properties& command) {
  heard(replica_counters::update_workflow);
  return next_.state_workflow_updated(command);
}

// A vetoed update is heard here only (state_workflow_updated does not follow it).
bool counting_handler::state_pre_workflow_update(const zelcore::properties& command) {
  return next_.state_pre_workflow_update(command);
}

bool counting_handler::state_new_state(const zelcore::properties& state) {
  ++counts_.snapshots;
  counts_.jobs.replaced();
  counts_.nodes.replaced();
  return next_.state_new_state(state);
}

bool counting_handler::history_request_reply(std::uint32_t request_id,
                                             const zelcore::property_list& history) {
  return next_.history_request_reply(request_id, history);
}

bool counting_handler::handle(const zelnet::zelp::packet& in, zelnet::zelp::packet& out) {
  return next_.handle(in, out);
}

bool counting_handler::status(zelcapi::result_code code, const std::string& text, bool flag) {
  return next_.status(code, text, flag);
}

void counting_handler::disconnected(const std::string& reason, bool reconnecting) {
  next_.disconnected(reason, reconnecting);
}

std::map<std::string, std::uint64_t> count_by_state(const zelcapi::state::item_map& items) {
  std::map<std::string, std::uint64_t> counts;
  for (const auto& [id, record] : items) ++counts[state_text(record)];
  return counts;
}

void write_replica_metrics(metrics_text& out, const zelcapi::state& replica,
                           replica_counters& counts, const link_figures& link) {
  out.family("zelcapi_replica_records", "gauge", "Records in the replica, by kind.");
  for (std::uint32_t t = zelcapi::state_item_client; t <= zelcapi::state_item_task; ++t) {
    const auto type = static_cast<zelcapi::state_item_type>(t);
    out.sample("zelcapi_replica_records", {{"kind", snapshot_key_of(type)}},
               std::uint64_t{replica.get_items(type).size()});
  }
  out.sample("zelcapi_replica_records", {{"kind", "workflows"}},
             std::uint64_t{replica.get_workflows().size()});
  out.sample("zelcapi_replica_records", {{"kind", "workflow-results"}},
             std::uint64_t{replica.get_workflow_results().size()});
  write_by_state(out, "zelcapi_jobs", "Jobs in the replica, by state.",
                 counts.jobs.counts(replica));
  write_by_state(out, "zelcapi_nodes", "Nodes in the replica, by state.",
                 counts.nodes.counts(replica));
  out.family("zelcapi_changes_applied_total", "counter", "Notifications that changed the replica.");
  out.sample("zelcapi_changes_applied_total", counts.changes);
  out.family("zelcapi_notifications_total", "counter",
             "State notifications received from the cluster, by name.");
  for (unsigned n = 0; n < replica_counters::notification_count; ++n) {
    out.sample("zelcapi_notifications_total", {{"name", replica_counters::name_of(n)}},
               counts.notifications[n]);
  }
  out.family("zelcapi_snapshots_loaded_total", "counter",
             "Snapshots of the cluster's state loaded into the replica, the first one included.");
  out.sample("zelcapi_snapshots_loaded_total", counts.snapshots);
  out.family("zelcapi_reconnects_total", "counter",
             "Times the link to the cluster came back after it went.");
  out.sample("zelcapi_reconnects_total", link.reconnects);
  out.family("zelcapi_cluster_connected", "gauge",
             "1 while the replica is linked to the cluster, 0 while the link is gone.");
  out.sample("zelcapi_cluster_connected", std::uint64_t{link.connected ? 1u : 0u});
}

}  // namespace zelctl
