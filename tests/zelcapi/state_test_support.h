// Test support for the state's history, snapshots and persistence: a settable clock, a history_db
// and an in-memory state_db that record every call, and a state filled with every kind of content.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/sample_workflows.h"
#include "zelbase/time.h"
#include "zelcapi/recording_receiver.h"
#include "zelcapi/state.h"
#include "zelcore/properties.h"

namespace zeltest {

// The source path that the state's errors and reports carry.
constexpr const char* state_source = "code\\app\\common\\shared\\zelcapi\\src\\state";

// The snapshot key of each item kind, in the order of the kinds.
inline const char* const item_keys[] = {"clients", "nodes", "submissions", "sources",
                                        "slots",   "jobs",  "tasks"};

// While in scope, zelbase::time_in_seconds() answers `now`; the previous clock comes back after.
class fixed_clock {
 public:
  explicit fixed_clock(std::uint32_t start) : now(start) {
    previous_ = zelbase::set_time_clock([this] { return now; });
  }
  ~fixed_clock() { zelbase::set_time_clock(std::move(previous_)); }
  fixed_clock(const fixed_clock&) = delete;
  fixed_clock& operator=(const fixed_clock&) = delete;

  std::uint32_t now;

 private:
  zelbase::clock_function previous_;
};

inline std::string joined(const std::set<std::string>& ids) {
  std::string out;
  for (const std::string& id : ids) out += (out.empty() ? "" : ",") + id;
  return out;
}

// A history_db that records each call as one line ("store_item(5,j1)") and keeps what is stored.
class recording_history_db : public zelcapi::history_db {
 public:
  std::vector<std::string> calls;
  std::map<std::string, zelcore::properties> stored;  // "<type>/<id>" -> record

  zelcapi::properties_cptr load_items(zelcapi::db_item_type type) override {
    calls.push_back("load_items(" + std::to_string(type) + ")");
    return zelcapi::properties_cptr(new zelcore::properties(false));
  }
  bool load_item(zelcapi::db_item_type type, const std::string& id, zelcore::properties&) override {
    calls.push_back("load_item(" + std::to_string(type) + "," + id + ")");
    return false;
  }
  void store_item(zelcapi::db_item_type type, const std::string& id,
                  const zelcore::properties& record) override {
    calls.push_back("store_item(" + std::to_string(type) + "," + id + ")");
    stored[std::to_string(type) + "/" + id] = record;
  }
  void remove_item(zelcapi::db_item_type type, const std::string& id) override {
    calls.push_back("remove_item(" + std::to_string(type) + "," + id + ")");
  }
  void remove_items(zelcapi::db_item_type type) override {
    calls.push_back("remove_items(" + std::to_string(type) + ")");
  }
  void remove_items(zelcapi::db_item_type type, const std::set<std::string>& ids) override {
    calls.push_back("remove_items(" + std::to_string(type) + ",{" + joined(ids) + "})");
  }
  std::uint64_t count_items(zelcapi::db_item_type) override { return 0; }
  std::uint32_t get_historize_time(zelcapi::db_item_type, const std::string&) override { return 0; }
  void remove_items_historized_until(std::uint32_t time) override {
    calls.push_back("remove_items_historized_until(" + std::to_string(time) + ")");
  }
  zelcapi::properties_cptr load_items_where(zelcapi::db_item_type, const std::string&,
                                            const std::string&) override {
    return zelcapi::properties_cptr(new zelcore::properties(false));
  }
  void clear() override { calls.push_back("clear"); }
  void begin_batch() override { calls.push_back("begin_batch"); }
  void end_batch() override { calls.push_back("end_batch"); }
};

// An in-memory state_db that records each call as one line. Saves arrive on the saver thread, so
// everything is guarded. A held store makes begin_save wait until release(); a store told to
// fail raises from its next store_item.
class recording_state_db : public zelcapi::state_db {
 public:
  std::vector<std::string> calls() const {
    std::lock_guard<std::mutex> hold(lock_);
    return calls_;
  }
  void clear_calls() {
    std::lock_guard<std::mutex> hold(lock_);
    calls_.clear();
  }
  // Makes each begin_save wait until release().
  void hold_saves() {
    std::lock_guard<std::mutex> hold(lock_);
    held_ = true;
  }
  void release() {
    std::lock_guard<std::mutex> hold(lock_);
    held_ = false;
    changed_.notify_all();
  }
  // Waits until begin_save has been entered `count` times in all.
  void wait_for_begun_saves(int count) {
    std::unique_lock<std::mutex> hold(lock_);
    changed_.wait(hold, [&] { return begun_ >= count; });
  }
  // The next store_item raises std::runtime_error("disk full").
  void fail_next_store_item() {
    std::lock_guard<std::mutex> hold(lock_);
    fail_next_store_ = true;
  }

