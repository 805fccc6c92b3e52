// Persistence of a state: the saver thread that writes a copy of the state to its state_db
// under a process-wide lock, and the load of a state from a state_db.
#include <chrono>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <boost/make_shared.hpp>

#include "item_index.h"
#include "saved_workflows.h"
#include "zelbase/exceptions.h"
#include "zelbase/refcount.h"
#include "zelbase/strings.h"
#include "zelbase/sync.h"
#include "zelcapi/state.h"
#include "zelcore/report.h"

namespace zelcapi {

namespace {

constexpr const char* source_file = "code\\app\\common\\shared\\zelcapi\\src\\state";

// How many nodes ahead a copy of a store fetches into cache: enough to cover a miss's latency.
constexpr std::size_t prefetch_distance = 16;

void report_state(unsigned line, zelcore::kind k, zelbase::severity s, const std::string& text) {
  zelcore::report(source_file, line, "State", k, s, text);
}

// What a save writes, taken from the state when the save starts. Records share their trees
// with the state (copy on write); workflows are encoded when the save starts, since the state
// changes its workflow objects in place, and those unchanged since the last save keep the
// encoding it took. The records of a kind are one array in id order, not a map: taking them is
// one allocation instead of one per record, on the thread that asked for the save.
struct state_copy {
  std::vector<std::pair<std::string, zelcore::properties>> items[7];
  detail::saved_workflows::encoded_list workflows;
  workflow_result_map results;
  std::uint64_t sequence_number = 0;
};

// Held by a saver thread for the whole of its write: saves of all states run one at a time.
zelbase::mutex& saver_lock() {
  static zelbase::mutex lock;
  return lock;
}

// Told when a saver's thread has done its work; shared with who waits for it, so that a waiter
// holds no reference that would keep the saver (and its thread) from being joined.
class save_end {
 public:
  void tell() {
    {
      std::lock_guard<std::mutex> hold(lock_);
      ended_ = true;
    }
    told_.notify_all();
  }
  bool wait(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> hold(lock_);
    return told_.wait_for(hold, limit, [this] { return ended_; });
  }

 private:
  std::mutex lock_;
  std::condition_variable told_;
  bool ended_ = false;
};

class state_saver final : public zelbase::object_refcount, public zelbase::thread_base {
 public:
  state_saver(state_db& db, std::unique_ptr<state_copy> copy)
      : db_(db), copy_(std::move(copy)), end_(std::make_shared<save_end>()) {
    thread_.start(*this);
  }
  ~state_saver() override {
    try {
      thread_.join();
    } catch (...) {  // a raising body was already reported as far as it could be
    }
  }

  bool writes_to(const state_db* db) const noexcept { return &db_ == db; }
  std::shared_ptr<save_end> end() const { return end_; }

  void run() override {
    // Told however the body ends.
    const std::unique_ptr<save_end, void (*)(save_end*)> told(end_.get(),
                                                              [](save_end* e) { e->tell(); });
    std::unique_lock<zelbase::mutex> hold(saver_lock());
    report_state(__LINE__, 8, 7, "Starting save of state-db to disk");
    const zelcore::ds::timer elapsed("State saving timer");
    try {
      write();
    } catch (const std::exception& e) {
      report_state(__LINE__, 8, 3,
                   zelbase::string_with_format("Failed to update state: %s", e.what()));
    }
    // The lock goes before the closing report, so a save asked for on hearing "Done" is no
    // overlap.
    hold.unlock();
    report_state(__LINE__, 8, 7,
                 zelbase::string_with_format("Done with save of state-db to disk in %f seconds",
                                             elapsed.print(true)));
  }

 private:
  void write() {
    db_.begin_save();
    for (std::uint32_t type = 0; type < 7; ++type)
      for (const auto& [id, record] : copy_->items[type])
        db_.store_item(static_cast<db_item_type>(type), id, record);
    for (const auto& [id, encoded] : copy_->workflows)
      db_.store_item(db_item_workflow, id, encoded);
    db_.store_workflow_results(copy_->results);
    db_.store_workflow_sequence_number(copy_->sequence_number);
  }

