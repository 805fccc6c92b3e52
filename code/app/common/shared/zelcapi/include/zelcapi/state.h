// The client's local replica of the cluster state: seven keyed stores of item records (clients,
// nodes, submissions, sources, slots, jobs, tasks), the workflows with their manager, the
// workflow results, the history of what left the live state, the snapshot format, and the
// persistence interfaces (state_db, history_db) with the background saver.
//
// Threading: a state takes no lock. It is changed by one thread at a time (the state
// connection's I/O thread); readers on other threads must be serialised with it by the caller.
// Receiver and workflow callbacks run on the thread that changes the state; an exception raised
// by a receiver travels to the caller of the state operation, after the store has been changed.
// The one thread a state starts is the saver (save_state_to_db), which touches only its own copy
// of the state and the state_db.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>

#include <boost/shared_ptr.hpp>

#include "zelbase/refcount.h"
#include "zelcapi/export.h"
#include "zelcapi/workflow_manager.h"
#include "zelcore/plugin_db.h"
#include "zelcore/properties.h"
#include "zelworkflow/workflow_info.h"

namespace zelcapi {

namespace detail {
class item_index;
class saved_workflows;
}  // namespace detail

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
  explicit workflow_result_info(zelworkflow::workflow_info::status status) : status(status) {}
  explicit workflow_result_info(std::uint32_t status) : status(status) {}
  workflow_result_info(zelworkflow::workflow_info::status status, std::uint32_t ht)
      : status(status), ht(ht) {}
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

using workflow_result_map = std::map<std::string, workflow_result_info>;
using properties_cptr = zelbase::ptr_refcount<const zelcore::properties>;

// Where a state is saved. The application implements it (or takes memory_state_db or the SQLite
// store); the state calls it from the saver thread only, one save at a time. A save is
// begin_save, store_item for every record (workflows as db_item_workflow), then
// store_workflow_results and last store_workflow_sequence_number: a store that writes a save as
// one unit commits it there. A save that raises part-way is abandoned; the next begin_save must
// discard what it wrote. Loads (set_and_update_from_state_db) run on the caller's thread.
class ZELCAPI_EXPORT state_db {
 public:
  state_db() = default;
  state_db(const state_db&) = default;
  state_db& operator=(const state_db&) = default;
  virtual ~state_db();

  // Removes every saved record, result and sequence number. Not called by the state.
  virtual void clear() = 0;
  // The saved records of a kind: one child per id (for db_item_workflow one encoded workflow per
  // id). Never null: an empty tree when there is nothing.
  virtual properties_cptr load_items(db_item_type type) = 0;
  // The saved workflow results in the snapshot's "workflow-results" layout. Never null.
  virtual properties_cptr load_workflow_results() = 0;
  // The saved workflow sequence number; 0 when there is none.
  virtual std::uint64_t load_workflow_sequence_number() = 0;
  // Stores one record of the save in progress.
  virtual void store_item(db_item_type type, const std::string& id,
                          const zelcore::properties& record) = 0;
  // Removes one saved record. Not called by the state (for stores kept up to date per change).
  virtual void remove_item(db_item_type type, const std::string& id) = 0;
  // Stores the workflow results of the save in progress.
  virtual void store_workflow_results(const workflow_result_map& results) = 0;
  // Stores the sequence number: the last call of a save, where the save is complete.
  virtual void store_workflow_sequence_number(std::uint64_t sequence_number) = 0;
  // Copies one saved record into `out`; false when there is none. Not called by the state.
  virtual bool load_item(db_item_type type, const std::string& id, zelcore::properties& out) = 0;
  // Whether a complete save is there to load. Not called by the state.
  virtual bool has_saved_state() = 0;
  // Starts a save: the records that follow replace the previous save whole.
  virtual void begin_save() = 0;
  // Called by set_and_update_from_state_db around its reads, end_load also when a read raised:
  // a store that can reads them from one snapshot (a read transaction), so that a save
  // committed meanwhile is seen whole or not at all. Pairs may nest; the defaults do nothing.
  virtual void begin_load() {}
  virtual void end_load() noexcept {}
};

// A state_db that passes every call to another one: the base of a store that watches or alters
// some calls (timing saves, failing on purpose) and leaves the rest to the store it wraps, which
// must outlive it. Each operation raises what the wrapped store raises.
class ZELCAPI_EXPORT forwarding_state_db : public state_db {
 public:
  explicit forwarding_state_db(state_db& inner) noexcept : inner_(inner) {}
  ~forwarding_state_db() override;

