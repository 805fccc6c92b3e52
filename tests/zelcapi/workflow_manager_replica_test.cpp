// Replica test: a manager makes a long seeded sequence of random local changes; every action it
// writes is applied with update_workflow to a second manager that started from the same
// workflows, and both end with the same workflows, the same sequence counter and the same
// callbacks.
//
// Left out: set_task_max_attempts (its action is written in a spelling that update_workflow
// does not apply) and set_ext_meta_data (it writes no action). The generator also avoids changes
// that raise or refuse part-way after changing something (a refused value after a spawn, an init
// status or out-values copied to a removed waiting workflow, out-values that spawn with ids of
// their own): those write no action, so no replica could follow them.
#include <gtest/gtest.h>

#include <random>

#include "support/capture_sink.h"
#include "support/sample_workflows.h"
#include "zelbase/exceptions.h"
#include "zelbase/paths.h"
#include "zelcapi/workflow_manager_support.h"

namespace {

using zelcapi::workflow_manager;
using zelcore::make_int;
using zelcore::make_string;
using zelcore::properties;
using zelcore::property_ptr;
using zeltest::managed_workflows;
using zelworkflow::workflow_info;

constexpr int change_count = 12000;
constexpr int check_every = 500;
constexpr std::size_t max_workflows = 60;

// Hands every written action on (the "was updated" calls; removals announce twice).
class forwarding_receiver : public zelcapi::workflow_manager_event_receiver {
 public:
  void wm_cb_workflow_will_be_updated(const std::string&, const properties&) override {}
  void wm_cb_workflow_was_updated(const std::string& id, const properties& update) override {
    pending.emplace_back(id, update);
  }
  std::vector<std::pair<std::string, properties>> pending;
};

class replica_run {
 public:
  explicit replica_run(std::uint64_t seed)
      : rng_(seed), writer_(&forwarder_, writer_workflows_, writer_sequence_) {
    // Kept for the whole run: an inited template, a template that needs an init value first,
    // a template whose "fetch" task takes a source url, an init workflow, a spawned workflow.
    properties fetch_tasks;
    fetch_tasks.set_properties_value(
        "fetch", zeltest::sample_task("download", 0, {{"source-url", "string"}, {"in", "any"}},
                                      {{"out", {"work>in"}}}));
    fetch_tasks.set_properties_value("work",
                                     zeltest::sample_task("command", 0, {{"in", "any"}}, {}));
    const properties fetch{{"type", make_int(workflow_info::workflow_type_template)},
                           {"tasks", zeltest::tree_of(fetch_tasks)}};
    seed_workflow("T-plain", zeltest::sample_workflow(workflow_info::workflow_type_template, 4));
    seed_workflow("T-init",
                  zeltest::sample_workflow(workflow_info::workflow_type_template, 3, true));
    seed_workflow("T-fetch", fetch);
    seed_workflow("I-base", zeltest::sample_workflow(workflow_info::workflow_type_init, 3, true));
    seed_workflow("S-base", zeltest::sample_workflow(workflow_info::workflow_type_spawned, 5));
    writer_sequence_ = replica_.sequence_number = 100;
  }

  // Makes `count` changes, checking the replica every `check_every` of them.
  void run(int count) {
    for (int step = 1; step <= count; ++step) {
      step_ = step;
      change();
      track_new_workflows();
      replay();
      ASSERT_EQ(writer_sequence_, replica_.sequence_number)
          << "after change " << step_ << " of kind " << last_kind_;
      if (step % check_every == 0 || step == count) {
        expect_same_workflows();
        if (::testing::Test::HasFailure()) return;
      }
    }
  }

  int applied() const { return applied_; }
  // How many actions of each kind were applied.
  const std::map<std::string, int>& actions() const { return actions_; }
  int raised() const { return raised_; }
  std::size_t live_workflows() const { return writer_workflows_.size(); }
  std::uint64_t spawns() const { return writer_sequence_ - 100; }

 private:
  void seed_workflow(const std::string& id, const properties& encoded) {
    for (auto* map : {&writer_workflows_, &replica_.workflows}) {
      auto wi = boost::shared_ptr<workflow_info>(new workflow_info());
      wi->decode_workflow_info(encoded, replica_.db);
      (*map)[id] = wi;
    }
    live_.push_back(id);
    kept_.insert(id);
  }

  std::size_t pick(std::size_t n) {
    return std::uniform_int_distribution<std::size_t>(0, n - 1)(rng_);
  }
  bool chance(int percent) { return static_cast<int>(pick(100)) < percent; }
  const std::string& any_workflow() { return live_[pick(live_.size())]; }
  const workflow_info& wf(const std::string& id) { return *writer_workflows_.at(id); }
  const workflow_manager& writer() const { return writer_; }