  // What the last save wrote (and the records of a save still going), in the snapshot format.
  zelcore::properties saved() const {
    std::lock_guard<std::mutex> hold(lock_);
    zelcore::properties out(false);
    for (std::uint32_t type = 0; type < 7; ++type)
      out.set_properties_value(item_keys[type], items_[type]);
    zelcore::properties results(false);
    for (const auto& [id, result] : results_) {
      zelcore::properties encoded(false);
      result.encode(encoded);
      results.set_properties_value(id, encoded);
    }
    out.set_properties_value("workflow-results", results);
    out.set_properties_value("workflows", items_[zelcapi::db_item_workflow]);
    out["workflow-seq-nr"] = zelcore::make_int(static_cast<std::int64_t>(sequence_number_));
    return out;
  }

  void clear() override { add("clear"); }
  zelcapi::properties_cptr load_items(zelcapi::db_item_type type) override {
    add("load_items(" + std::to_string(type) + ")");
    std::lock_guard<std::mutex> hold(lock_);
    return zelcapi::properties_cptr(new zelcore::properties(items_[type]));
  }
  zelcapi::properties_cptr load_workflow_results() override {
    add("load_workflow_results");
    std::lock_guard<std::mutex> hold(lock_);
    auto out = zelbase::ptr_refcount<zelcore::properties>(new zelcore::properties(false));
    for (const auto& [id, result] : results_) {
      zelcore::properties encoded(false);
      result.encode(encoded);
      out->set_properties_value(id, encoded);
    }
    return out;
  }
  std::uint64_t load_workflow_sequence_number() override {
    add("load_workflow_sequence_number");
    std::lock_guard<std::mutex> hold(lock_);
    return sequence_number_;
  }
  void store_item(zelcapi::db_item_type type, const std::string& id,
                  const zelcore::properties& record) override {
    add("store_item(" + std::to_string(type) + "," + id + ")");
    std::lock_guard<std::mutex> hold(lock_);
    if (fail_next_store_) {
      fail_next_store_ = false;
      throw std::runtime_error("disk full");
    }
    items_[type].set_properties_value(id, record);
  }
  void remove_item(zelcapi::db_item_type type, const std::string& id) override {
    add("remove_item(" + std::to_string(type) + "," + id + ")");
  }
  void store_workflow_results(const zelcapi::workflow_result_map& results) override {
    add("store_workflow_results(" + std::to_string(results.size()) + ")");
    std::lock_guard<std::mutex> hold(lock_);
    results_ = results;
  }
  void store_workflow_sequence_number(std::uint64_t sequence_number) override {
    add("store_workflow_sequence_number(" + std::to_string(sequence_number) + ")");
    std::lock_guard<std::mutex> hold(lock_);
    sequence_number_ = sequence_number;
  }
  bool load_item(zelcapi::db_item_type type, const std::string& id, zelcore::properties&) override {
    add("load_item(" + std::to_string(type) + "," + id + ")");
    return false;
  }
  bool has_saved_state() override { return true; }
  void begin_save() override {
    std::unique_lock<std::mutex> hold(lock_);
    calls_.push_back("begin_save");
    ++begun_;
    changed_.notify_all();
    changed_.wait(hold, [&] { return !held_; });
    for (zelcore::properties& items : items_) items = zelcore::properties(false);
    results_.clear();
    sequence_number_ = 0;
  }