  void clear() override { inner_.clear(); }
  properties_cptr load_items(db_item_type type) override { return inner_.load_items(type); }
  properties_cptr load_workflow_results() override { return inner_.load_workflow_results(); }
  std::uint64_t load_workflow_sequence_number() override {
    return inner_.load_workflow_sequence_number();
  }
  void store_item(db_item_type type, const std::string& id,
                  const zelcore::properties& record) override {
    inner_.store_item(type, id, record);
  }
  void remove_item(db_item_type type, const std::string& id) override {
    inner_.remove_item(type, id);
  }
  void store_workflow_results(const workflow_result_map& results) override {
    inner_.store_workflow_results(results);
  }
  void store_workflow_sequence_number(std::uint64_t sequence_number) override {
    inner_.store_workflow_sequence_number(sequence_number);
  }
  bool load_item(db_item_type type, const std::string& id, zelcore::properties& out) override {
    return inner_.load_item(type, id, out);
  }
  bool has_saved_state() override { return inner_.has_saved_state(); }
  void begin_save() override { inner_.begin_save(); }
  void begin_load() override { inner_.begin_load(); }
  void end_load() noexcept override { inner_.end_load(); }

 private:
  state_db& inner_;
};

// Where history is kept outside memory. Called on the thread that changes the state.
class ZELCAPI_EXPORT history_db {
 public:
  history_db() = default;
  history_db(const history_db&) = default;
  history_db& operator=(const history_db&) = default;
  virtual ~history_db();

  // The historized records of a kind, one child per id. Never null. Not called by the state.
  virtual properties_cptr load_items(db_item_type type) = 0;
  // Copies one historized record into `out`; false when there is none. Not called by the state.
  virtual bool load_item(db_item_type type, const std::string& id, zelcore::properties& out) = 0;
  // Stores a historized record (replacing one of the same kind and id) with the current time.
  virtual void store_item(db_item_type type, const std::string& id,
                          const zelcore::properties& record) = 0;
  virtual void remove_item(db_item_type type, const std::string& id) = 0;
  virtual void remove_items(db_item_type type) = 0;
  virtual void remove_items(db_item_type type, const std::set<std::string>& ids) = 0;
  // How many records of a kind are kept. Not called by the state.
  virtual std::uint64_t count_items(db_item_type type) = 0;
  // When the record was historized (seconds); 0 when there is none. Not called by the state.
  virtual std::uint32_t get_historize_time(db_item_type type, const std::string& id) = 0;
  // Drops every record historized at or before `time` (seconds).
  virtual void remove_items_historized_until(std::uint32_t time) = 0;
  // The historized records of a kind whose string field `key` equals `value`, one child per id
  // (a history request by client or submission id). Never null. Not called by the state.
  virtual properties_cptr load_items_where(db_item_type type, const std::string& key,
                                           const std::string& value) = 0;
  // Removes every historized record. Not called by the state.
  virtual void clear() = 0;
  // Groups the calls up to end_batch into one write, where the store can. Not called by the state.
  virtual void begin_batch() = 0;
  virtual void end_batch() = 0;
};

class ZELCAPI_EXPORT state : public workflow_manager_event_receiver {
 public:
  // One store: item id -> record, in ascending id order.
  using item_map = std::map<std::string, zelcore::properties>;
  using workflow_map = workflow_manager::workflow_map;
  using workflow_ptr = boost::shared_ptr<zelworkflow::workflow_info>;

  // The plugin database, receiver, state_db and history_db are not owned and must outlive the
  // state; the receiver and the databases may be null. A non-zero keep time without a
  // history_db keeps history in memory (a second state owned by this one). The state_db is only
  // stored: set_and_update_from_state_db loads from it.
  state(const zelcore::plugin_db& plugins, state_notification_receiver* receiver,
        state_db* states = nullptr, history_db* histories = nullptr,
        std::uint32_t history_keep_time = 0);
  // Waits for a save still writing to this state's state_db.
  ~state() override;
  state(const state&) = delete;
  state& operator=(const state&) = delete;

  // --- Items ---

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

  // --- Snapshots (the tree of "clients" ... "tasks", "workflow-results", "workflows",
  //     "workflow-seq-nr"); writers store their keys into `out` and leave its other keys ---

