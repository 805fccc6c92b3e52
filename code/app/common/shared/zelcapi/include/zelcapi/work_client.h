// The write side of the library: submitting workflows and jobs to the cluster master, steering
// them, and waiting on a replica until they have ended.
//
// A work_client sends the master's write requests (docs/wire-protocol.md, "Write requests") over
// a logged-in connection and gives back the master's outcome of every item. The workflow actions
// it sends are written by the workflow manager itself, on a scratch manager that holds copies of
// the workflows concerned: the replica of a state connection is read, never changed; it changes
// only when the master's notifications arrive.
//
// Errors: an item the master refuses (not found, access denied, ...) is an outcome in the
// result, never an exception. A request the client could not get answered (time-out, lost link),
// one the master refused whole ("error"), or a reply that cannot be read raises write_error.
//
// Threads: like the connection, a work_client starts no thread and is used by one thread at a
// time. The synchronous forms run the connection's I/O until their reply; the callbacks of the
// asynchronous forms run on the thread that is inside the connection's step, wait or run (or, for
// a request that cannot be sent at all, inside the call that started it).
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "zelbase/exceptions.h"
#include "zelcapi/connection.h"
#include "zelcapi/export.h"
#include "zelcapi/state.h"
#include "zelcore/plugin_db.h"
#include "zelcore/properties.h"
#include "zelworkflow/workflow_info.h"

namespace zelcapi {

class state_connection;

// What the master did with one item of a write request.
enum class write_outcome {
  done,           // applied (in a dry run: would be applied)
  already_done,   // nothing to do: the change was already there
  not_found,      // the object is not in the live state
  not_allowed,    // not in this state (ended, still running, the workload's work)
  access_denied,  // another user's work: `owner` names them
  invalid,        // the item itself is wrong: `text` says why
};

// The outcome's name on the wire: "done", "already-done", "not-found", "not-allowed",
// "access-denied" or "invalid". Never fails.
ZELCAPI_EXPORT const char* write_outcome_c_str(write_outcome outcome);

// One item of the reply, in the order of the request's items.
struct item_result {
  write_outcome outcome = write_outcome::invalid;
  std::string text;    // why, naming the object (empty with done)
  std::string owner;   // with access_denied: the owner's login name
  std::string id;      // the workflow's state id (workflow actions) or the job's id (jobs)
  std::string action;  // workflow actions: the action's name
  // done or already_done: the change is there.
  bool ok() const noexcept {
    return outcome == write_outcome::done || outcome == write_outcome::already_done;
  }
};

// The master's answer to one write request.
struct ZELCAPI_EXPORT write_result {
  std::vector<item_result> items;
  std::string key;            // the client key the request carried (made when none was given)
  std::string submission_id;  // job submissions that entered at least one job
  bool repeated = false;      // the master's stored answer to an earlier send of this key
  bool dry_run = false;
  // True when every item is done or already done.
  bool all_ok() const noexcept;
};

// A write request the master did not answer with items.
class ZELCAPI_EXPORT write_error : public zelbase::es::uspec {
 public:
  enum reason {
    timed_out,  // no reply within the time-out, after the retries: the outcome is unknown
    link_lost,  // the link ended (or there was none) before the reply: the outcome is unknown
    refused,    // the master refused the request as a whole ("error"): nothing changed
    bad_reply,  // the reply cannot be read
  };
  write_error(const char* file, unsigned line, reason why, std::string request, std::string key,
              std::string message);
  ~write_error() override;
  reason why() const noexcept { return why_; }
  // The request's name and the key it carried: sending the request again with this key is safe.
  const std::string& request() const noexcept { return request_; }
  const std::string& key() const noexcept { return key_; }

