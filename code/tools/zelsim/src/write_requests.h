// The master's write requests: "cluster.api.workflow.update" (the workflow manager's own
// "update-workflow" actions), "cluster.api.jobs.submit" (plain jobs) and "cluster.api.jobs.steer"
// (cancel, hold, release, retry, priority). Each answers with an outcome per item; checks the
// sender's right to the work it touches; honours client keys and dry runs. docs/wire-protocol.md
// gives every field and text.
//
// Threads: used by the nodes' thread only.
#pragma once

#include <string>

#include "master_state.h"
#include "node_pool.h"
#include "request_keys.h"
#include "runner.h"
#include "zelcore/properties.h"
#include "zelsim/cluster.h"

namespace zelsim {

// One item's answer: "outcome", and "text" and "owner" when they are not empty.
zelcore::properties item_of(const verdict& v);

class write_requests {
 public:
  static constexpr const char* update_name = "cluster.api.workflow.update";
  static constexpr const char* submit_name = "cluster.api.jobs.submit";
  static constexpr const char* steer_name = "cluster.api.jobs.steer";

  // All must outlive this.
  write_requests(master_state& master, runner& work, node_pool& pool, const options& o);

  static bool is_write_request(const std::string& name);
  // Answers the write request `name` from `who`, received by the node `node_id`, into `reply`
  // (which already carries the bounce tree). Raises zelbase::es::arg with the text of the
  // "error" for a request refused whole (from a link without a login, to a node that is not the
  // master `master_id`, with a malformed field, without a key it needs, with a key used for
  // another request); then nothing changed.
  void answer(const std::string& name, const identity& who, const std::string& node_id,
              const std::string& master_id, const zelcore::properties& request,
              zelcore::properties& reply);

 private:
  void _submit(const identity& who, const zelcore::properties& request, bool dry_run,
               zelcore::properties& reply);
  void _steer(const identity& who, const zelcore::properties& request, bool dry_run,
              zelcore::properties& reply);
  void _update(const identity& who, const zelcore::properties& request, bool dry_run,
               zelcore::properties& reply);
  // Whether an action creates a workflow without naming its state id (it then needs a key).
  bool _creates_unnamed(const zelcore::property_ptr& element) const;
  // One action, checked, tried on copies of the workflows it touches and then applied unless
  // `dry_run`; `state_id` receives the workflow it concerns or created. Raises es::arg for an
  // invalid one.
  verdict _action(const identity& who, zelcore::properties& action, bool dry_run,
                  std::string& state_id);
  verdict _add_workflow(const identity& who, zelcore::properties& action, bool dry_run,
                        std::string& state_id);
  // "set-in-value", "set-in-values", "set-init-in-value" and "set-in-out-values", of which the
  // first two spawn workflows from templates and init workflows.
  verdict _in_values(const identity& who, const std::string& name, zelcore::properties& action,
                     bool dry_run, std::string& state_id);
  // True, with the verdict, when `who` may not change the workflow `id`: not live, the
  // workload's, or another user's.
  bool _refused(const identity& who, const std::string& id, verdict& v) const;
  // True, with the verdict, when a workflow may not be made under the client-chosen id `id`.
  bool _taken(const identity& who, const std::string& id, verdict& v) const;
  // Checks the runner's parameters of every task of a workflow's "tasks", or of one task.
  void _check_tasks(const zelcore::properties& tasks) const;
  void _check_task(const std::string& id, const zelcore::properties& task) const;
  // Refuses meta data under `key` of `tree` whose "user" is not `owner`; puts `owner` there
  // when `add`.
  void _own_meta(zelcore::properties& tree, const std::string& key, const std::string& owner,
                 bool add) const;

  master_state& master_;
  runner& work_;
  node_pool& pool_;
  std::int64_t run_ms_;
  request_keys keys_;
};

}  // namespace zelsim
