// The master's state: its changes as notifications, and its answers to state and history
// requests.
#include "master_state.h"

#include <utility>

#include "zelbase/exceptions.h"

namespace zelsim {

namespace {

using zelcore::properties;
using zelnet::zelp::packet;

const char* const prefix = "cluster.api.state.";

// The workflow model looks nothing up in it: one for every master.
const zelcore::plugin_db& no_plugins() {
  static const zelcore::plugin_db db;
  return db;
}

zelcore::property_ptr tree_of(properties tree) {
  return zelcore::property_ptr(new properties(std::move(tree)));
}

// Whether the record answers a history request: the field `key` equals `value`.
bool field_matches(const properties& record, const std::string& key, const std::string& value) {
  const zelcore::property_ptr field = record.get_property(key);
  return field && field->kind() == zelcore::property::kind_string &&
         static_cast<const zelcore::property_string&>(*field).value() == value;
}

}  // namespace

master_state::master_state(std::uint32_t history_keep_time, notification_sink sink)
    : state(no_plugins(), nullptr, nullptr, nullptr, history_keep_time), sink_(std::move(sink)) {}

properties master_state::_item_fields(zelcapi::state_item_type type, const std::string& id) {
  properties fields;
  fields.set_int_value("item-type", type);
  fields.set_string_value("state-id", id);
  return fields;
}

void master_state::_notify(const std::string& name, properties fields) {
  sink_(packet(packet::type_notification, prefix + name, fields));
}

void master_state::set_item(zelcapi::state_item_type type, const std::string& id,
                            const properties& record) {
  item_set(type, id, record);
  properties fields = _item_fields(type, id);
  fields["state"] = tree_of(record);
  _notify("set-item", std::move(fields));
}

void master_state::update_item(zelcapi::state_item_type type, const std::string& id,
                               const properties& update) {
  item_update(type, id, update);
  properties fields = _item_fields(type, id);
  fields["state"] = tree_of(update);
  _notify("update-item", std::move(fields));
}

void master_state::remove_item(zelcapi::state_item_type type, const std::string& id) {
  item_remove(type, id);
  _notify("remove-item", _item_fields(type, id));
}

void master_state::erase_property_ref(zelcapi::state_item_type type, const std::string& id,
                                      const std::string& ref) {
  item_erase_property_ref(type, id, ref);
  properties fields = _item_fields(type, id);
  fields.set_string_value("property-ref", ref);
  _notify("erase-property-ref", std::move(fields));
}

void master_state::historize_item(zelcapi::state_item_type type, const std::string& id) {
  item_historize(type, id);
  _notify("historize-item", _item_fields(type, id));
}

void master_state::add_workflow_result(const std::string& workflow_id,
                                       const zelcapi::workflow_result_info& result) {
  workflow_result_add(workflow_id, result);
  properties encoded;
  result.encode(encoded);
  properties fields;
  fields.set_string_value("state-id", workflow_id);
  fields["result"] = tree_of(std::move(encoded));
  _notify("update-workflow-result", std::move(fields));
}

void master_state::remove_workflow_result(const std::string& workflow_id) {
  workflow_result_remove(workflow_id);
  properties fields;
  fields.set_string_value("state-id", workflow_id);
  _notify("remove-workflow-result", std::move(fields));
}

void master_state::wm_cb_workflow_was_updated(const std::string& workflow_id,
                                              const properties& update) {
  state::wm_cb_workflow_was_updated(workflow_id, update);
  properties command;
  command["command"] = tree_of(update);
  _notify("update-workflow", std::move(command));
  // A spawn names the new workflow in "force-state-id", the others in the id they were given.
  for (const std::string& id : {workflow_id, update.get_string_value("force-state-id", "")}) {
    if (id.empty()) continue;
    const bool live = has_workflow_in_state(id);
    if (live && announced_.insert(id).second) {
      properties fields;
      fields.set_string_value("state-id", id);
      properties encoded;
      get_workflow_from_state(id)->encode_workflow_info(encoded);
      fields["workflow"] = tree_of(std::move(encoded));
      _notify("add-workflow", std::move(fields));
    } else if (!live && announced_.erase(id) != 0) {
      properties fields;
      fields.set_string_value("state-id", id);
      _notify("remove-workflow", std::move(fields));
    }
  }
}

void master_state::answer_state_request(properties& reply) const {
  properties snapshot;
  get_state(snapshot);
  reply["state"] = tree_of(std::move(snapshot));
}

void master_state::answer_history_request(const properties& request, properties& reply) const {
  const std::int64_t type = request.get_int_value("item-type");
  if (type < zelcapi::state_item_client || type > zelcapi::state_item_task) {
    zelbase::es::arg::raise(
        "code\\tools\\zelsim\\src\\master_state", __LINE__,
        "\"item-type\" " + std::to_string(type) + " is not an item type (0 to 6)");
  }
  const item_map& items = get_history_items(static_cast<zelcapi::state_item_type>(type));
  zelbase::ptr_refcount<zelcore::property_list> history(new zelcore::property_list());
  const auto add = [&history](const properties& record) { history->push_back(tree_of(record)); };
  if (request.is_present("state-id")) {
    const auto found = items.find(request.get_string_value("state-id"));
    if (found != items.end()) add(found->second);
  } else {
    std::string key;
    for (const char* name : {"client-id", "submission-id"}) {
      if (request.is_present(name)) key = name;
    }
    const std::string& value = key.empty() ? key : request.get_string_value(key);
    for (const auto& [id, record] : items) {
      if (key.empty() || field_matches(record, key, value)) add(record);
    }
  }
  reply["history"] = history;
}

}  // namespace zelsim