 private:
  reason why_;
  std::string request_;
  std::string key_;
};

// A workflow status's name (workflow_info::status, a workflow result's "st"): "created",
// "running", "finished", "failed", "killed"; "of an unknown status" for another value. Never fails.
ZELCAPI_EXPORT const char* workflow_status_c_str(std::uint32_t status);

// What a wait looked at: the job's record or the workflow's encoding as the replica last held it
// live (a removed workflow's final form when the replica keeps history), and a workflow's result
// once the replica has one.
struct ZELCAPI_EXPORT work_record {
  enum kind { job, workflow };
  kind type = job;
  std::string id;
  bool seen = false;  // the replica held the record (or a workflow in its history) in the wait
  bool live = false;  // the replica holds it now
  zelcore::properties record;
  // A workflow's status (derived from its tasks, not part of its encoding), as last seen live.
  zelworkflow::workflow_info::status status = zelworkflow::workflow_info::status_created;
  bool has_result = false;
  workflow_result_info result;
  // A job: its "state" is finished, failed or cancelled. A workflow: it has a result, or its
  // status is finished, failed or killed.
  bool ended() const;
  // One line for texts: "job 'J' is running", "workflow 'W' ended failed" (once its result or
  // its status says so), ...
  std::string describe() const;
  // A job's "state" ("" without one); a workflow's status ("created", "running", "finished",
  // "failed" or "killed"), its result's once it has one.
  std::string state_name() const;
};

// A wait that ended without its condition being met. The last record is kept.
class ZELCAPI_EXPORT wait_error : public zelbase::es::uspec {
 public:
  enum reason {
    timed_out,  // the time-out passed
    removed,    // the record left the replica's live state (a removed workflow, a job moved to
                // history) before the condition held
    link_lost,  // the state connection lost its link
  };
  wait_error(const char* file, unsigned line, reason why, work_record last, std::string message);
  ~wait_error() override;
  reason why() const noexcept { return why_; }
  const work_record& last() const noexcept { return last_; }

 private:
  reason why_;
  work_record last_;
};

// What every write request may carry.
struct write_options {
  std::string key;       // the client key; empty: the library makes one ("key-" and a UUID)
  bool dry_run = false;  // the master checks and answers, and changes nothing
};

// The steering actions of plain jobs.
enum class job_action { cancel, hold, release, retry, priority };

// Builds "update-workflow" actions on a scratch workflow manager: the workflow manager writes
// them as it writes every local change. Copies of the workflows concerned come from the replica
// when one is given and holds them. Never changes the replica.
class ZELCAPI_EXPORT workflow_actions {
 public:
  // `plugins` (not owned) decodes workflows; `replica` (not owned, may be null) gives copies.
  explicit workflow_actions(const zelcore::plugin_db& plugins, const state* replica = nullptr);

  // "add-workflow" of `workflow` (its encoding, kept as given) under `state_id`; empty: the
  // master makes the id (the request's key then makes a re-send harmless). Raises es::arg with
  // the workflow model's text for a description that does not decode: nothing is sent.
  zelcore::properties add_workflow(const zelcore::properties& workflow,
                                   const std::string& state_id = "") const;
  zelcore::properties add_workflow(const zelworkflow::workflow_info& workflow,
                                   const std::string& state_id = "") const;
  // "remove-workflow": the master cancels its jobs and forgets it without a result.
  zelcore::properties remove_workflow(const std::string& state_id) const;
  // "add-workflow-meta-data" of {"kill-requested": true}: the workflow's jobs end, its tasks are
  // killed and it ends with the status killed.
  zelcore::properties cancel_workflow(const std::string& state_id) const;
  // "set-priority" (absolute or relative, kept within [min, max]).
  zelcore::properties set_priority(
      const std::string& state_id, std::int64_t priority,
      zelworkflow::workflow_info::priority_whence whence =
          zelworkflow::workflow_info::priority_absolute,
      std::int64_t min = std::numeric_limits<std::int64_t>::min(),
      std::int64_t max = std::numeric_limits<std::int64_t>::max()) const;
  // "set-task-priority" of task `task`. Needs the workflow in the replica (es::arg otherwise, or
  // the manager's text for an unknown task).
  zelcore::properties set_task_priority(
      const std::string& state_id, const std::string& task, std::int64_t priority,
      zelworkflow::workflow_info::priority_whence whence =
          zelworkflow::workflow_info::priority_absolute,
      std::int64_t min = std::numeric_limits<std::int64_t>::min(),
      std::int64_t max = std::numeric_limits<std::int64_t>::max()) const;
  // "set-in-values" of `values` (in-node path "task>node" -> value) on workflow `state_id`: on a
  // template or an init workflow it spawns a workflow under `spawn_id` (empty: the master makes
  // the id) with `workflow_meta` in its meta data; on another workflow it sets the values. Needs
  // the workflow in the replica; raises es::arg when the workflow takes none of the values.
  zelcore::properties set_in_values(
      const std::string& state_id, const zelcore::properties& values,
      const std::string& spawn_id = "",
      const zelcore::properties& workflow_meta = zelcore::properties()) const;
  // "add-dependant": workflow `dependant` depends on workflow `state_id`.
  zelcore::properties add_dependant(const std::string& state_id,
                                    const std::string& dependant) const;
  // "set-task-max-attempts" one above the attempts the task has made, so that a failed task runs
  // again while its workflow lives. Needs the workflow in the replica, as set_task_priority.
  zelcore::properties retry_task(const std::string& state_id, const std::string& task) const;

