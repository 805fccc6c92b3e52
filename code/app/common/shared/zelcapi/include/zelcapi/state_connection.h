// The state connection: a connection that keeps a local replica of the cluster's state current
// from the "cluster.api.state." notifications, asks for snapshots and history, and tells the
// application of every change through a state_handler.
//
// Threads: like every connection it starts no thread. The state_handler is called, and the
// replica changed, on the thread that is inside run, wait, step (an event loop's) or one of the
// synchronous calls (connect, login_sync, send_sync, request_new_state_sync). Use it from one
// thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "zelcapi/connection.h"
#include "zelcapi/export.h"
#include "zelcapi/state.h"
#include "zelcore/plugin_db.h"
#include "zelcore/properties.h"
#include "zelnet/packet.h"

namespace zelcapi {

// Receives the changes of a state connection. Not owned by the connection: keep it alive while
// the connection lives. Called on the connection's I/O thread; the trees and strings it is given
// are valid only during the call. Each bool operation returns whether processing goes on: only
// state_pre_workflow_update is consulted so (false vetoes the update); the others' answer
// becomes the result of the packet's handling. Every default returns true.
//
// A callback that raises never leaves the replica behind the cluster: the notification's
// change to the replica is made first, also where the handler is called before it, and then
// the exception passes on (out of run, wait or step; an es::base of the library's own is
// reported instead). A raising state_pre_workflow_update is no veto: the command is applied
// and state_workflow_updated is not called.
class ZELCAPI_EXPORT state_handler {
 public:
  virtual ~state_handler();
  // "cluster.api.state.update-item": called after the replica merged `props` into the item.
  virtual bool state_item_updated(state_item_type type, const std::string& id,
                                  const zelcore::properties& props);
  // "cluster.api.state.set-item": called after the replica replaced the item with `props`.
  virtual bool state_item_set(state_item_type type, const std::string& id,
                              const zelcore::properties& props);
  // "cluster.api.state.remove-item": called before the replica removes the item.
  virtual bool state_item_removed(state_item_type type, const std::string& id);
  // "cluster.api.state.erase-property-ref": called before the replica erases the property.
  virtual bool state_item_erased_property_ref(state_item_type type, const std::string& id,
                                              const std::string& ref);
  // "cluster.api.state.historize-item": called before the replica moves the item to history.
  virtual bool state_item_historized(state_item_type type, const std::string& id);
  // "cluster.api.state.update-workflow-result": called after the replica stored the result.
  virtual bool state_workflow_result_added(const std::string& id, workflow_result_info result);
  // "cluster.api.state.remove-workflow-result": called before the replica removes the result.
  virtual bool state_workflow_result_removed(const std::string& id);
  // "cluster.api.state.add-workflow": the replica is not changed (the workflow arrives as an
  // "update-workflow" command).
  virtual bool state_workflow_added(const std::string& id, const zelcore::properties& workflow);
  // "cluster.api.state.remove-workflow": the replica is not changed.
  virtual bool state_workflow_removed(const std::string& id);
  // "cluster.api.state.update-workflow": called after the replica applied the command.
  virtual bool state_workflow_updated(const zelcore::properties& command);
  // Called before an "update-workflow" command is applied; false leaves the replica alone and
  // makes the notification's handling return false.
  virtual bool state_pre_workflow_update(const zelcore::properties& command);
  // A snapshot arrived (the reply of request_new_state); the replica already holds it.
  virtual bool state_new_state(const zelcore::properties& state);
  // The answer of a history request, tagged with the id the caller gave the request.
  virtual bool history_request_reply(std::uint32_t request_id,
                                     const zelcore::property_list& history);
  // Requests from the cluster, notifications not named "cluster.api.state..." and replies that
  // are not state or history replies; a packet left in `out` with a name is sent back. Default:
  // a debug print of the packet in "zelcapi::state_handler:debug".
  virtual bool handle(const zelnet::zelp::packet& in, zelnet::zelp::packet& out);
  // The connection's status changes (see handler::status). Its answer never stops a login's
  // retry or redirect. Default: a debug print in "zelcapi::state_handler::status:error".
  virtual bool status(result_code code, const std::string& text, bool flag);
  // The link has gone. Default: a debug print in "zelcapi::state_handler:error".
  virtual void disconnected(const std::string& reason, bool reconnecting);
};

// A connection that applies the cluster's state notifications to an owned replica (when built
// with one) and tells a state_handler. It installs its own handler on the connection: do not
// replace it with set_handler.
//
// Frame limit: a snapshot of a large cluster exceeds the connection's default limit, so a state
// connection accepts frames of up to 1 GiB once logged in (set_frame_limit raises it further).
//
// Failures: a notification or reply that cannot be applied (a missing field, a field of the
// wrong kind, an item type the state does not have, a failing workflow update, a snapshot the
// replica refuses) is reported ("failed to update state ('<message>')", category
// "state_connection") and counts as handled; the replica keeps what the failing operation left,
// and the next packets are applied as usual. An item type reaches the handler and the state as
// it came, in the order of its notification; only the state refuses a kind it does not have.
class ZELCAPI_EXPORT state_connection : public connection {
 public:
  // The frame limit after login of a new state connection: 1 GiB, which admits the snapshot of
  // a million jobs of twenty fields.
  static constexpr std::size_t default_frame_limit = std::size_t{1} << 30;

