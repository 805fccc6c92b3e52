// The client's local replica of the cluster state: seven keyed stores of item records (clients,
// nodes, submissions, sources, slots, jobs, tasks), and the observer that hears of every change.
//
// Threading: a state takes no lock. It is changed by one thread at a time (the state
// connection's I/O thread); readers on other threads must be serialised with it by the caller.
// Receiver callbacks run on the thread that changes the state; an exception raised by a
// receiver travels to the caller of the state operation, after the store has been changed.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "zelcapi/export.h"
#include "zelcore/plugin_db.h"
#include "zelcore/properties.h"

namespace zelcapi {

enum state_item_type : std::uint32_t {
  state_item_client = 0,
  state_item_node = 1,
  state_item_submission = 2,
  state_item_source = 3,
  state_item_slot = 4,
  state_item_job = 5,
  state_item_task = 6,
};

// The item kinds of the persistence hooks: the seven item kinds, and workflows.
enum db_item_type : std::uint32_t {
  db_item_client = 0,
  db_item_node = 1,
  db_item_submission = 2,
  db_item_source = 3,
  db_item_slot = 4,
  db_item_job = 5,
  db_item_task = 6,
  db_item_workflow = 7,
};

// The final outcome of a workflow: its status ("st") and a second value ("ht", 1 unless
// given). Results compare by status only: two results that differ only in ht are equal.
class ZELCAPI_EXPORT workflow_result_info {
 public:
  workflow_result_info() = default;
  explicit workflow_result_info(std::uint32_t status) : status(status) {}
  workflow_result_info(std::uint32_t status, std::uint32_t ht) : status(status), ht(ht) {}
  // Reads "st" (required: raises es::arg when missing) and "ht" (default 1), cut to 32 bits.
  explicit workflow_result_info(const zelcore::properties& encoded);

  // Stores "st" and "ht" into `out`, leaving its other keys alone.
  void encode(zelcore::properties& out) const;
  bool operator==(const workflow_result_info& other) const { return status == other.status; }
  bool operator!=(const workflow_result_info& other) const { return !(*this == other); }

  std::uint32_t status = 0;
  std::uint32_t ht = 1;
};

// "client", "node", ..., "task". A value outside 0 to 6 gives "".
ZELCAPI_EXPORT const char* state_item_type_c_str(int type);
// As state_item_type_c_str, and 7 gives "workflow". A value outside 0 to 7 gives "".
ZELCAPI_EXPORT const char* db_item_type_c_str(int type);

// Observer of every change made to a state. Called on the thread that changes the state;
// `props` and the strings are valid only during the call.
class ZELCAPI_EXPORT state_notification_receiver {
 public:
  virtual ~state_notification_receiver();
  virtual void on_item_updated(state_item_type type, const std::string& id,
                               const zelcore::properties& props) = 0;
  virtual void on_item_set(state_item_type type, const std::string& id,
                           const zelcore::properties& props) = 0;
  virtual void on_item_removing(state_item_type type, const std::string& id) = 0;
  virtual void on_item_removed(state_item_type type, const std::string& id) = 0;
  virtual void on_item_historizing(state_item_type type, const std::string& id) = 0;
  virtual void on_item_historized(state_item_type type, const std::string& id) = 0;
  virtual void on_item_adding_to_history(state_item_type type, const std::string& id,
                                         const zelcore::properties& props) = 0;
  virtual void on_item_added_to_history(state_item_type type, const std::string& id,
                                        const zelcore::properties& props) = 0;
  virtual void on_item_erased_property_ref(state_item_type type, const std::string& id,
                                           const std::string& ref) = 0;
  virtual void on_workflow_will_be_updated(const std::string& workflow_id,
                                           const zelcore::properties& update) = 0;
  virtual void on_workflow_was_updated(const std::string& workflow_id,
                                       const zelcore::properties& update) = 0;
  virtual void on_workflow_result_added(const std::string& workflow_id,
                                        const workflow_result_info& result) = 0;
  virtual void on_workflow_result_removing(const std::string& workflow_id) = 0;
  virtual void on_workflow_result_removed(const std::string& workflow_id) = 0;
  virtual void on_historized_workflow_removed(const std::string& workflow_id) = 0;
};

class state_db;
class history_db;

class ZELCAPI_EXPORT state {
 public:
  // One store: item id -> record, in ascending id order.
  using item_map = std::map<std::string, zelcore::properties>;