 private:
  const zelcore::plugin_db* plugins_;
  const state* replica_;
};

// Sends write requests over a logged-in connection and returns the master's outcome per item.
// The connection (and the state connection) is not owned and must outlive the client.
class ZELCAPI_EXPORT work_client {
 public:
  using write_callback = std::function<void(const write_result& result, std::exception_ptr error)>;
  using wait_predicate = std::function<bool(const work_record& record)>;

  // Over a connection: writes only (wait_for_* raise es::arg).
  work_client(connection& link, const zelcore::plugin_db& plugins);
  // Over a state connection: writes, copies of workflows from its replica (when it has one), and
  // waiting on that replica.
  work_client(state_connection& link, const zelcore::plugin_db& plugins);

  // Seconds a request waits for its reply (default: the connection's time-out), and how many
  // times it is sent again, with the same key, when that passes (default 1).
  void set_timeout(unsigned seconds) noexcept { timeout_ = seconds; }
  unsigned get_timeout() const noexcept { return timeout_; }
  void set_retries(unsigned retries) noexcept { retries_ = retries; }
  unsigned get_retries() const noexcept { return retries_; }
  // The builder of the actions this client sends (on the same replica).
  const workflow_actions& actions() const noexcept { return actions_; }

  // Every operation has a synchronous form, which returns the result and raises write_error, and
  // an asynchronous form, which returns at once and calls `done` with the result or that error
  // (from inside the connection's step, wait or run). Both forms raise es::arg from the call
  // itself, before sending anything, when the actions cannot be built (a description that does
  // not decode, a workflow that the replica lacks for an action on its tasks or values).

  // "cluster.api.workflow.update" with the given actions, in one request.
  write_result update_workflows(const std::vector<zelcore::properties>& actions,
                                const write_options& options = {});
  void update_workflows_async(const std::vector<zelcore::properties>& actions,
                              const write_options& options, write_callback done);

  // Submits a workflow (its encoding or a workflow_info) under `state_id` (empty: a new id, in
  // the item's `id`). Many workflows go in one request with submit_workflows.
  write_result submit_workflow(const zelcore::properties& workflow,
                               const std::string& state_id = "", const write_options& options = {});
  write_result submit_workflow(const zelworkflow::workflow_info& workflow,
                               const std::string& state_id = "", const write_options& options = {});
  void submit_workflow_async(const zelcore::properties& workflow, const std::string& state_id,
                             const write_options& options, write_callback done);
  write_result submit_workflows(const std::vector<zelcore::properties>& workflows,
                                const write_options& options = {});

  // Spawns a workflow from template `template_id` with in-values (workflow_actions::set_in_values;
  // needs the replica); the item's `id` is the spawned workflow's.
  write_result spawn_workflow(const std::string& template_id, const zelcore::properties& values,
                              const std::string& state_id = "", const write_options& options = {});
  void spawn_workflow_async(const std::string& template_id, const zelcore::properties& values,
                            const std::string& state_id, const write_options& options,
                            write_callback done);

