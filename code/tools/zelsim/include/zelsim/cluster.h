// zelsim: a simulated cluster of nodes on loopback, for tests, demos and development without
// a cluster. Each node listens on its own port and answers the client requests through a
// registry of request handlers (one per packet name), which later features extend; a
// fault-injection API makes nodes not ready, stalled, version-refusing, closing or garbling.
// The master keeps a state (clients, nodes, submissions, sources, slots, jobs, tasks, workflows,
// workflow results, history) that a seeded workload changes; every change goes to the logged-in
// clients as a "cluster.api.state." notification, and the master answers state and history
// requests. It also takes write requests (workflow actions, job submissions and steering) and
// runs what they submit. docs/zelsim.md describes the workload and the runner.
//
// Threads: the nodes run on one thread of their own, started by start(). Every public
// operation may be called from any thread; the ones that touch nodes run on that thread and
// return once done. Request handlers run on that thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "zelnet/packet.h"
#include "zelsim/export.h"

namespace zelsim {

struct options {
  std::size_t nodes = 3;
  // The master's node number, 1 to nodes.
  std::size_t master = 1;
  // The first node's port, the others follow it; 0 gives every node a free port.
  std::uint16_t port = 0;
  std::string host = "127.0.0.1";
  // Accounts: name -> clear password (the nodes compare SHA-1 hex digests).
  std::map<std::string, std::string> users;
  std::map<std::string, std::string> admins;
  // One line per event on stderr.
  bool log = true;
  // The workload: changes per second (0: as fast as possible), the number of live jobs it keeps
  // at most, and its seed. The same seed and start time give the same changes.
  std::uint32_t rate = 100;
  std::size_t jobs = 1000;
  std::uint64_t seed = 1;
  // Whether start() lets the workload run; else it waits for run_workload.
  bool workload = false;
  // Changes that start() makes at once, before the nodes listen: a cluster that starts busy.
  std::uint64_t warm_up = 0;
  // The workload's clock starts here (seconds since 1970); 0: the wall clock at construction.
  std::uint32_t start_time = 0;
  // How long the master keeps history in memory, in seconds (0: none; history requests then
  // get an error).
  std::uint32_t history_keep_time = 600;
  // Submitted work (docs/zelsim.md): the simulated run time in milliseconds of a job or task
  // that names none; whether the runner's clock stands still until advance_time (for tests)
  // instead of following real time; the seconds for which the master remembers client keys and
  // the state ids of ended workflows; the seconds for which an ended job stays in the live state
  // before it goes to history.
  std::uint32_t run_ms = 1000;
  bool manual_time = false;
  std::uint32_t key_keep_time = 3600;
  std::uint32_t job_keep_time = 300;
};

// Reads "user NAME PASSWORD" and "admin NAME PASSWORD" lines ('#' starts a comment) into
// `o`; raises es::arg naming the file and line for anything else.
ZELSIM_EXPORT void read_accounts_file(const std::string& path, options& o);

class cluster;

// Where a request came from.
struct request_context {
  cluster& sim;
  std::size_t node;  // node number, 1 to nodes
  // The login of the link: the user (empty before a login), whether it logged in as an
  // administrator, and the client id that the login reply gave it.
  std::string user;
  bool admin = false;
  std::string client_id;
};

// Answers one request: fills `reply` (already a reply of the request's name, carrying the
// request's bounce tree) and returns true to send it, false to send nothing.
using request_handler = std::function<bool(
    request_context& context, const zelnet::zelp::packet& request, zelnet::zelp::packet& reply)>;

class ZELSIM_EXPORT cluster {
 public:
  explicit cluster(options o);
  // Stops the nodes if they still run.
  ~cluster();
  cluster(const cluster&) = delete;
  cluster& operator=(const cluster&) = delete;

  // Binds every node and starts the nodes' thread; raises es::uspec when a port is taken.
  void start();
  // Closes every link and listener and joins the thread.
  void stop();

  std::size_t node_count() const;
  // Node numbers run from 1 to node_count().
  std::uint16_t port(std::size_t node) const;
  std::string node_id(std::size_t node) const;
  const std::string& host() const;
  std::size_t master() const;
  // Live links of a node (established or not).
  std::size_t link_count(std::size_t node);

  // Installs (or replaces) the handler of requests named `name`.
  void on(const std::string& name, request_handler h);
  // Sends `p` on every established link of every node.
  void broadcast(const zelnet::zelp::packet& p);

  // Faults and cluster events.
  // The master moves to `node`; connected clients keep their links.
  void set_master(std::size_t node);
  // The node answers logins and status requests with "error" and "api" = 12 for `duration`.
  void set_not_ready(std::size_t node, std::chrono::milliseconds duration);
  // The node answers the hello of new links with `version` (closing them if it differs).
  void set_protocol_version(std::size_t node, std::uint32_t version);
  // A stalled node accepts links but reads and answers nothing, not even the hello.
  void set_stalled(std::size_t node, bool stalled);
  // Host lists leave the master out.
  void set_master_missing_from_host_list(bool missing);
  // Closes every link of the node.
  void close_links(std::size_t node);
  // Writes `bytes` as they are on every established link of the node, then closes those links
  // when `then_close`.
  void send_raw(std::size_t node, const std::string& bytes, bool then_close);
  // The node stops listening and closes its links, as a dead node.
  void stop_node(std::size_t node);

  // The master's state and its workload. The workload runs on the nodes' thread (after start())
  // between the serving of requests.
  // Lets the workload run at options.rate until pause_workload.
  void run_workload();
  // Lets the workload make exactly `changes` more changes, then pause.
  void run_workload(std::uint64_t changes);
  void pause_workload();
  // Waits until the workload is paused; false when `timeout` passed first.
  bool wait_workload_paused(std::chrono::milliseconds timeout);
  // Changes made and notifications sent (counted once, whatever the number of clients).
  std::uint64_t changes_made();
  std::uint64_t notifications_sent();
  // Called on the nodes' thread with each notification, before it is sent; replaces the
  // previous observer (an empty function removes it).
  void on_notification(std::function<void(const zelnet::zelp::packet&)> observer);
  // The master's snapshot (as zelcapi::state::get_state) and its history's; the history
  // raises es::uspec when no history is kept.
  zelcore::properties master_snapshot();
  zelcore::properties master_history();

  // Submitted work: the master runs the workflows and jobs that clients send (write requests,
  // docs/wire-protocol.md), beside the workload or without it.
  // Moves the runner's clock forward by `ms` when options.manual_time: every job end (and every
  // other timed event) in between happens at its own time. Raises es::arg for a real clock.
  void advance_time(std::chrono::milliseconds ms);
  struct work_counts {
    std::size_t queued = 0;
    std::size_t running = 0;
    std::size_t workflows = 0;  // live workflows that clients sent
  };
  work_counts submitted_work();
  // The next `count` write requests are applied but answered with nothing (drop) or with their
  // reply `delay` later (delay), so that clients can test their retries.
  void drop_replies(std::size_t count);
  void delay_replies(std::size_t count, std::chrono::milliseconds delay);

 private:
  struct impl;
  std::unique_ptr<impl> impl_;
};

}  // namespace zelsim