  std::vector<std::string> task_ids(const std::string& id) {
    std::list<std::string> uris;
    writer().get_task_uris(id, uris);
    return std::vector<std::string>(uris.begin(), uris.end());
  }
  // A random task of a workflow, or "" when it has none.
  std::string any_task(const std::string& id) {
    const auto ids = task_ids(id);
    return ids.empty() ? std::string() : ids[pick(ids.size())];
  }
  properties task_encoding(const std::string& id, const std::string& wtid) {
    properties out;
    writer().encode_task(id, wtid, out);
    return out;
  }
  std::vector<std::string> in_nodes(const std::string& id, const std::string& wtid) {
    std::vector<std::string> names;
    const properties task = task_encoding(id, wtid);
    for (const auto& entry : task.get_properties_value("in-nodes")) names.push_back(entry.first);
    return names;
  }
  bool node_is_empty(const std::string& id, const std::string& wtid, const std::string& node) {
    return !wf(id).get_task_info(wtid)->get_in_value(node);
  }
  bool has_removed_waiting(const std::string& id) {
    for (const auto& entry : wf(id).get_waiting_wfs())
      if (!writer_workflows_.count(entry.first)) return true;
    return false;
  }
  property_ptr any_value() {
    switch (pick(3)) {
      case 0: return make_string("v" + std::to_string(step_));
      case 1: return make_int(static_cast<std::int64_t>(pick(1000)));
      default: return zeltest::tree_of(properties{{"step", make_int(step_)}});
    }
  }
  std::string new_id() { return chance(80) ? "w" + std::to_string(step_) : std::string(); }
  properties any_meta() {
    return properties{{"k" + std::to_string(pick(5)), make_int(step_)},
                      {"tag", make_string("s" + std::to_string(pick(3)))}};
  }

  // One random change on the writer; a change that raises must raise before changing anything.
  void change() {
    try {
      const std::size_t kind = pick(100);
      last_kind_ = kind;
      if (live_.size() > max_workflows && kind < 40) return remove_one();
      if (kind < 18) return set_status();
      if (kind < 26) return progress();
      if (kind < 30) return scheduling();
      if (kind < 34) return priorities();
      if (kind < 42) return meta_data();
      if (kind < 49) return dependants();
      if (kind < 52) return add_task();
      if (kind < 56) return add_workflow();
      if (kind < 60) return remove_one();
      if (kind < 76) return in_value();
      if (kind < 82) return in_values();
      if (kind < 87) return init_in_value();
      return out_values();
    } catch (const zelbase::es::base&) {
      ++raised_;
    }
  }

  void set_status() {
    const std::string id = any_workflow();
    const std::string wtid = any_task(id);
    if (wtid.empty()) return;
    // An init status is copied to the waiting workflows, which must all be there.
    if (wf(id).get_type() == workflow_info::workflow_type_init &&
        wf(id).get_task_info(wtid)->get_type() == zelcore::task::task_type_init &&
        has_removed_waiting(id))
      return;
    const auto status = static_cast<zelcore::task::status>(pick(6));
    if (chance(50))
      writer_.set_task_status(id, wtid, status, static_cast<unsigned>(step_), "node-" + id, "m");
    else
      writer_.set_task_status(workflow_manager::create_wpath(id, wtid), status,
                              static_cast<unsigned>(step_), "node", "");
  }

  void progress() {
    const std::string id = any_workflow();
    const std::string wtid = any_task(id);
    if (wtid.empty()) return;
    const properties p{{"percent", make_int(static_cast<std::int64_t>(pick(101)))}};
    if (chance(50))
      writer_.update_task_progress(id, wtid, p);
    else
      writer_.update_task_progress(workflow_manager::create_wpath(id, wtid), p);
  }

  void scheduling() {
    const std::string id = any_workflow();
    const std::string wtid = any_task(id);
    if (wtid.empty()) return;
    writer_.set_task_scheduling_state(workflow_manager::create_wpath(id, wtid),
                                      static_cast<zelcore::task::scheduling_state>(pick(3)));
  }

  void priorities() {
    const std::string id = any_workflow();
    const auto whence = static_cast<workflow_info::priority_whence>(pick(2));
    const auto priority = static_cast<std::int64_t>(pick(200)) - 100;
    if (chance(50)) return writer_.set_priority(id, priority, whence, -50, 50);
    const std::string wtid = any_task(id);
    if (!wtid.empty())
      writer_.set_task_priority(workflow_manager::create_wpath(id, wtid), priority, whence, -20,
                                80);
  }

