// The master's seeded workload: clients log in and out, nodes join and leave, submissions
// create jobs and tasks that run, progress, end and go to history, workflows spawn from
// templates and run their tasks. docs/zelsim.md describes the model and its proportions.
//
// Deterministic: the same options give the same sequence of changes (ids, records and times
// come from the seed and from the workload's own clock, never from the wall clock).
// Threads: used by the nodes' thread only.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "master_state.h"
#include "node_pool.h"
#include "zelsim/cluster.h"

namespace zelsim {

class workload {
 public:
  // Enters the cluster's nodes (`node_ids`, listening on `o.host`) into `master` and `pool`, and
  // the workflow templates into `master` (told to nobody yet: no client is logged in). `master`
  // and `pool` must outlive this; the workload's jobs take their cores from `pool`.
  workload(master_state& master, node_pool& pool, const options& o,
           const std::vector<std::string>& node_ids);

  // Makes one change of the master's state (sending one or more notifications).
  void step();

 private:
  struct job_run {
    std::string id;
    std::string submission;
    std::int64_t tasks = 0;
    std::int64_t cores = 0;
    std::int64_t progress = 0;
    std::size_t node = 0;  // index into the pool's nodes while running
    std::string slot;
  };
  struct submission_run {
    std::string source;
    std::int64_t live_jobs = 0;
  };
  struct workflow_run {
    std::string id;
    std::vector<std::string> tasks;
    std::size_t task = 0;  // the task that moves next
    int phase = 0;         // 0 queue it, 1 run it, 2 progress, 3 end it
    bool failed = false;
  };

  // Each event makes one change and returns true, or returns false when it cannot happen now.
  bool client_login();
  bool client_logout();
  bool node_join();
  bool node_leave();
  bool submit();
  bool start_job();
  bool job_progress();
  bool end_job();
  bool historize_job();
  bool node_heartbeat();
  bool spawn_workflow();
  bool workflow_step();
  bool remove_workflow_result();

  // A uniform number below n (n > 0), the same on every platform.
  std::uint64_t pick(std::uint64_t n) { return rng_() % n; }
  bool chance(unsigned percent) { return pick(100) < percent; }
  // The workload's clock, in seconds since 1970.
  std::uint32_t now() const;
  // "WOFL-" and a uuid-shaped text drawn from the seed.
  std::string new_workflow_id();
  std::string numbered(const char* prefix, std::uint64_t n, int width) const;
  void add_node(const std::string& id, const std::string& host, bool removable);
  void add_template(const std::string& name, const std::vector<std::string>& steps);
  void end_workflow(workflow_run& flow);

  master_state& master_;
  node_pool& pool_;
  std::size_t jobs_;
  std::string host_;
  std::mt19937_64 rng_;
  std::uint32_t start_time_;
  std::uint64_t micros_ = 0;
  std::uint64_t step_micros_;
  std::uint64_t last_client_ = 0, last_node_ = 0, last_submission_ = 0, last_job_ = 0;
  std::uint64_t last_input_ = 0;
  std::vector<std::string> clients_;
  std::map<std::string, submission_run> submissions_;
  std::deque<job_run> queued_;
  std::vector<job_run> running_;
  std::deque<job_run> ended_;
  // Template id and its steps in the order they run.
  std::vector<std::pair<std::string, std::vector<std::string>>> templates_;
  std::vector<workflow_run> workflows_;
  std::deque<std::string> results_;
};

}  // namespace zelsim