  // Removes workflows (no result is recorded), or cancels them (they end killed, with a result).
  write_result remove_workflows(const std::vector<std::string>& state_ids,
                                const write_options& options = {});
  void remove_workflows_async(const std::vector<std::string>& state_ids,
                              const write_options& options, write_callback done);
  write_result cancel_workflows(const std::vector<std::string>& state_ids,
                                const write_options& options = {});
  void cancel_workflows_async(const std::vector<std::string>& state_ids,
                              const write_options& options, write_callback done);
  // Sets the priority of workflows (absolute).
  write_result set_workflow_priority(const std::vector<std::string>& state_ids,
                                     std::int64_t priority, const write_options& options = {});
  void set_workflow_priority_async(const std::vector<std::string>& state_ids, std::int64_t priority,
                                   const write_options& options, write_callback done);
  // Lets a failed task run once more (workflow_actions::retry_task: needs the replica).
  write_result retry_task(const std::string& state_id, const std::string& task,
                          const write_options& options = {});
  void retry_task_async(const std::string& state_id, const std::string& task,
                        const write_options& options, write_callback done);

  // "cluster.api.jobs.submit": plain jobs (their descriptions, docs/wire-protocol.md) in one
  // submission named `name`; each item's `id` is the new job's id.
  write_result submit_jobs(const std::vector<zelcore::properties>& jobs,
                           const std::string& name = "", const write_options& options = {});
  void submit_jobs_async(const std::vector<zelcore::properties>& jobs, const std::string& name,
                         const write_options& options, write_callback done);
  // "cluster.api.jobs.steer": `action` on every job of `ids` (`priority` with
  // job_action::priority).
  write_result steer_jobs(job_action action, const std::vector<std::string>& ids,
                          std::int64_t priority = 0, const write_options& options = {});
  void steer_jobs_async(job_action action, const std::vector<std::string>& ids,
                        std::int64_t priority, const write_options& options, write_callback done);

  // Waits on the state connection's replica, running its I/O, until `until` holds for the
  // record of workflow `state_id` (default: it has ended) and returns that record. Raises
  // wait_error with the last record seen: timed_out after `timeout_ms`, removed when the workflow
  // leaves the live state before the condition held (with the default condition: when it is
  // removed without a result), link_lost when the link ends; es::arg for a client without a
  // state connection or replica.
  work_record wait_for_workflow(const std::string& state_id, unsigned timeout_ms,
                                const wait_predicate& until = {});
  // The same for job `id` (removed: the job went to history before the condition held).
  work_record wait_for_job(const std::string& id, unsigned timeout_ms,
                           const wait_predicate& until = {});

  // The steps of those waits, for a caller that runs the I/O itself (an event loop). check_wait
  // reads the present form of `r` (its type and id say which) from the replica and returns true
  // when `until` holds (default: ended); it raises wait_error removed or link_lost as the waits
  // do, and es::arg for a client without a replica. wait_timed_out is the wait_error of a wait of
  // `timeout_ms` that ended without its condition, having last seen `r`.
  bool check_wait(work_record& r, const wait_predicate& until = {}) const;
  static wait_error wait_timed_out(const work_record& r, unsigned timeout_ms);

 private:
  // Sends the request with its key and returns the key.
  std::string _send(const std::string& name, zelcore::properties fields,
                    const write_options& options, write_callback done);
  write_result _wait_for(const std::string& name, zelcore::properties fields,
                         const write_options& options);
  work_record _wait(work_record::kind type, const std::string& id, unsigned timeout_ms,
                    const wait_predicate& until);
  std::vector<zelcore::properties> _for_each(
      const std::vector<std::string>& ids,
      zelcore::properties (workflow_actions::*build)(const std::string&) const) const;

  connection* link_;
  state_connection* state_link_;
  workflow_actions actions_;
  unsigned timeout_;
  unsigned retries_;
};

}  // namespace zelcapi