  void get_state(zelcore::properties& out) const;
  // One child per item of the kind (id -> copy of the record), directly into `out`.
  void get_items(state_item_type type, zelcore::properties& out) const;
  // One child per workflow (id -> encoded workflow), directly into `out`.
  void get_workflows(zelcore::properties& out) const;
  // Replaces, for each key the snapshot holds, that part of the state (keys it lacks keep their
  // content; unknown keys are ignored). Calls no receiver. Raises what the per-kind readers and
  // the workflow manager raise (a record that is not a `properties`, a result without "st"); the
  // parts read before the failure keep their new content.
  void set_state(const zelcore::properties& snapshot);

  // --- Workflow results ---

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
  const workflow_result_map& get_workflow_results() const noexcept { return workflow_results_; }
  // One child per workflow id, each holding the encoded result.
  void get_workflow_results(zelcore::properties& out) const;

  // --- Workflows ---

  workflow_manager& get_workflow_manager() noexcept { return workflow_manager_; }
  const workflow_manager& get_workflow_manager() const noexcept { return workflow_manager_; }
  const workflow_map& get_workflows() const noexcept { return workflows_; }
  workflow_map& get_workflows_non_const() noexcept { return workflows_; }
  // Decodes and adds a workflow through the manager (a new id when `workflow_id` is empty).
  void add_workflow(const std::string& workflow_id, const zelcore::properties& workflow);
  // Removes a workflow through the manager (into history when history is kept).
  void remove_workflow(const std::string& workflow_id);
  // Applies an "update-workflow" action through the manager; raises what the manager raises.
  void update_workflow(const zelcore::properties& update);
  bool has_workflow_in_state(const std::string& workflow_id) const;
  // 1 when live, else 2 when in the in-memory history, else 0.
  int has_workflow_in_state_or_history(const std::string& workflow_id) const;
  // Raises es::arg "Workflow ID not found in state".
  const workflow_ptr& get_workflow_from_state(const std::string& workflow_id) const;
  // Raises es::arg "Workflow ID not found in state or history".
  const workflow_ptr& get_workflow_from_state_or_history(const std::string& workflow_id) const;
  std::uint64_t get_workflow_sequence_number() const noexcept { return workflow_seq_nr_; }

  void wm_cb_workflow_will_be_updated(const std::string& workflow_id,
                                      const zelcore::properties& update) override;
  void wm_cb_workflow_was_updated(const std::string& workflow_id,
                                  const zelcore::properties& update) override;

  // --- History (in memory when the state owns a history state, and/or in the history_db) ---

  // Moves a live item into history; raises "state does not have item id %s" for an id that is
  // not live when history is kept (after on_item_historizing).
  void item_historize(state_item_type type, const std::string& id);
  // Puts `props` into history under id and drops a live item of that id.
  void item_add_to_history(state_item_type type, const std::string& id,
                           const zelcore::properties& props);
  // Drops history older than the keep time.
  void clean_history();
  // Drops history historized at or before `bound` (seconds).
  void clean_history(std::uint32_t bound);
  // 0 deletes the in-memory history; a non-zero time creates an empty one unless a history_db
  // is set or one exists.
  void set_history_keep_time(std::uint32_t seconds);
  std::uint32_t get_history_keep_time() const noexcept { return history_keep_time_; }
  void remove_historized_item(state_item_type type, const std::string& id);
  // Empties the kind's history without notifying.
  void remove_historized_items(state_item_type type);
  // Removes each id, notifying per id.
  void remove_historized_items(state_item_type type, const std::set<std::string>& ids);
  // Erases one historized workflow; the history_db is not told.
  void remove_historized_workflow(const std::string& workflow_id);
  // Erases every historized workflow; on_historized_workflow_removed for the spawned ones only.
  void remove_historized_workflows();
  void remove_historized_workflows(const std::set<std::string>& workflow_ids);
  // The in-memory history as a snapshot; raises es::uspec "can't get history without history".
  void get_history(zelcore::properties& out) const;
  // Raises es::uspec "can't get history items without history".
  const item_map& get_history_items(state_item_type type) const;
  // Raises es::uspec "can't get historized workflows without history".
  const workflow_map& get_historized_workflows() const;
  bool has_workflow_in_history(const std::string& workflow_id) const;
  // Raises es::arg "Workflow ID not found in history".
  const workflow_ptr& get_workflow_from_history(const std::string& workflow_id) const;
  // Copies the live record, else the historized one, into `out`; false when neither exists.
  bool get_state_or_history_item(state_item_type type, const std::string& id,
                                 zelcore::properties& out) const;
  bool has_history() const noexcept { return history_ != nullptr; }
  history_db* get_history_db() const noexcept { return history_db_; }
  // Only stores the pointer: the in-memory history is neither created nor deleted.
  void set_history_db(history_db* db) noexcept { history_db_ = db; }