  zelbase::thread thread_;
  state_db& db_;
  std::unique_ptr<state_copy> copy_;
  std::shared_ptr<save_end> end_;
};

// The most recent saver of the process; guarded by its own mutex, since states on several
// threads may save.
std::mutex current_saver_guard;
zelbase::ptr_refcount<state_saver> current_saver;
// The end of the saver started last. Unlike current_saver it stays while that saver is joined
// (moved out of current_saver), so that a wait for the saves sees one that is still writing.
std::shared_ptr<save_end> latest_end;

void replace_current_saver(zelbase::ptr_refcount<state_saver> next) {
  zelbase::ptr_refcount<state_saver> previous;
  {
    std::lock_guard<std::mutex> hold(current_saver_guard);
    previous = std::move(current_saver);
    if (next) latest_end = next->end();
    current_saver = std::move(next);
  }
  // Released outside the guard: the last release joins that saver's thread.
}

const zelcore::properties& loaded(const properties_cptr& tree, const char* what) {
  if (!tree)
    zelbase::es::uspec::raise(source_file, __LINE__,
                              zelbase::string_with_format("state_db returned no %s", what));
  return *tree;
}

}  // namespace

void state::_wait_for_own_save() noexcept {
  zelbase::ptr_refcount<state_saver> mine;
  {
    std::lock_guard<std::mutex> hold(current_saver_guard);
    if (current_saver && current_saver->writes_to(state_db_)) mine = std::move(current_saver);
  }
}

void state::save_state_to_db(bool wait) {
  if (!state_db_) return;
  if (!saver_lock().trylock()) {
    report_state(__LINE__, 5, 2,
                 "Previous save of state still active, consider raising the interval for state "
                 "saving and/or lowering the time to keep history");
    if (!wait) return;
  } else {
    saver_lock().unlock();
  }
  start_save();
  if (wait) replace_current_saver(zelbase::ptr_refcount<state_saver>());
}

void state::start_save() {
  if (!state_db_) return;
  auto copy = std::make_unique<state_copy>();
  for (std::uint32_t type = 0; type < 7; ++type) {
    // The nodes in order come as an array, so that the nodes further on are fetched into cache
    // while this one is copied.
    const std::vector<item_map::iterator>& nodes =
        index_of(static_cast<state_item_type>(type)).in_order();
    auto& items = copy->items[type];
    items.reserve(nodes.size());
    for (std::size_t i = 0; i < nodes.size(); ++i) {
      if (i + prefetch_distance < nodes.size()) __builtin_prefetch(&*nodes[i + prefetch_distance]);
      items.emplace_back(nodes[i]->first, nodes[i]->second);
    }
  }
  copy->workflows = saved_workflows_->take(workflows_);
  copy->results = workflow_results_;
  copy->sequence_number = workflow_seq_nr_;
  // The previous saver ends before the next one starts: two savers waiting for the lock take it
  // in no set order, and the older copy could be written last.
  replace_current_saver(zelbase::ptr_refcount<state_saver>());
  replace_current_saver(zelbase::make_refcount<state_saver>(*state_db_, std::move(copy)));
}

bool state::wait_for_saves(std::chrono::milliseconds limit) {
  std::shared_ptr<save_end> end;
  {
    std::lock_guard<std::mutex> hold(current_saver_guard);
    if (!latest_end) return true;
    end = latest_end;
  }
  return end->wait(limit);
}

void state::set_and_update_from_state_db(state_db* db) {
  replace_current_saver(zelbase::ptr_refcount<state_saver>());
  state_db_ = db;
  if (!db) return;
  // One snapshot of the store for all the reads below, ended also when one of them raises.
  struct load_scope {
    explicit load_scope(state_db& db) : db_(db) { db_.begin_load(); }
    ~load_scope() { db_.end_load(); }
    state_db& db_;
  } scope(*db);
  for (const state_item_type type :
       {state_item_client, state_item_node, state_item_submission, state_item_source,
        state_item_slot, state_item_job, state_item_task})
    set_state(type, loaded(db->load_items(static_cast<db_item_type>(type)), "records"));
  set_workflow_results_state(loaded(db->load_workflow_results(), "workflow results"));
  workflow_seq_nr_ = db->load_workflow_sequence_number();
  const properties_cptr workflows = db->load_items(db_item_workflow);
  for (const auto& [id, encoded] : loaded(workflows, "workflows")) {
    const auto* tree = dynamic_cast<const zelcore::properties*>(encoded.get());
    if (!tree) continue;
    auto workflow = boost::make_shared<zelworkflow::workflow_info>();
    workflow->decode_workflow_info(*tree, *plugin_db_);
    workflows_[id] = workflow;
  }
}

}  // namespace zelcapi
