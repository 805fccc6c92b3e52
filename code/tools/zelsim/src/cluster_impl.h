// The simulated cluster's inside, shared by cluster.cpp (the nodes, their links, the nodes'
// thread and the master's workload) and cluster_requests.cpp (how a node answers requests:
// logins, the cluster's status, the master's state, history and write requests).
#pragma once

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "master_state.h"
#include "node_pool.h"
#include "runner.h"
#include "workload.h"
#include "write_requests.h"
#include "zelbase/strings.h"
#include "zelnet/ioctrl.h"
#include "zelnet/link.h"
#include "zelnet/socket.h"
#include "zelsim/cluster.h"

namespace zelsim {

struct ZELSIM_NO_EXPORT cluster::impl {
  using packet = zelnet::zelp::packet;
  using steady = std::chrono::steady_clock;

  struct node;

  // One client link of a node.
  class session final : public zelnet::zelp::server_link {
   public:
    session(impl& owner, node& n, std::uint64_t serial)
        : server_link(owner.loop, n.version), serial(serial), owner_(owner), node_(n) {}
    node& get_node() const { return node_; }
    // Tells the links of one node apart, also when one takes a freed one's address.
    const std::uint64_t serial;
    // Set when the link completed a login: it gets the master's notifications from then on.
    bool logged_in = false;
    // Set while the link's last login (of a user or an admin) succeeded: only then are its
    // requests served, other than logins and cluster status.
    bool authorized = false;
    // The login of the link (a user's or an administrator's), for its write requests.
    identity login;

   protected:
    std::size_t handle(std::string_view frame, zelbase::encoder_network& out) override {
      if (node_.stalled) return 0;
      const std::size_t size = server_link::handle(frame, out);
      if (client_version() != node_.version) {
        owner_.log(node_, zelbase::string_with_format("refused protocol version %u, answering %u",
                                                      client_version(), node_.version));
      }
      return size;
    }
    bool packet_received(const packet& in, packet& out) override {
      if (node_.stalled) return true;
      owner_.current = this;
      owner_.dispatch(node_, in, out);
      owner_.current = nullptr;
      return true;
    }

   private:
    impl& owner_;
    node& node_;
  };

  // Accepts the links of one node.
  class acceptor final : public zelnet::ioctrl::hdlr {
   public:
    acceptor(impl& owner, node& n) : owner_(owner), node_(n) {}
    bool readable(zelbase::file&, unsigned, zelnet::ioctrl&) override {
      for (zelbase::file f = node_.listener.accept(); f.is_open(); f = node_.listener.accept()) {
        owner_.add_session(node_, f);
      }
      return true;
    }

   private:
    impl& owner_;
    node& node_;
  };

  // Wakes the nodes' thread for calls from other threads.
  class waker final : public zelnet::ioctrl::hdlr {
   public:
    explicit waker(impl& owner) : owner_(owner) {}
    bool readable(zelbase::file& f, unsigned, zelnet::ioctrl& c) override {
      char drain[64];
      while (::read(f.descriptor(), drain, sizeof drain) > 0) {
      }
      owner_.run_calls();
      // A call may have started the workload: look at it now, not after the current wait.
      c.abort();
      return true;
    }

   private:
    impl& owner_;
  };

  struct node {
    std::size_t number = 0;
    std::string id;
    zelnet::socket_listener listener;
    std::unique_ptr<acceptor> accepting;
    std::map<session*, std::unique_ptr<session>> sessions;
    std::uint32_t version = zelnet::zelp::protocol_version;
    bool stalled = false;
    steady::time_point not_ready_until;
  };

  // The controller of every node's sockets; dropping a link ends its session.
  class controller final : public zelnet::ioctrl {
   public:
    explicit controller(impl& owner) : ioctrl(64 * 1024), owner_(owner) {}
    void erase(zelbase::file& f, hdlr& h, unsigned) override {
      owner_.end_session(h);
      f.close();
    }
    void erase_listener(zelbase::file&, hdlr&, unsigned) override {}
    // Serves the sockets and, in between, makes the workload's changes that are due.
    void run(const volatile bool& stop) override {
      while (!stop) wait(std::min(owner_.drive_workload(), owner_.submitted->drive()));
    }

   private:
    impl& owner_;
  };

  explicit impl(cluster& self, options o) : self(self), opts(std::move(o)), loop(*this) {}

  void log(const node& n, const std::string& event) const;

  node& at(std::size_t number);

  void add_session(node& n, zelbase::file f);