  // --- Persistence ---

  // Copies the state and writes the copy to the state_db on the saver thread (nothing without a
  // state_db). When a save is still running it reports "Previous save of state still active,
  // ..." and returns (wait false) or saves after it (wait true). With wait true it returns
  // when the save is done. A failing state_db is reported ("Failed to update state: %s"), never
  // raised. Saves of all states in the process run one at a time, in the order asked for.
  void save_state_to_db(bool wait);
  // What save_state_to_db(true) does, without waiting for the save's end: waits for a save
  // still writing, then starts this one on the saver thread. wait_for_saves waits for its end.
  void start_save();
  // Waits up to `limit` for the save writing in the process to end; true when none is writing
  // (saves run one at a time, so every save started before this call has then ended). Lets a
  // caller that must stay responsive (an interpreter checking for signals) wait in slices.
  static bool wait_for_saves(std::chrono::milliseconds limit);
  // Makes `db` the state_db (null: none) after waiting for a running save, and loads the items,
  // results, sequence number and workflows from it, between its begin_load and end_load. Raises
  // what the state_db raises.
  void set_and_update_from_state_db(state_db* db);
  state_db* get_state_db() const noexcept { return state_db_; }

  const zelcore::plugin_db& get_plugin_db() const noexcept { return *plugin_db_; }
  state_notification_receiver* get_receiver() const noexcept { return receiver_; }

 protected:
  // The store to change directly. The state's id index cannot see such changes: this call marks
  // it stale, and the store's lookups go through the ordered map until it has been rebuilt. The
  // reference serves changes made before the state's next operation on the store; a layer that
  // keeps it must call again before changing the store later, or the index may name a node that
  // is gone.
  item_map& get_items_non_const(state_item_type type);
  item_map& get_history_items_non_const(state_item_type type);
  void encode_workflow_infos(const workflow_map& workflows, zelcore::properties& out) const;
  // Replaces one store with the children of `items`; raises the bad-cast error for a child that
  // is not a `properties`, keeping the records copied before it.
  void set_state(state_item_type type, const zelcore::properties& items);
  void set_workflow_results_state(const zelcore::properties& results);
  void set_workflows_state(const zelcore::properties& workflows);
  // Stores the workflow object itself under the id (used on the history state).
  void add_workflow(const std::string& workflow_id, const workflow_ptr& workflow);

 private:
  friend class state_connection;
  // Fetches into cache the index entry of an item about to be changed; `type` must name a kind.
  void prefetch_item(state_item_type type, const std::string& id) const noexcept;
  // The store of a kind, raising as get_items_non_const does for another value.
  item_map& store_of(state_item_type type);
  // The id index of a kind's store (errors as store_of).
  detail::item_index& index_of(state_item_type type);
  // Joins a save still writing to this state's state_db, so that the application may free the
  // state_db once the state is gone.
  void _wait_for_own_save() noexcept;

  item_map clients_;
  item_map nodes_;
  item_map submissions_;
  item_map sources_;
  item_map slots_;
  item_map jobs_;
  item_map tasks_;
  workflow_result_map workflow_results_;
  std::uint64_t workflow_seq_nr_ = 0;
  workflow_map workflows_;
  const zelcore::plugin_db* plugin_db_;
  state_notification_receiver* receiver_;
  workflow_manager workflow_manager_;
  state_db* state_db_;
  history_db* history_db_;
  std::uint32_t history_keep_time_;
  std::unique_ptr<state> history_;
  std::multimap<std::uint32_t, std::pair<state_item_type, std::string>> item_history_times_;
  std::multimap<std::uint32_t, std::string> workflow_history_times_;
  // One per store, in the order of state_item_type.
  std::unique_ptr<detail::item_index> indexes_[7];
  // The workflows' encodings of the last save, reused for those that did not change since.
  std::unique_ptr<detail::saved_workflows> saved_workflows_;
};

}  // namespace zelcapi
