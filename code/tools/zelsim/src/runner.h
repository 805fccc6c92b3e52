// The master's runner of submitted work: plain jobs of submissions, and the tasks of workflows
// that clients sent, run as jobs on nodes with free cores for a simulated time, end finished or
// failed as their description asks, are retried up to their attempts, pass their out-values on,
// and end their workflows with a result. Every change is made through the master's state (and
// its workflow manager), so that it goes out as the notifications a replica applies.
//
// Time: the runner has a clock of its own, in milliseconds: real time, or, for tests, a clock
// that moves only when advanced, each event happening at its own time.
// Threads: used by the nodes' thread only.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "job_params.h"
#include "master_state.h"
#include "node_pool.h"
#include "zelsim/cluster.h"

namespace zelsim {

// Who sent a request: the link's login.
struct identity {
  std::string user;
  bool admin = false;
  std::string client_id;
};

// The outcome of one item of a write request, with the text that says why and, when access was
// denied, the owner.
struct verdict {
  std::string outcome;
  std::string text;
  std::string owner;
};

namespace outcome {
constexpr const char* done = "done";
constexpr const char* already_done = "already-done";
constexpr const char* not_found = "not-found";
constexpr const char* not_allowed = "not-allowed";
constexpr const char* access_denied = "access-denied";
constexpr const char* invalid = "invalid";
}  // namespace outcome

class runner {
 public:
  // `master` and `pool` must outlive the runner.
  runner(master_state& master, node_pool& pool, const options& o);

  // --- the clock ---
  std::uint64_t now_ms() const { return now_; }
  // Seconds since 1970 that records and task statuses get for the present moment.
  std::uint32_t seconds() const;
  // Makes everything that is due by the clock (real time only) and returns the milliseconds
  // until the next event, at most 100.
  unsigned drive();
  // Moves a manual clock forward; raises es::arg for a real one.
  void advance(std::uint64_t ms);
  std::size_t queued() const { return queue_.size(); }
  std::size_t running() const { return ends_.size(); }
  std::size_t live_workflows() const { return flows_.size(); }

  // --- plain jobs ---
  // Enters a submission of the given jobs for `who` (no record when `jobs` is empty); returns
  // the submission id and fills the job ids in order. The jobs start as cores allow.
  std::string submit(const std::vector<job_params>& jobs, const std::string& name,
                     const identity& who, std::vector<std::string>& ids);
  // One steering action on one job: "cancel", "hold", "release", "retry", or any other for
  // "priority" (to `priority`); applied unless `dry_run`.
  verdict steer(const std::string& job_id, const std::string& action, std::int64_t priority,
                const identity& who, bool dry_run);

  // --- workflows that clients sent ---
  // Runs the workflow from now on; it belongs to `owner`.
  void adopt(const std::string& id, const identity& owner);
  // The owner of a workflow that came with a request: live, or ended or removed less than the
  // key keep time ago. Null for any other (the workload's).
  const std::string* owner_of(const std::string& id) const;
  // Whether such a workflow has left the live state.
  bool has_ended(const std::string& id) const;
  // The workflow changed: it is looked at again by the next settle.
  void touch(const std::string& id);
  // A client removes the workflow: its jobs end as cancelled.
  void removing(const std::string& id);
  // Looks at every workflow touched since, then starts what the free cores allow.
  void settle();