  // Puts content in place as if a save had written it.
  void put_item(zelcapi::db_item_type type, const std::string& id,
                const zelcore::properties& record) {
    std::lock_guard<std::mutex> hold(lock_);
    items_[type].set_properties_value(id, record);
  }
  void put_result(const std::string& id, const zelcapi::workflow_result_info& result) {
    std::lock_guard<std::mutex> hold(lock_);
    results_[id] = result;
  }
  void put_sequence_number(std::uint64_t sequence_number) {
    std::lock_guard<std::mutex> hold(lock_);
    sequence_number_ = sequence_number;
  }

 private:
  void add(std::string line) {
    std::lock_guard<std::mutex> hold(lock_);
    calls_.push_back(std::move(line));
  }

  mutable std::mutex lock_;
  std::condition_variable changed_;
  std::vector<std::string> calls_;
  bool held_ = false;
  bool fail_next_store_ = false;
  int begun_ = 0;
  zelcore::properties items_[8];
  zelcapi::workflow_result_map results_;
  std::uint64_t sequence_number_ = 0;
};

// A tree as a child property.
inline zelcore::property_ptr child_of(const zelcore::properties& tree) {
  return zelcore::property_ptr(new zelcore::properties(tree));
}

// A state with a recording receiver that keeps history in memory for `keep_time` seconds, at a
// clock that starts at `start`; a recording history_db is at hand (set it with set_history_db).
struct state_with_history {
  state_with_history(std::uint32_t start, std::uint32_t keep_time)
      : clock(start), st(plugins, &receiver, nullptr, nullptr, keep_time) {}

  fixed_clock clock;
  zelcore::plugin_db plugins;
  recording_receiver receiver;
  recording_history_db history_db;
  zelcapi::state st;
};

// The whole state as a snapshot.
inline zelcore::properties snapshot_of(const zelcapi::state& st) {
  zelcore::properties out(false);
  st.get_state(out);
  return out;
}

// Fills `st` with a record of every item kind, two results (one with ht other than 1), a
// template "T", an init workflow "I", a spawned workflow "S" and a workflow spawned from "T"
// through an in-value; the sequence number then stands at 2.
inline void fill_every_part(zelcapi::state& st) {
  for (std::uint32_t type = 0; type < 7; ++type) {
    const auto kind = static_cast<zelcapi::state_item_type>(type);
    zelcore::properties record{{"kind", zelcore::make_string(item_keys[type])},
                               {"n", zelcore::make_int(type)}};
    zelcore::properties inner{{"deep", zelcore::make_bool(type % 2 == 0)}};
    record.set_properties_value("inner", inner);
    st.item_set(kind, std::string(1, static_cast<char>('a' + type)) + "1", record);
    st.item_set(kind, std::string(1, static_cast<char>('a' + type)) + "2", inner);
  }
  st.workflow_result_add("WOFL-r1", zelcapi::workflow_result_info(3u, 7u));
  st.workflow_result_add("WOFL-r2", zelcapi::workflow_result_info(1u));
  st.add_workflow("T", sample_workflow(zelworkflow::workflow_info::workflow_type_template, 3));
  st.add_workflow("I", sample_workflow(zelworkflow::workflow_info::workflow_type_init, 2, true));
  st.add_workflow("S", sample_workflow(zelworkflow::workflow_info::workflow_type_spawned, 2));
  std::string spawned;
  st.get_workflow_manager().set_in_value("T>t1>in", zelcore::make_string("v1"), spawned, "",
                                         zelcore::properties(false), false, "tester");
}

}  // namespace zeltest
