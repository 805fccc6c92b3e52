// The state connection: dispatch of the cluster's packets by type, the "cluster.api.state."
// notifications applied to the replica, snapshot and history requests and their replies.
#include "zelcapi/state_connection.h"

#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <typeinfo>

#include "zelbase/exceptions.h"
#include "zelbase/strings.h"
#include "zelcore/report.h"

namespace zelcapi {

namespace {

constexpr const char* source_file = "code\\app\\common\\shared\\zelcapi\\src\\state_connection";
constexpr const char* category = "state_connection";
constexpr std::string_view notification_prefix = "cluster.api.state";
constexpr const char* state_request_name = "cluster.api.state.request";
constexpr const char* history_request_name = "cluster.api.history.request";
constexpr const char* history_request_id_key = "history-request-id";

using zelnet::zelp::packet;

// The fields of the state notifications, built once: every notification reads some of them.
const std::string item_type_key = "item-type";
const std::string state_id_key = "state-id";
const std::string state_key = "state";

void report_failure(unsigned line, const std::string& text) {
  zelcore::report(source_file, line, category, 8, 3, text);
}

// Runs `apply` and returns its result. A packet that could not be applied (an es::base of the
// tree or the state, or the bad-cast error of a snapshot record of the wrong kind) is
// reported and counts as handled.
template <class Apply>
bool applied_or_reported(Apply apply) {
  std::string message;
  try {
    return apply();
  } catch (const zelbase::es::base& e) {
    message = e.what();
  } catch (const std::bad_cast& e) {
    message = e.what();
  }
  report_failure(__LINE__,
                 zelbase::string_with_format("failed to update state ('%s')", message.c_str()));
  return true;
}

// Makes a replica change while a handler's exception is on its way out: a library failure of
// the change is reported as any other, and the handler's exception is the one that passes on.
template <class Apply>
void apply_before_rethrow(Apply apply) {
  applied_or_reported([&] {
    apply();
    return true;
  });
}

// For the notifications whose handler call comes first: runs `tell` (the handler), then `apply`
// (the replica's change), and returns what the handler answered. What the handler raises passes
// on only once the replica has the change, so that a failing handler never leaves the replica
// behind the cluster.
template <class Tell, class Apply>
bool told_then_applied(Tell tell, Apply apply) {
  bool answer = true;
  try {
    answer = tell();
  } catch (...) {
    apply_before_rethrow(apply);
    throw;
  }
  apply();
  return answer;
}

// The "item-type" field. Every int goes on to the handler and the state, which is the one
// place that refuses a kind it does not have; a value that is no int at all is refused here,
// since cutting it to 32 bits could make it name a kind.
state_item_type item_type_of(const zelcore::properties& fields) {
  const std::int64_t type = fields.get_int_value(item_type_key);
  if (type < std::numeric_limits<std::int32_t>::min() ||
      type > std::numeric_limits<std::int32_t>::max()) {
    zelbase::es::arg::raise(source_file, __LINE__,
                            zelbase::string_with_format("item type %lld is out of range",
                                                        static_cast<long long>(type)));
  }
  return static_cast<state_item_type>(static_cast<std::int32_t>(type));
}

const std::string& state_id_of(const zelcore::properties& fields) {
  return fields.get_string_value(state_id_key);
}

// The cluster's text when a reply refuses its request: its "error" as plain text.
std::optional<std::string> refusal_of(const zelcore::properties& reply) {
  const zelcore::property_ptr error = reply.get_property("error");
  if (!error) return std::nullopt;
  return error->to_string();
}

std::string state_request_failed(const std::string& refusal) {
  return zelbase::string_with_format("%s failed ('%s')", state_request_name, refusal.c_str());
}

state_handler* required_handler(state_handler* h) {
  if (h == nullptr) {
    zelbase::es::arg::raise(source_file, __LINE__, "a state connection needs a state handler");
  }
  return h;
}

const zelcore::plugin_db& required_plugins(const zelcore::plugin_db* plugins) {
  if (plugins == nullptr) {
    zelbase::es::arg::raise(source_file, __LINE__, "a state connection needs a plugin database");
  }
  return *plugins;
}

}  // namespace

// --- state_handler: the defaults ---

state_handler::~state_handler() = default;

bool state_handler::state_item_updated(state_item_type, const std::string&,
                                       const zelcore::properties&) {
  return true;
}
bool state_handler::state_item_set(state_item_type, const std::string&,
                                   const zelcore::properties&) {
  return true;
}
bool state_handler::state_item_removed(state_item_type, const std::string&) { return true; }
bool state_handler::state_item_erased_property_ref(state_item_type, const std::string&,
                                                   const std::string&) {
  return true;
}
bool state_handler::state_item_historized(state_item_type, const std::string&) { return true; }
bool state_handler::state_workflow_result_added(const std::string&, workflow_result_info) {
  return true;
}
bool state_handler::state_workflow_result_removed(const std::string&) { return true; }
bool state_handler::state_workflow_added(const std::string&, const zelcore::properties&) {
  return true;
}
bool state_handler::state_workflow_removed(const std::string&) { return true; }
bool state_handler::state_workflow_updated(const zelcore::properties&) { return true; }
bool state_handler::state_pre_workflow_update(const zelcore::properties&) { return true; }
bool state_handler::state_new_state(const zelcore::properties&) { return true; }
bool state_handler::history_request_reply(std::uint32_t, const zelcore::property_list&) {
  return true;
}

bool state_handler::handle(const packet& in, packet&) {
  std::string description;
  in.describe(description);
  zelcore::ds::print("zelcapi::state_handler:debug", "%s", description.c_str());
  return true;
}

bool state_handler::status(result_code code, const std::string& text, bool) {
  zelcore::ds::print("zelcapi::state_handler::status:error", "%s (%s)", result_code_c_str(code),
                     text.c_str());
  return true;
}

void state_handler::disconnected(const std::string& reason, bool reconnecting) {
  zelcore::ds::print("zelcapi::state_handler:error", "disconnected. reason: '%s' reconnecting: %s",
                     reason.c_str(), reconnecting ? "yes" : "no");
}

// --- the inner handler ---

state_connection::sc_handler::~sc_handler() = default;

bool state_connection::sc_handler::status(result_code code, const std::string& text, bool flag) {
  return owner_->sc_status(code, text, flag);
}

void state_connection::sc_handler::disconnected(const std::string& reason, bool reconnecting) {
  owner_->sc_disconnected(reason, reconnecting);
}

bool state_connection::sc_handler::handle(const packet& in, packet& out) {
  return owner_->sc_handle(in, out);
}

// --- construction ---

state_connection::state_connection(state_handler* h)
    : connection(), inner_handler_(*this), state_handler_(required_handler(h)) {
  set_frame_limit(default_frame_limit);
  set_handler(&inner_handler_);
}

state_connection::state_connection(state_handler* h, std::uint32_t history_keep_time,
                                   const zelcore::plugin_db* plugins)
    : state_connection(h, nullptr, history_keep_time, plugins) {}

state_connection::state_connection(state_handler* h, state_notification_receiver* receiver,
                                   std::uint32_t history_keep_time,
                                   const zelcore::plugin_db* plugins)
    : connection(),
      inner_handler_(*this),
      state_handler_(required_handler(h)),
      state_(std::make_unique<state>(required_plugins(plugins), receiver, nullptr, nullptr,
                                     history_keep_time)) {
  set_frame_limit(default_frame_limit);
  set_handler(&inner_handler_);
}

state_connection::~state_connection() { set_handler(nullptr); }

const state* state_connection::get_state() const { return state_.get(); }

state* state_connection::get_state_non_const() { return state_.get(); }

// --- dispatch ---

void state_connection::packet_ahead(const packet& next) noexcept {
  if (!state_ || next.get_type() != packet::type_notification) return;
  const zelcore::properties& fields = next.get_properties();
  const auto type = fields.find(item_type_key);
  const auto id = fields.find(state_id_key);
  if (type == fields.end() || id == fields.end() || !type->second || !id->second ||
      type->second->kind() != zelcore::property::kind_int ||
      id->second->kind() != zelcore::property::kind_string)
    return;
  const std::int64_t kind = static_cast<const zelcore::property_int&>(*type->second).value();
  if (kind < 0 || kind > static_cast<std::int64_t>(state_item_task)) return;
  state_->prefetch_item(static_cast<state_item_type>(kind),
                        static_cast<const zelcore::property_string&>(*id->second).value());
}

bool state_connection::sc_handle(const packet& in, packet& out) {
  switch (in.get_type()) {
    case packet::type_request: return handle_command(in, out);
    case packet::type_notification: return handle_notification(in, out);
    case packet::type_reply: return handle_reply(in, out);
    default: return true;
  }
}

bool state_connection::sc_status(result_code code, const std::string& text, bool flag) {
  state_handler_->status(code, text, flag);
  return true;
}

void state_connection::sc_disconnected(const std::string& reason, bool reconnecting) {
  state_handler_->disconnected(reason, reconnecting);
}

bool state_connection::handle_command(const packet& in, packet& out) {
  return state_handler_->handle(in, out);
}

bool state_connection::handle_notification(const packet& in, packet& out) {
  const std::string_view name = in.get_name();
  if (name.substr(0, notification_prefix.size()) != notification_prefix) {
    return state_handler_->handle(in, out);
  }
  using row_operation = bool (state_connection::*)(const zelcore::properties&);
  struct row {
    std::string_view name;  // sizes compared first: most names differ in size
    row_operation apply;
  };
  static constexpr row rows[] = {
      {"cluster.api.state.update-item", &state_connection::_update_item},
      {"cluster.api.state.set-item", &state_connection::_set_item},
      {"cluster.api.state.remove-item", &state_connection::_remove_item},
      {"cluster.api.state.erase-property-ref", &state_connection::_erase_property_ref},
      {"cluster.api.state.historize-item", &state_connection::_historize_item},
      {"cluster.api.state.update-workflow-result", &state_connection::_update_workflow_result},
      {"cluster.api.state.remove-workflow-result", &state_connection::_remove_workflow_result},
      {"cluster.api.state.add-workflow", &state_connection::_add_workflow},
      {"cluster.api.state.remove-workflow", &state_connection::_remove_workflow},
      {"cluster.api.state.update-workflow", &state_connection::_update_workflow},
  };
  for (const row& r : rows) {
    if (name != r.name) continue;
    return applied_or_reported([&] { return (this->*r.apply)(in.get_properties()); });
  }
  // A state notification of a newer cluster: nothing to apply.
  zelcore::ds::print("zelcapi::state_connection:debug", "unknown state notification '%s'",
                     in.get_name().c_str());
  return true;
}

bool state_connection::_change_item(const zelcore::properties& fields, change_operation change,
                                    change_callback told) {
  const state_item_type type = item_type_of(fields);
  const std::string& id = state_id_of(fields);
  const zelcore::properties& props = fields.get_properties_value(state_key);
  if (state_) (state_.get()->*change)(type, id, props);
  return (state_handler_->*told)(type, id, props);
}

bool state_connection::_drop_item(const zelcore::properties& fields, drop_operation drop,
                                  drop_callback told) {
  const state_item_type type = item_type_of(fields);
  const std::string& id = state_id_of(fields);
  return told_then_applied([&] { return (state_handler_->*told)(type, id); },
                           [&] {
                             if (state_) (state_.get()->*drop)(type, id);
                           });
}

bool state_connection::_update_item(const zelcore::properties& fields) {
  return _change_item(fields, &state::item_update, &state_handler::state_item_updated);
}

bool state_connection::_set_item(const zelcore::properties& fields) {
  return _change_item(fields, &state::item_set, &state_handler::state_item_set);
}

bool state_connection::_remove_item(const zelcore::properties& fields) {
  return _drop_item(fields, &state::item_remove, &state_handler::state_item_removed);
}

bool state_connection::_erase_property_ref(const zelcore::properties& fields) {
  const state_item_type type = item_type_of(fields);
  const std::string& id = state_id_of(fields);
  const std::string& ref = fields.get_string_value("property-ref");
  return told_then_applied(
      [&] { return state_handler_->state_item_erased_property_ref(type, id, ref); },
      [&] {
        if (state_) state_->item_erase_property_ref(type, id, ref);
      });
}

bool state_connection::_historize_item(const zelcore::properties& fields) {
  return _drop_item(fields, &state::item_historize, &state_handler::state_item_historized);
}

bool state_connection::_update_workflow_result(const zelcore::properties& fields) {
  const std::string& id = state_id_of(fields);
  const workflow_result_info result(fields.get_properties_value("result"));
  if (state_) state_->workflow_result_add(id, result);
  return state_handler_->state_workflow_result_added(id, result);
}

bool state_connection::_remove_workflow_result(const zelcore::properties& fields) {
  const std::string& id = state_id_of(fields);
  return told_then_applied([&] { return state_handler_->state_workflow_result_removed(id); },
                           [&] {
                             if (state_) state_->workflow_result_remove(id);
                           });
}

bool state_connection::_add_workflow(const zelcore::properties& fields) {
  const std::string& id = state_id_of(fields);
  return state_handler_->state_workflow_added(id, fields.get_properties_value("workflow"));
}

bool state_connection::_remove_workflow(const zelcore::properties& fields) {
  return state_handler_->state_workflow_removed(state_id_of(fields));
}

bool state_connection::_update_workflow(const zelcore::properties& fields) {
  const zelcore::properties& command = fields.get_properties_value("command");
  const auto apply = [&] {
    if (state_) state_->update_workflow(command);
  };
  bool go_on = true;
  try {
    go_on = state_handler_->state_pre_workflow_update(command);
  } catch (...) {
    // Raising is no veto: the command is applied, state_workflow_updated is skipped (the
    // handler is failing), and what the call raised passes on.
    apply_before_rethrow(apply);
    throw;
  }
  if (!go_on) return false;
  apply();
  return state_handler_->state_workflow_updated(command);
}

bool state_connection::handle_reply(const packet& in, packet& out) {
  const std::string& name = in.get_name();
  if (name == state_request_name) {
    return applied_or_reported([&] { return _state_reply(in.get_properties()); });
  }
  if (name == history_request_name) {
    return applied_or_reported([&] { return _history_reply(in.get_properties()); });
  }
  return state_handler_->handle(in, out);
}

bool state_connection::_state_reply(const zelcore::properties& fields) {
  if (const std::optional<std::string> refusal = refusal_of(fields)) {
    report_failure(__LINE__, state_request_failed(*refusal));
    return true;
  }
  const zelcore::properties* snapshot = fields.get_properties_value_ptr(state_key);
  if (snapshot == nullptr) return true;
  if (state_) state_->set_state(*snapshot);
  return state_handler_->state_new_state(*snapshot);
}

bool state_connection::_history_reply(const zelcore::properties& fields) {
  if (!fields.is_present("history")) {
    report_failure(__LINE__, "cluster.api.history.request failed");
    return true;
  }
  // get_list_value checks the kind and names the key when it is not a list.
  fields.get_list_value("history");
  const auto& history = static_cast<const zelcore::property_list&>(*fields.get_property("history"));
  const std::int64_t request_id = fields.get_properties_value(packet::bounce_property_id())
                                      .get_int_value(history_request_id_key);
  return state_handler_->history_request_reply(static_cast<std::uint32_t>(request_id), history);
}

// --- requests ---

void state_connection::request_new_state() {
  send(packet(packet::type_request, state_request_name));
}

void state_connection::request_new_state_sync() {
  // A copy (sharing the tree): a handler may start another exchange, which reuses the slot.
  const packet reply = send_sync(packet(packet::type_request, state_request_name));
  packet out;
  sc_handle(reply, out);
  // The refusal was reported; the caller, who waited for a snapshot, hears of it as well.
  if (const std::optional<std::string> refusal = refusal_of(reply.get_properties())) {
    zelbase::es::uspec::raise(source_file, __LINE__, state_request_failed(*refusal));
  }
}

void state_connection::_request_history(const char* key, const std::string& id,
                                        state_item_type type, std::uint32_t request_id) {
  zelcore::properties fields;
  if (key != nullptr) fields.set_string_value(key, id);
  fields.set_int_value("item-type", type);
  zelcore::properties bounce;
  bounce.set_int_value(history_request_id_key, request_id);
  fields.set_properties_value(packet::bounce_property_id(), bounce);
  send(packet(packet::type_request, history_request_name, fields));
}

void state_connection::request_history_items_by_client_id(state_item_type type,
                                                          const std::string& client_id,
                                                          std::uint32_t request_id) {
  _request_history("client-id", client_id, type, request_id);
}

void state_connection::request_history_items_by_state_id(state_item_type type,
                                                         const std::string& state_id,
                                                         std::uint32_t request_id) {
  _request_history("state-id", state_id, type, request_id);
}

void state_connection::request_history_items_by_submission_id(state_item_type type,
                                                              const std::string& submission_id,
                                                              std::uint32_t request_id) {
  _request_history("submission-id", submission_id, type, request_id);
}

void state_connection::request_history_items_by_type(state_item_type type,
                                                     std::uint32_t request_id) {
  _request_history(nullptr, std::string(), type, request_id);
}

}  // namespace zelcapi