  void meta_data() {
    const std::string id = any_workflow();
    switch (pick(3)) {
      case 0: return writer_.set_workflow_meta_data(id, any_meta());
      case 1: return writer_.add_workflow_meta_data(id, any_meta());
      default: return writer_.add_ext_meta_data(id, any_meta());
    }
  }

  void dependants() {
    const std::string dependant = "d" + std::to_string(pick(8));
    switch (pick(3)) {
      case 0: return writer_.add_dependant(any_workflow(), dependant);
      case 1: return writer_.remove_dependant(any_workflow(), dependant);
      default: return writer_.remove_dependant(dependant);
    }
  }

  void add_task() {
    std::string wtid;
    writer_.add_task(any_workflow(), zeltest::sample_task("command", 0, {{"in", "any"}}, {}),
                     replica_.db, wtid);
  }

  void add_workflow() {
    const auto type = static_cast<workflow_info::workflow_type>(pick(3));
    std::string id;
    writer_.add_workflow(zeltest::sample_workflow(type, 1 + pick(4), chance(40)), replica_.db, id,
                         new_id());
  }

  void remove_one() {
    const std::string id = any_workflow();
    if (!kept_.count(id)) writer_.remove_workflow(id);
  }

  // An in-node of the workflow that a value may be sent to without a refusal after a spawn.
  bool pick_in_node(const std::string& id, std::string& path) {
    const std::string wtid = any_task(id);
    if (wtid.empty()) return false;
    const auto nodes = in_nodes(id, wtid);
    if (nodes.empty()) return false;
    const std::string& node = nodes[pick(nodes.size())];
    const workflow_info& w = wf(id);
    // An init workflow spawns a child for an ordinary task: the child must take the value.
    if (w.get_type() == workflow_info::workflow_type_init &&
        w.get_task_info(wtid)->get_type() == zelcore::task::task_type_ordinary &&
        (!node_is_empty(id, wtid, node) ||
         w.get_task_info(wtid)->get_status() >= zelcore::task::status_running))
      return false;
    path = (chance(50) ? "workflow:" : "") + id + ">" + wtid + ">" + node;
    return true;
  }

  void in_value() {
    const std::string id = any_workflow();
    std::string path;
    if (!pick_in_node(id, path)) return;
    std::string state_id;
    property_ptr value = path.find("source-url") != std::string::npos
                             ? make_string("http://h/" + std::to_string(step_))
                             : any_value();
    writer_.set_in_value(path, value, state_id, new_id(), chance(30) ? any_meta() : properties(),
                         chance(20), "orig-" + std::to_string(pick(3)));
  }

  // Several values at once, to an inited template or a spawned workflow.
  void in_values() {
    const std::string id = any_workflow();
    const workflow_info& w = wf(id);
    const bool spawns = w.get_type() == workflow_info::workflow_type_template;
    if (!(spawns ? w.is_inited() : w.get_type() == workflow_info::workflow_type_spawned)) return;
    properties tree;
    for (const std::string& wtid : task_ids(id)) {
      for (const std::string& node : in_nodes(id, wtid)) {
        if (!chance(50)) continue;
        tree[wtid + ">" + node] =
            node == "source-url" ? make_string("http://s/" + std::to_string(step_)) : any_value();
      }
    }
    const workflow_manager::properties_ptr values(new properties(tree));
    std::string state_id;
    writer_.set_in_values(chance(50) ? "workflow:" + id : id, values, state_id, new_id(),
                          any_meta(), chance(20), "many");
  }

  void init_in_value() {
    const std::string id = any_workflow();
    if (wf(id).get_type() != workflow_info::workflow_type_init && !chance(10)) return;
    std::string path;
    if (!pick_in_node(id, path)) return;
    writer_.set_init_in_value(path, any_value(), "init-" + std::to_string(pick(2)));
  }