  void end_session(zelnet::ioctrl::hdlr& h);

  // How a node answers requests (cluster_requests.cpp).
  static bool is_login(const std::string& name);

  // A login succeeded when it was answered without "error" (a client login by the master
  // itself, not redirected).
  static bool login_accepted(const packet& in, const packet& reply);

  void dispatch(node& n, const packet& in, packet& out);

  // Runs the handler of the request's name; `reply` becomes `out` when there is one to send.
  void answer(node& n, const packet& in, packet& reply, packet& out);

  // The reply hooks: true when the reply of a write request is dropped or sent later.
  bool hold_reply(node& n, const packet& reply);

  // Links and readiness as a node tells them in its replies.
  bool not_ready(const node& n) const { return steady::now() < n.not_ready_until; }

  void add_cluster_view(const node& n, zelcore::properties& reply) const;

  // Replies "not ready" (true) while the node is not ready.
  bool answer_not_ready(const node& n, packet& reply) const;

  // Checks name and digest against an account table; the error text, empty when accepted.
  static std::string check_account(const std::map<std::string, std::string>& accounts,
                                   const zelcore::properties& request);

  bool client_login(request_context& c, const packet& in, packet& reply);

  bool admin_login(request_context& c, const packet& in, packet& reply);

  bool cluster_status(request_context& c, const packet&, packet& reply);

  void install_handlers();

  // The nodes' thread, the links and the workload (cluster.cpp).

  // Runs `fn` on the nodes' thread and waits for it (directly when already there).
  template <class F>
  auto call(F fn) -> decltype(fn()) {
    if (!running || std::this_thread::get_id() == loop_thread.load()) return fn();
    std::packaged_task<decltype(fn())()> task(std::move(fn));
    auto done = task.get_future();
    {
      std::lock_guard<std::mutex> hold(calls_lock);
      calls.emplace_back([&task] { task(); });
    }
    const char byte = 1;
    while (::write(wake_pipe[1], &byte, 1) < 0 && errno == EINTR) {
    }
    return done.get();
  }

  void run_calls();

  // Stops watching and closes every socket, on the calling thread (the nodes' thread is not
  // running).
  void release_sockets();

  void close_node_links(node& n);

  // Sends a notification of the master's state to every logged-in link.
  void notify(const packet& p);

  // Makes the workload's changes that are due (at most a batch) and returns how long the loop
  // may wait for sockets before the next one is due, in milliseconds.
  unsigned drive_workload();

  // One change of the warm-up; false when the model refused it (the warm-up ends there).
  bool warm_up_step();

  void make_change();

  void set_running(bool limit, std::uint64_t count);

  void set_paused();

  cluster& self;
  options opts;
  controller loop;
  std::vector<std::unique_ptr<node>> nodes;
  std::size_t master = 1;
  bool missing_master = false;
  std::map<std::string, request_handler> handlers;
  // The link whose packet is being dispatched.
  session* current = nullptr;
  std::unique_ptr<zelsim::master_state> cluster_state;
  std::unique_ptr<node_pool> pool;
  std::unique_ptr<workload> work;
  // The runner of submitted work.
  std::unique_ptr<runner> submitted;
  std::unique_ptr<write_requests> writes;
  // The reply hooks: replies of write requests still to drop, or to delay by `delay`.
  std::size_t drop_left = 0;
  std::size_t delay_left = 0;
  std::chrono::milliseconds delay{0};
  std::uint64_t sessions_made = 0;
  std::function<void(const packet&)> observer;
  std::uint64_t changes = 0;
  std::uint64_t notifications = 0;
  // The workload's run: on or paused, limited to `changes_left` more changes, paced from
  // `run_since` on, `run_made` changes into it.
  bool workload_running = false;
  bool limited = false;
  std::uint64_t changes_left = 0;
  steady::time_point run_since;
  std::uint64_t run_made = 0;
  steady::time_point next_clean;
  std::mutex paused_lock;
  std::condition_variable paused_changed;
  bool paused = true;
  std::unique_ptr<waker> waking;
  int wake_pipe[2] = {-1, -1};
  zelbase::file wake_file;
  std::mutex calls_lock;
  std::vector<std::function<void()>> calls;
  std::thread thread;
  // Set by the nodes' thread itself, so that no thread reads `thread` while it is assigned.
  std::atomic<std::thread::id> loop_thread{};
  bool running = false;
  volatile bool stopping = false;
};

}  // namespace zelsim