  // Without a replica: notifications only reach the handler. Raises es::arg when `h` is null.
  explicit state_connection(state_handler* h);
  // With a replica built on `plugins` (not owned; must outlive the connection), keeping history
  // for `history_keep_time` seconds (0: none). Raises es::arg when `h` or `plugins` is null.
  state_connection(state_handler* h, std::uint32_t history_keep_time,
                   const zelcore::plugin_db* plugins);
  // The same, with `receiver` (not owned, may be null) told of every change of the replica.
  state_connection(state_handler* h, state_notification_receiver* receiver,
                   std::uint32_t history_keep_time, const zelcore::plugin_db* plugins);
  // Removes its handler first, so that the disconnection reaches no handler, then the replica.
  ~state_connection() override;

  // The replica, or null when the connection was built without one.
  const state* get_state() const;
  // The same replica, for what the connection does not do itself: loading it from and saving it
  // to a state_db, cleaning its history. Use it on the connection's thread only.
  state* get_state_non_const();

  // Sends "cluster.api.state.request"; the snapshot arrives later (inside run, wait or step),
  // goes into the replica and to state_new_state. Raises es::uspec "No connection". A reply
  // that refuses the request (its "error", such as "Not logged in" before a login) is reported
  // as "cluster.api.state.request failed ('<error>')" and changes nothing.
  void request_new_state();
  // Sends "cluster.api.state.request" and waits up to the connection's time-out for the
  // snapshot, which goes into the replica and to state_new_state before this returns. Raises
  // es::uspec "No connection", "Connection timeout" or "Connection error", and for a reply that
  // refuses the request "cluster.api.state.request failed ('<error>')" (also reported; the
  // replica is unchanged).
  void request_new_state_sync();
  // Ask for the history items of a kind (all of them, or those of one state id, client id or
  // submission id). The answer arrives later, inside run, wait or step, at history_request_reply
  // with `request_id`. Raise es::uspec "No connection".
  void request_history_items_by_client_id(state_item_type type, const std::string& client_id,
                                          std::uint32_t request_id);
  void request_history_items_by_state_id(state_item_type type, const std::string& state_id,
                                         std::uint32_t request_id);
  void request_history_items_by_submission_id(state_item_type type,
                                              const std::string& submission_id,
                                              std::uint32_t request_id);
  void request_history_items_by_type(state_item_type type, std::uint32_t request_id);

 protected:
  // Every packet the connection hands to its handler: requests (type 2) go to
  // state_handler::handle, notifications (3) are applied, replies (4) handled; any other type
  // is ignored. Returns the handling's result (true when ignored or failed).
  bool sc_handle(const zelnet::zelp::packet& in, zelnet::zelp::packet& out);
  // Tells the state_handler and returns true whatever it answered.
  bool sc_status(result_code code, const std::string& text, bool flag);
  void sc_disconnected(const std::string& reason, bool reconnecting);

 private:
  // An item notification coming next: the replica fetches the index entry of its id into cache.
  void packet_ahead(const zelnet::zelp::packet& next) noexcept override;

  // The handler installed on the connection: forwards everything to the state connection.
  class sc_handler final : public handler {
   public:
    explicit sc_handler(state_connection& owner) noexcept : owner_(&owner) {}
    ~sc_handler() override;
    bool status(result_code code, const std::string& text, bool flag) override;
    void disconnected(const std::string& reason, bool reconnecting) override;
    bool handle(const zelnet::zelp::packet& in, zelnet::zelp::packet& out) override;

   private:
    state_connection* owner_;
  };

  bool handle_command(const zelnet::zelp::packet& in, zelnet::zelp::packet& out);
  bool handle_notification(const zelnet::zelp::packet& in, zelnet::zelp::packet& out);
  bool handle_reply(const zelnet::zelp::packet& in, zelnet::zelp::packet& out);
  using change_operation = void (state::*)(state_item_type, const std::string&,
                                           const zelcore::properties&);
  using change_callback = bool (state_handler::*)(state_item_type, const std::string&,
                                                  const zelcore::properties&);
  using drop_operation = void (state::*)(state_item_type, const std::string&);
  using drop_callback = bool (state_handler::*)(state_item_type, const std::string&);
  // An item notification with "state": the replica changes first, then the handler hears.
  bool _change_item(const zelcore::properties& fields, change_operation change,
                    change_callback told);
  // An item notification without "state": the handler hears first, then the replica changes.
  bool _drop_item(const zelcore::properties& fields, drop_operation drop, drop_callback told);
  // The rows of the notification table, one per "cluster.api.state." name.
  bool _update_item(const zelcore::properties& fields);
  bool _set_item(const zelcore::properties& fields);
  bool _remove_item(const zelcore::properties& fields);
  bool _erase_property_ref(const zelcore::properties& fields);
  bool _historize_item(const zelcore::properties& fields);
  bool _update_workflow_result(const zelcore::properties& fields);
  bool _remove_workflow_result(const zelcore::properties& fields);
  bool _add_workflow(const zelcore::properties& fields);
  bool _remove_workflow(const zelcore::properties& fields);
  bool _update_workflow(const zelcore::properties& fields);
  // The replies of "cluster.api.state.request" and "cluster.api.history.request".
  bool _state_reply(const zelcore::properties& fields);
  bool _history_reply(const zelcore::properties& fields);
  // Sends a "cluster.api.history.request" for the item type, with `id` under `key` (none when
  // `key` is null) and the request id in the bounce tree.
  void _request_history(const char* key, const std::string& id, state_item_type type,
                        std::uint32_t request_id);

  sc_handler inner_handler_;
  state_handler* state_handler_;
  std::unique_ptr<state> state_;
};

}  // namespace zelcapi