  // Out-values of an ordinary task of a spawned workflow, or of an init task of an init
  // workflow whose waiting workflows are all there; routed to the task's own destinations.
  void out_values() {
    const std::string id = any_workflow();
    const std::string wtid = any_task(id);
    if (wtid.empty()) return;
    const workflow_info& w = wf(id);
    const auto task_type = w.get_task_info(wtid)->get_type();
    const bool spawned_ordinary = w.get_type() == workflow_info::workflow_type_spawned &&
                                  task_type == zelcore::task::task_type_ordinary;
    const bool init_init = w.get_type() == workflow_info::workflow_type_init &&
                           task_type == zelcore::task::task_type_init && !has_removed_waiting(id);
    if (!spawned_ordinary && !init_init) return;
    properties outs;
    const properties task = task_encoding(id, wtid);
    for (const auto& [name, out] : task.get_properties_value("out-values")) {
      const auto& encoded = static_cast<const properties&>(*out);
      // An init out-value routed to an ordinary node of the init workflow must leave that node
      // free for the children to come, or a later spawn through it would be refused.
      bool routable = true;
      if (init_init) {
        for (const property_ptr& d : encoded.get_list_value("destinations")) {
          const std::string target = d->to_string();
          const std::string target_task = zelbase::path_front(target, '>');
          if (w.get_task_info(target_task)->get_type() == zelcore::task::task_type_ordinary)
            routable = false;
        }
      }
      if (!routable && chance(80)) continue;
      outs.set_properties_value(name,
                                properties{{"value", any_value()},
                                           {"destinations", encoded.get_property("destinations")}});
    }
    if (chance(50))
      writer_.set_in_out_values(id, wtid, outs, any_meta(), "out");
    else
      writer_.set_in_out_values(workflow_manager::create_wpath(id, wtid), outs, properties(), "");
  }

  // Adds the ids of workflows that appeared in the writer's map.
  void track_new_workflows() {
    for (auto it = live_.begin(); it != live_.end();)
      it = writer_workflows_.count(*it) ? it + 1 : live_.erase(it);
    if (live_.size() == writer_workflows_.size()) return;
    const std::set<std::string> known(live_.begin(), live_.end());
    for (const auto& entry : writer_workflows_)
      if (!known.count(entry.first)) live_.push_back(entry.first);
  }

  // Applies every pending action to the replica, which must announce it under the same id.
  void replay() {
    for (const auto& [id, update] : forwarder_.pending) {
      replica_.receiver.calls.clear();
      replica_.manager.update_workflow(update, replica_.db);
      ++applied_;
      ++actions_[update.get_string_value("action")];
      ASSERT_EQ(replica_.receiver.calls.size(), 2u) << update.describe();
      EXPECT_TRUE(replica_.receiver.calls[0].will);
      EXPECT_EQ(replica_.receiver.calls[0].workflow_id, id) << update.describe();
      EXPECT_EQ(replica_.receiver.calls[1].workflow_id, id);
      EXPECT_EQ(replica_.receiver.calls[1].update, update);
    }
    forwarder_.pending.clear();
  }

  void expect_same_workflows() {
    ASSERT_EQ(writer_sequence_, replica_.sequence_number)
        << "after change " << step_ << " of kind " << last_kind_;
    properties mine, theirs;
    writer_.encode_all_workflows(mine);
    replica_.manager.encode_all_workflows(theirs);
    if (mine == theirs) return;
    for (const auto& [id, encoded] : mine) {
      const property_ptr other = theirs.get_property(id);
      if (!other || *other != *encoded) {
        ADD_FAILURE() << "after change " << step_ << " workflow " << id << " differs:\n"
                      << encoded->describe() << "\n"
                      << (other ? other->describe() : std::string("(missing)"));
        return;
      }
    }
    ADD_FAILURE() << "after change " << step_ << " the replica has more workflows";
  }

  std::mt19937_64 rng_;
  forwarding_receiver forwarder_;
  workflow_manager::workflow_map writer_workflows_;
  std::uint64_t writer_sequence_ = 0;
  workflow_manager writer_;
  managed_workflows replica_;
  std::vector<std::string> live_;
  std::set<std::string> kept_;
  int step_ = 0;
  int applied_ = 0;
  int raised_ = 0;
  std::map<std::string, int> actions_;
  std::size_t last_kind_ = 0;
};

TEST(WorkflowManagerReplica, RandomLocalChangesReplayToTheSameWorkflows) {
  zeltest::capture_sink quiet;  // waiting workflows that were removed are reported
  replica_run run(20261122);
  run.run(change_count);
  // The run must have exercised the replica for real.
  EXPECT_GT(run.applied(), change_count / 2);
  EXPECT_GT(run.live_workflows(), 5u);
  for (const char* action :
       {"add-workflow", "remove-workflow", "add-dependant", "remove-dependant", "set-priority",
        "add-task", "set-task-status", "set-task-scheduling-state", "update-task-progress",
        "set-task-priority", "set-workflow-meta-data", "add-workflow-meta-data",
        "add-ext-meta-data", "set-in-value", "set-in-values", "set-init-in-value",
        "set-in-out-values"}) {
    EXPECT_GT(run.actions().count(action) ? run.actions().at(action) : 0, 20) << action;
  }
  EXPECT_GT(run.spawns(), 200u);
  RecordProperty("applied", run.applied());
  RecordProperty("raised", run.raised());
}

}  // namespace
