// The master's own state: every change is made to a zelcapi::state and told to the clients as the
// "cluster.api.state." notification that makes the same change on a replica.
//
// Threads: used by the nodes' thread only (the workload, the request handlers and the snapshot
// calls all run there).
#pragma once

#include <cstdint>
#include <functional>
#include <set>
#include <string>

#include "zelcapi/state.h"
#include "zelcore/plugin_db.h"
#include "zelcore/properties.h"
#include "zelnet/packet.h"

namespace zelsim {

class master_state final : public zelcapi::state {
 public:
  // Receives every notification, in the order of the changes.
  using notification_sink = std::function<void(const zelnet::zelp::packet&)>;

  // `history_keep_time` seconds of history in memory (0: none). `sink` must not be null.
  master_state(std::uint32_t history_keep_time, notification_sink sink);

  // Each changes the state as the state operation of the same meaning does, then sends the
  // notification that a replica applies with that operation.
  void set_item(zelcapi::state_item_type type, const std::string& id,
                const zelcore::properties& record);
  void update_item(zelcapi::state_item_type type, const std::string& id,
                   const zelcore::properties& update);
  void remove_item(zelcapi::state_item_type type, const std::string& id);
  void erase_property_ref(zelcapi::state_item_type type, const std::string& id,
                          const std::string& ref);
  void historize_item(zelcapi::state_item_type type, const std::string& id);
  void add_workflow_result(const std::string& workflow_id,
                           const zelcapi::workflow_result_info& result);
  void remove_workflow_result(const std::string& workflow_id);

  // Workflow changes go through get_workflow_manager(): each action that the manager describes
  // is sent as "cluster.api.state.update-workflow"; a workflow that appears with it is then
  // announced with "cluster.api.state.add-workflow", one that leaves with "remove-workflow".
  void wm_cb_workflow_was_updated(const std::string& workflow_id,
                                  const zelcore::properties& update) override;

  // The reply of "cluster.api.state.request": "state" = the snapshot.
  void answer_state_request(zelcore::properties& reply) const;
  // The reply of "cluster.api.history.request": "history" = the historized records of
  // "item-type" (required) whose id is "state-id", or whose "client-id" or "submission-id"
  // field equals the request's, or all of them when the request names none. Raises es::arg for
  // a missing or bad "item-type", es::uspec when no history is kept.
  void answer_history_request(const zelcore::properties& request, zelcore::properties& reply) const;

 private:
  void _notify(const std::string& name, zelcore::properties fields);
  static zelcore::properties _item_fields(zelcapi::state_item_type type, const std::string& id);

  notification_sink sink_;
  // The workflows that clients have been told of with "cluster.api.state.add-workflow".
  std::set<std::string> announced_;
};

}  // namespace zelsim