  // The plugin database, receiver, state_db and history_db are not owned and must outlive the
  // state; the receiver and the databases may be null.
  state(const zelcore::plugin_db& plugins, state_notification_receiver* receiver,
        state_db* states = nullptr, history_db* histories = nullptr,
        std::uint32_t history_keep_time = 0);
  virtual ~state();
  state(const state&) = delete;
  state& operator=(const state&) = delete;

  // The store of a kind; raises es::arg "state does not have item type %d" for another value.
  const item_map& get_items(state_item_type type) const;
  // The record of an item; raises es::arg "state does not have item id %s" when absent.
  const zelcore::properties& get_item(state_item_type type, const std::string& id) const;
  bool has_item(state_item_type type, const std::string& id) const;

  // Replaces the record whole (creating it), then on_item_set.
  void item_set(state_item_type type, const std::string& id, const zelcore::properties& props);
  // Merges the update into the record leaf by leaf (creating it), then on_item_updated with the
  // update as received.
  virtual void item_update(state_item_type type, const std::string& id,
                           const zelcore::properties& props);
  // on_item_removing, erase (nothing when absent), on_item_removed.
  void item_remove(state_item_type type, const std::string& id);
  // Removes the property at `ref` from the record if the record exists, then
  // on_item_erased_property_ref in every case.
  void item_erase_property_ref(state_item_type type, const std::string& id, const std::string& ref);

  // Empties one store; no notification.
  void clear_state(state_item_type type);
  // Empties every store, the workflow results and the workflows, and sets the workflow sequence
  // number to 0; no notification, never raises.
  void clear_state();

  // Stores the result (replacing one of the same id), then on_workflow_result_added.
  void workflow_result_add(const std::string& workflow_id, const workflow_result_info& result);
  // Decodes the result from its tree (raises es::arg without "st", storing nothing) and adds it.
  void workflow_result_add(const std::string& workflow_id, const zelcore::properties& encoded);
  // on_workflow_result_removing, then the erase; when something was erased,
  // on_workflow_result_removed and true.
  bool workflow_result_remove(const std::string& workflow_id);
  bool has_workflow_result(const std::string& workflow_id) const;
  // The result of the id; a default result (status 0, ht 1) when there is none.
  workflow_result_info get_workflow_result(const std::string& workflow_id) const;
  const std::map<std::string, workflow_result_info>& get_workflow_results() const noexcept {
    return workflow_results_;
  }
  // One child per workflow id, each holding the encoded result.
  void get_workflow_results(zelcore::properties& out) const;

  std::uint64_t get_workflow_sequence_number() const noexcept { return workflow_seq_nr_; }
  const zelcore::plugin_db& get_plugin_db() const noexcept { return *plugin_db_; }
  state_notification_receiver* get_receiver() const noexcept { return receiver_; }
  state_db* get_state_db() const noexcept { return state_db_; }
  history_db* get_history_db() const noexcept { return history_db_; }
  std::uint32_t get_history_keep_time() const noexcept { return history_keep_time_; }

 protected:
  item_map& get_items_non_const(state_item_type type);

 private:
  item_map clients_;
  item_map nodes_;
  item_map submissions_;
  item_map sources_;
  item_map slots_;
  item_map jobs_;
  item_map tasks_;
  std::map<std::string, workflow_result_info> workflow_results_;
  std::uint64_t workflow_seq_nr_ = 0;
  const zelcore::plugin_db* plugin_db_;
  state_notification_receiver* receiver_;
  state_db* state_db_;
  history_db* history_db_;
  std::uint32_t history_keep_time_;
};

}  // namespace zelcapi