 private:
  enum class job_state { queued, held, running, finished, failed, cancelled };
  struct job {
    std::string id;
    std::string owner;
    std::string client_id;
    std::string submission;  // plain jobs
    std::string workflow;    // task jobs: the workflow and the task
    std::string task;
    job_params params;
    job_state state = job_state::queued;
    std::int64_t attempts = 0;
    // A task job is one attempt of its task: this one.
    std::int64_t task_attempt = 0;
    std::int64_t priority = 0;
    std::uint64_t order = 0;
    std::size_t node = 0;
    std::string slot;
    std::uint64_t ends_at = 0;
    std::uint64_t retire_at = 0;
    bool plain() const { return workflow.empty(); }
    // Whether the attempt now running finishes (the description's first attempts fail).
    bool succeeds() const { return (plain() ? attempts : task_attempt) > params.fail_attempts; }
  };
  struct flow {
    std::string owner;
    std::string client_id;
    std::uint64_t jobs_run = 0;
    std::size_t active = 0;
  };
  // A queued job: its priority, its place in the order of queueing, its id.
  using queue_key = std::tuple<std::int64_t, std::uint64_t, std::string>;
  // The order in which queued jobs start: higher priority first, then first queued first.
  struct queue_order {
    bool operator()(const queue_key& a, const queue_key& b) const {
      if (std::get<0>(a) != std::get<0>(b)) return std::get<0>(a) > std::get<0>(b);
      return std::get<1>(a) < std::get<1>(b);
    }
  };

  std::uint64_t clock_now() const;
  // Makes every event due by `until` at its own time, then sets the clock to `until`.
  void catch_up(std::uint64_t until);
  std::uint64_t next_event() const;

  // A job of `owner` with the next id: `prefix` and seven digits.
  job new_job(const char* prefix, const std::string& owner, const std::string& client_id);
  // The record of a new job, queued.
  zelcore::properties job_record(const job& j, const std::string& name) const;
  // Each task record of a plain job gets `update`.
  void update_tasks(const job& j, const zelcore::properties& update);
  // The job waits in the queue, behind the jobs of its priority.
  void enqueue(job& j);
  void reprioritise(job& j, std::int64_t priority);
  // Starts queued jobs, by priority and then in order, on the first nodes with the cores.
  void dispatch();
  void start(job& j, std::size_t node);
  // Gives the cores of a running job back and drops its slot.
  void release_node(job& j);
  // The running attempt ends (finished when `ok`); a plain job with attempts left queues again.
  void end_attempt(job& j, bool ok);
  // Ends a queued, held or running job, and keeps it until it goes to history.
  void finish(job& j, job_state end, std::int64_t exit_code);
  void cancel(job& j);
  // An ended job (its tasks, its submission after its last job) goes to history.
  void retire(const std::string& id);
  static const char* state_name(job_state s);

  // Workflows.
  void schedule(const std::string& id);
  // A runnable task becomes a queued job carrying its job info.
  void make_task_job(const std::string& workflow, flow& f, const std::string& task);
  // The task takes the end of its job: out-values to its dependants, then its status.
  void task_ended(const job& j, bool ok, std::int64_t exit_code);
  void pass_out_values(const job& j);
  // The workflow gets its result and leaves the live state.
  void end_workflow(const std::string& id, std::uint32_t status);
  // The owner of an ended workflow is remembered for the key keep time.
  void forget_later(const std::string& id, const std::string& owner);

  master_state& master_;
  node_pool& pool_;
  std::int64_t run_ms_;
  bool manual_;
  std::uint64_t key_keep_ms_;
  std::uint64_t job_keep_ms_;
  std::uint32_t epoch_;
  std::uint64_t started_;  // steady clock at construction, in milliseconds
  std::uint64_t now_ = 0;

  std::map<std::string, job> jobs_;
  std::set<queue_key, queue_order> queue_;
  std::multimap<std::uint64_t, std::string> ends_;
  std::multimap<std::uint64_t, std::string> retire_;
  std::map<std::string, std::int64_t> submissions_;  // live jobs per submission
  std::map<std::string, std::string> task_jobs_;     // wpath -> its active job
  std::map<std::string, flow> flows_;
  std::map<std::string, std::string> gone_;  // ended workflow -> owner
  std::multimap<std::uint64_t, std::string> forget_;
  std::set<std::string> touched_;
  std::uint64_t next_job_ = 0;
  std::uint64_t next_submission_ = 0;
  std::uint64_t next_order_ = 0;
};

}  // namespace zelsim
