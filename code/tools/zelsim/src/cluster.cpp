// The simulated cluster: nodes, their links, the built-in request handlers and the loop that
// serves them and drives the master's workload.
#include "zelsim/cluster.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <future>
#include <mutex>
#include <thread>

#include "master_state.h"
#include "node_pool.h"
#include "runner.h"
#include "workload.h"
#include "write_requests.h"
#include "zelbase/exceptions.h"
#include "zelbase/strings.h"
#include "zelcore/identifiers.h"
#include "zelnet/ioctrl.h"
#include "zelnet/link.h"
#include "zelnet/socket.h"

namespace zelsim {

namespace {

constexpr const char* source_file = "code\\tools\\zelsim\\src\\cluster";
constexpr std::int64_t api_not_ready = 12;
constexpr const char* client_login_name = "cluster.client.login";
constexpr const char* admin_login_name = "admin.login";
constexpr const char* cluster_status_name = "cluster.client.cluster-status";
// The error of every other request on a link that has no successful login.
constexpr const char* not_logged_in = "Not logged in";
// At most this many workload changes between two looks at the sockets.
constexpr std::uint64_t workload_batch = 256;

using zelnet::zelp::packet;
using steady = std::chrono::steady_clock;

}  // namespace

struct ZELSIM_NO_EXPORT cluster::impl {
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

  void log(const node& n, const std::string& event) const {
    if (opts.log) {
      std::fprintf(stderr, "zelsim: %s %s:%u: %s\n", n.id.c_str(), opts.host.c_str(),
                   static_cast<unsigned>(n.listener.port()), event.c_str());
    }
  }

  node& at(std::size_t number) {
    if (number < 1 || number > nodes.size()) {
      zelbase::es::arg::raise(source_file, __LINE__,
                              zelbase::string_with_format("no node %zu", number));
    }
    return *nodes[number - 1];
  }

  void add_session(node& n, zelbase::file f) {
    auto s = std::make_unique<session>(*this, n, ++sessions_made);
    session* raw = s.get();
    n.sessions.emplace(raw, std::move(s));
    if (!loop.watch(f, *raw, 0, true, true)) {
      f.close();
      n.sessions.erase(raw);
      return;
    }
    log(n, zelbase::string_with_format("link %d opened", f.descriptor()));
  }

  void end_session(zelnet::ioctrl::hdlr& h) {
    for (auto& n : nodes) {
      const auto it = n->sessions.find(static_cast<session*>(&h));
      if (it == n->sessions.end()) continue;
      const std::string& why = it->second->failure();
      log(*n, zelbase::string_with_format("link %d closed%s%s", it->second->get_file().descriptor(),
                                          why.empty() ? "" : ": ", why.c_str()));
      loop.retire(std::move(it->second));
      n->sessions.erase(it);
      return;
    }
  }

  static bool is_login(const std::string& name) {
    return name == client_login_name || name == admin_login_name;
  }

  // A login succeeded when it was answered without "error" (a client login by the master
  // itself, not redirected).
  static bool login_accepted(const packet& in, const packet& reply) {
    const zelcore::properties& props = reply.get_properties();
    if (props.is_present("error")) return false;
    if (in.get_name() == admin_login_name) return true;
    try {
      const std::string master_id = props.get_string_value("master-id", "");
      return !master_id.empty() && master_id == props.get_string_value("node-id", "");
    } catch (const zelbase::es::base&) {
      // A test's own login handler answered with fields of another kind.
      return false;
    }
  }

  void dispatch(node& n, const packet& in, packet& out) {
    if (in.get_type() != packet::type_request) return;
    packet reply(packet::type_reply, in.get_name());
    const std::string& bounce = packet::bounce_property_id();
    if (const zelcore::property_ptr b = in.get_properties().get_property(bounce)) {
      reply.set_property(bounce, b);
    }
    // As a master: nothing but a login or the cluster's status before a login has succeeded.
    if (current != nullptr && !current->authorized && !is_login(in.get_name()) &&
        in.get_name() != cluster_status_name) {
      reply.get_properties().set_string_value("error", not_logged_in);
      log(n, "request '" + in.get_name() + "' refused: not logged in");
      out = reply;
      return;
    }
    answer(n, in, reply, out);
    // Each login decides anew what the link may do: one that is refused closes the requests
    // and the notifications that an earlier one opened.
    if (current != nullptr && is_login(in.get_name())) {
      current->authorized = !out.get_name().empty() && login_accepted(in, out);
      if (!current->authorized) {
        current->logged_in = false;
        current->login = identity();
      }
    }
  }

  // Runs the handler of the request's name; `reply` becomes `out` when there is one to send.
  void answer(node& n, const packet& in, packet& reply, packet& out) {
    const auto found = handlers.find(in.get_name());
    if (found == handlers.end()) {
      reply.get_properties().set_string_value("error", "unknown request '" + in.get_name() + "'");
      log(n, "unknown request '" + in.get_name() + "'");
      out = reply;
      return;
    }
    const identity login = current == nullptr ? identity() : current->login;
    request_context context{self, n.number, login.user, login.admin, login.client_id};
    bool answered = true;
    try {
      answered = found->second(context, in, reply);
    } catch (const zelbase::es::base& e) {
      // A malformed request gets an error reply; the node goes on.
      reply.get_properties().set_string_value("error", e.message());
      log(n, "request '" + in.get_name() + "' failed: " + e.message());
    }
    if (answered && !(write_requests::is_write_request(in.get_name()) && hold_reply(n, reply))) {
      out = reply;
    }
  }

  // The reply hooks: true when the reply of a write request is dropped or sent later.
  bool hold_reply(node& n, const packet& reply) {
    if (drop_left > 0) {
      --drop_left;
      log(n, "reply to '" + reply.get_name() + "' dropped");
      return true;
    }
    if (delay_left == 0 || current == nullptr) return false;
    --delay_left;
    log(n, zelbase::string_with_format("reply to '%s' delayed by %lld ms", reply.get_name().c_str(),
                                       static_cast<long long>(delay.count())));
    loop.add_timer(steady::now() + delay, [&n, serial = current->serial, reply] {
      for (auto& [raw, s] : n.sessions) {
        if (s->serial == serial && s->is_established()) s->send(reply);
      }
    });
    return true;
  }

  // Links and readiness as a node tells them in its replies.
  bool not_ready(const node& n) const { return steady::now() < n.not_ready_until; }

  void add_cluster_view(const node& n, zelcore::properties& reply) const {
    reply.set_string_value("master-id", nodes[master - 1]->id);
    reply.set_string_value("node-id", n.id);
    zelcore::properties hosts;
    for (const auto& other : nodes) {
      if (missing_master && other->number == master) continue;
      zelcore::properties entry;
      entry.set_string_value("hostname", opts.host);
      entry.set_string_value("client-port", std::to_string(other->listener.port()));
      hosts.set_properties_value(other->id, entry);
    }
    reply.set_properties_value("host-list", hosts);
  }

  // Replies "not ready" (true) while the node is not ready.
  bool answer_not_ready(const node& n, packet& reply) const {
    if (!not_ready(n)) return false;
    reply.get_properties().set_string_value("error", "node is not ready");
    reply.get_properties().set_int_value("api", api_not_ready);
    log(n, "not ready for '" + reply.get_name() + "'");
    return true;
  }

  // Checks name and digest against an account table; the error text, empty when accepted.
  static std::string check_account(const std::map<std::string, std::string>& accounts,
                                   const zelcore::properties& request) {
    const std::string& name = request.get_string_value("username", "");
    const auto it = accounts.find(name);
    if (it == accounts.end()) return "No such user";
    if (request.get_string_value("password", "") != zelcore::string_hash_SHA1_hex(it->second)) {
      return "Access denied";
    }
    return "";
  }

  bool client_login(request_context& c, const packet& in, packet& reply) {
    node& n = at(c.node);
    zelcore::properties& props = reply.get_properties();
    if (answer_not_ready(n, reply)) return true;
    if (n.number != master) {
      add_cluster_view(n, props);
      log(n, "login redirected to " + nodes[master - 1]->id);
      return true;
    }
    const std::string error = check_account(opts.users, in.get_properties());
    const std::string& name = in.get_properties().get_string_value("username", "");
    if (!error.empty()) {
      props.set_string_value("error", error);
      log(n, "login of '" + name + "' refused: " + error);
      return true;
    }
    add_cluster_view(n, props);
    const std::string client_id = zelcore::string_uuid(false);
    props.set_string_value("client-id", client_id);
    if (current != nullptr) {
      current->logged_in = true;
      current->login = identity{name, false, client_id};
    }
    log(n, "login of '" + name + "' accepted");
    return true;
  }

  bool admin_login(request_context& c, const packet& in, packet& reply) {
    node& n = at(c.node);
    const std::string error = check_account(opts.admins, in.get_properties());
    const std::string& name = in.get_properties().get_string_value("username", "");
    if (!error.empty()) {
      reply.get_properties().set_string_value("error", error);
      log(n, "admin login of '" + name + "' refused: " + error);
      return true;
    }
    reply.get_properties().set_string_value("node-id", n.id);
    reply.get_properties().set_bool_value("admin", true);
    if (current != nullptr) current->login = identity{name, true, ""};
    log(n, "admin login of '" + name + "' accepted");
    return true;
  }

  bool cluster_status(request_context& c, const packet&, packet& reply) {
    node& n = at(c.node);
    if (answer_not_ready(n, reply)) return true;
    add_cluster_view(n, reply.get_properties());
    reply.get_properties().set_int_value("node-count", static_cast<std::int64_t>(nodes.size()));
    log(n, "cluster status");
    return true;
  }

  void install_handlers() {
    using namespace std::placeholders;
    handlers[client_login_name] = std::bind(&impl::client_login, this, _1, _2, _3);
    handlers[admin_login_name] = std::bind(&impl::admin_login, this, _1, _2, _3);
    handlers[cluster_status_name] = std::bind(&impl::cluster_status, this, _1, _2, _3);
    handlers["cluster.api.state.request"] = [this](request_context&, const packet&, packet& reply) {
      cluster_state->answer_state_request(reply.get_properties());
      return true;
    };
    handlers["cluster.api.history.request"] = [this](request_context&, const packet& in,
                                                     packet& reply) {
      cluster_state->answer_history_request(in.get_properties(), reply.get_properties());
      return true;
    };
    for (const char* name :
         {write_requests::update_name, write_requests::submit_name, write_requests::steer_name}) {
      handlers[name] = [this](request_context& c, const packet& in, packet& reply) {
        writes->answer(in.get_name(), identity{c.user, c.admin, c.client_id}, at(c.node).id,
                       nodes[master - 1]->id, in.get_properties(), reply.get_properties());
        return true;
      };
    }
    // Answers with the request's own properties: the round trip of the benchmark.
    handlers["echo"] = [](request_context&, const packet& in, packet& reply) {
      reply = packet(packet::type_reply, in.get_name(), in.get_properties());
      return true;
    };
  }

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

  void run_calls() {
    std::vector<std::function<void()>> now;
    {
      std::lock_guard<std::mutex> hold(calls_lock);
      now.swap(calls);
    }
    for (auto& f : now) f();
  }

  // Stops watching and closes every socket, on the calling thread (the nodes' thread is not
  // running).
  void release_sockets() {
    loop.clear();
    for (auto& n : nodes) {
      n->sessions.clear();
      n->listener.close();
    }
    wake_file.close();
    if (wake_pipe[1] >= 0) ::close(wake_pipe[1]);
    wake_pipe[0] = wake_pipe[1] = -1;
  }

  void close_node_links(node& n) {
    std::vector<zelbase::file> files;
    for (auto& [raw, s] : n.sessions) files.push_back(s->get_file());
    // Dropping a file through the controller calls erase, which ends the session.
    for (const zelbase::file& f : files) loop.forget(f);
  }

  // Sends a notification of the master's state to every logged-in link.
  void notify(const packet& p) {
    if (observer) observer(p);
    ++notifications;
    for (auto& n : nodes) {
      for (auto& [raw, s] : n->sessions) {
        if (s->logged_in && s->is_established()) s->send(p);
      }
    }
  }

  // Makes the workload's changes that are due (at most a batch) and returns how long the loop
  // may wait for sockets before the next one is due, in milliseconds.
  unsigned drive_workload() {
    const steady::time_point now = steady::now();
    if (now >= next_clean) {
      cluster_state->clean_history();
      next_clean = now + std::chrono::seconds(1);
    }
    if (!workload_running) return 100;
    const auto elapsed =
        std::chrono::duration_cast<std::chrono::microseconds>(now - run_since).count();
    const std::uint64_t due = opts.rate == 0
                                  ? run_made + workload_batch
                                  : static_cast<std::uint64_t>(elapsed) * opts.rate / 1000000 + 1;
    for (std::uint64_t batch = 0; workload_running && run_made < due && batch < workload_batch;
         ++batch) {
      make_change();
    }
    if (!workload_running) return 100;
    if (opts.rate == 0 || run_made < due) return 0;
    const auto next = std::chrono::microseconds(run_made * 1000000 / opts.rate);
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(next - (now - run_since));
    return static_cast<unsigned>(std::clamp<std::int64_t>(wait.count(), 0, 100));
  }

  // One change of the warm-up; false when the model refused it (the warm-up ends there).
  bool warm_up_step() {
    try {
      work->step();
      return true;
    } catch (const zelbase::es::base& e) {
      std::fprintf(stderr, "zelsim: warm-up stopped: %s\n", e.message().c_str());
      return false;
    }
  }

  void make_change() {
    try {
      work->step();
    } catch (const zelbase::es::base& e) {
      // A change the model refused: the workload stops rather than the cluster.
      std::fprintf(stderr, "zelsim: workload paused: %s\n", e.message().c_str());
      set_paused();
      return;
    }
    ++changes;
    ++run_made;
    if (limited && --changes_left == 0) set_paused();
  }

  void set_running(bool limit, std::uint64_t count) {
    {
      std::lock_guard<std::mutex> hold(paused_lock);
      paused = false;
    }
    workload_running = true;
    limited = limit;
    changes_left = count;
    run_since = steady::now();
    run_made = 0;
  }

  void set_paused() {
    workload_running = false;
    {
      std::lock_guard<std::mutex> hold(paused_lock);
      paused = true;
    }
    paused_changed.notify_all();
  }

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

cluster::cluster(options o) : impl_(std::make_unique<impl>(*this, std::move(o))) {
  impl& m = *impl_;
  if (m.opts.nodes == 0 || m.opts.master < 1 || m.opts.master > m.opts.nodes) {
    zelbase::es::arg::raise(source_file, __LINE__,
                            zelbase::string_with_format("master %zu is not one of %zu nodes",
                                                        m.opts.master, m.opts.nodes));
  }
  m.master = m.opts.master;
  for (std::size_t i = 1; i <= m.opts.nodes; ++i) {
    auto n = std::make_unique<impl::node>();
    n->number = i;
    n->id = zelbase::string_with_format("node-%zu", i);
    m.nodes.push_back(std::move(n));
  }
  m.cluster_state = std::make_unique<zelsim::master_state>(m.opts.history_keep_time,
                                                           [&m](const packet& p) { m.notify(p); });
  std::vector<std::string> ids;
  for (const auto& n : m.nodes) ids.push_back(n->id);
  m.pool = std::make_unique<node_pool>(*m.cluster_state);
  m.work = std::make_unique<workload>(*m.cluster_state, *m.pool, m.opts, ids);
  m.submitted = std::make_unique<runner>(*m.cluster_state, *m.pool, m.opts);
  m.writes = std::make_unique<write_requests>(*m.cluster_state, *m.submitted, *m.pool, m.opts);
  // The nodes and templates entered at construction reached no client: they count as no
  // notification sent.
  m.notifications = 0;
  m.install_handlers();
}

cluster::~cluster() { stop(); }

void cluster::start() {
  impl& m = *impl_;
  if (m.running) return;
  // No client is logged in yet: the changes reach the master's state only.
  for (std::uint64_t made = 0; made < m.opts.warm_up && m.warm_up_step(); ++made) ++m.changes;
  m.opts.warm_up = 0;
  try {
    for (auto& n : m.nodes) {
      const std::string port = m.opts.port == 0 ? "0" : std::to_string(m.opts.port + n->number - 1);
      n->listener.listen(m.opts.host, port);
      n->accepting = std::make_unique<impl::acceptor>(m, *n);
      m.loop.insert_listener(n->listener.get_file(), *n->accepting, 0);
      m.log(*n, n->number == m.master ? "listening (master)" : "listening");
    }
    if (::pipe2(m.wake_pipe, O_NONBLOCK | O_CLOEXEC) != 0) {
      zelbase::es::uspec::raise(source_file, __LINE__, "cannot create the wake-up pipe");
    }
  } catch (...) {
    m.release_sockets();
    throw;
  }
  m.wake_file = zelbase::file(m.wake_pipe[0]);
  m.waking = std::make_unique<impl::waker>(m);
  m.loop.insert_listener(m.wake_file, *m.waking, 0);
  m.stopping = false;
  if (m.opts.workload) m.set_running(false, 0);
  m.running = true;
  m.thread = std::thread([&m] {
    m.loop_thread = std::this_thread::get_id();
    m.loop.run(m.stopping);
  });
}

void cluster::stop() {
  impl& m = *impl_;
  if (!m.running) return;
  m.call([&m] { m.stopping = true; });
  m.thread.join();
  m.running = false;
  m.release_sockets();
  for (auto& n : m.nodes) m.log(*n, "stopped");
}

std::size_t cluster::node_count() const { return impl_->nodes.size(); }

std::uint16_t cluster::port(std::size_t node) const { return impl_->at(node).listener.port(); }

std::string cluster::node_id(std::size_t node) const { return impl_->at(node).id; }

const std::string& cluster::host() const { return impl_->opts.host; }

std::size_t cluster::master() const {
  impl& m = *impl_;
  return m.call([&m] { return m.master; });
}

std::size_t cluster::link_count(std::size_t node) {
  impl& m = *impl_;
  return m.call([&m, node] { return m.at(node).sessions.size(); });
}

void cluster::on(const std::string& name, request_handler h) {
  impl& m = *impl_;
  m.call([&m, &name, &h] { m.handlers[name] = std::move(h); });
}

void cluster::broadcast(const packet& p) {
  impl& m = *impl_;
  m.call([&m, &p] {
    for (auto& n : m.nodes) {
      for (auto& [raw, s] : n->sessions) {
        if (s->is_established()) s->send(p);
      }
    }
  });
}

void cluster::set_master(std::size_t node) {
  impl& m = *impl_;
  m.call([&m, node] {
    m.master = m.at(node).number;
    m.log(m.at(node), "is the master now");
  });
}

void cluster::set_not_ready(std::size_t node, std::chrono::milliseconds duration) {
  impl& m = *impl_;
  m.call([&m, node, duration] {
    m.at(node).not_ready_until = steady::now() + duration;
    m.log(m.at(node), zelbase::string_with_format("not ready for %lld ms",
                                                  static_cast<long long>(duration.count())));
  });
}

void cluster::set_protocol_version(std::size_t node, std::uint32_t version) {
  impl& m = *impl_;
  m.call([&m, node, version] {
    m.at(node).version = version;
    m.log(m.at(node), zelbase::string_with_format("speaks protocol version %u", version));
  });
}

void cluster::set_stalled(std::size_t node, bool stalled) {
  impl& m = *impl_;
  m.call([&m, node, stalled] {
    m.at(node).stalled = stalled;
    m.log(m.at(node), stalled ? "stalled" : "answering again");
  });
}

void cluster::set_master_missing_from_host_list(bool missing) {
  impl& m = *impl_;
  m.call([&m, missing] { m.missing_master = missing; });
}

void cluster::close_links(std::size_t node) {
  impl& m = *impl_;
  m.call([&m, node] {
    m.log(m.at(node), "closing every link");
    m.close_node_links(m.at(node));
  });
}

void cluster::send_raw(std::size_t node, const std::string& bytes, bool then_close) {
  impl& m = *impl_;
  m.call([&m, node, &bytes, then_close] {
    impl::node& n = m.at(node);
    m.log(n, zelbase::string_with_format("sending %zu raw bytes%s", bytes.size(),
                                         then_close ? " and closing" : ""));
    for (auto& [raw, s] : n.sessions) {
      if (!s->is_established()) continue;
      s->send_raw(bytes);
      if (then_close) s->close_after_flush();
    }
  });
}

void cluster::stop_node(std::size_t node) {
  impl& m = *impl_;
  m.call([&m, node] {
    impl::node& n = m.at(node);
    m.close_node_links(n);
    m.loop.forget(n.listener.get_file());
    n.listener.close();
    m.log(n, "stopped");
  });
}

void cluster::run_workload() {
  impl& m = *impl_;
  m.call([&m] { m.set_running(false, 0); });
}

void cluster::run_workload(std::uint64_t changes) {
  impl& m = *impl_;
  if (changes == 0) return;
  m.call([&m, changes] { m.set_running(true, changes); });
}

void cluster::pause_workload() {
  impl& m = *impl_;
  m.call([&m] { m.set_paused(); });
}

bool cluster::wait_workload_paused(std::chrono::milliseconds timeout) {
  impl& m = *impl_;
  std::unique_lock<std::mutex> hold(m.paused_lock);
  return m.paused_changed.wait_for(hold, timeout, [&m] { return m.paused; });
}

std::uint64_t cluster::changes_made() {
  impl& m = *impl_;
  return m.call([&m] { return m.changes; });
}

std::uint64_t cluster::notifications_sent() {
  impl& m = *impl_;
  return m.call([&m] { return m.notifications; });
}

void cluster::on_notification(std::function<void(const packet&)> observer) {
  impl& m = *impl_;
  m.call([&m, &observer] { m.observer = std::move(observer); });
}

zelcore::properties cluster::master_snapshot() {
  impl& m = *impl_;
  return m.call([&m] {
    zelcore::properties out;
    m.cluster_state->get_state(out);
    return out;
  });
}

zelcore::properties cluster::master_history() {
  impl& m = *impl_;
  return m.call([&m] {
    zelcore::properties out;
    m.cluster_state->get_history(out);
    return out;
  });
}

}  // namespace zelsim

namespace zelsim {

void cluster::advance_time(std::chrono::milliseconds ms) {
  impl& m = *impl_;
  m.call([&m, ms] { m.submitted->advance(static_cast<std::uint64_t>(ms.count())); });
}

cluster::work_counts cluster::submitted_work() {
  impl& m = *impl_;
  return m.call([&m] {
    return work_counts{m.submitted->queued(), m.submitted->running(),
                       m.submitted->live_workflows()};
  });
}

void cluster::drop_replies(std::size_t count) {
  impl& m = *impl_;
  m.call([&m, count] { m.drop_left = count; });
}

void cluster::delay_replies(std::size_t count, std::chrono::milliseconds delay) {
  impl& m = *impl_;
  m.call([&m, count, delay] {
    m.delay_left = count;
    m.delay = delay;
  });
}

}  // namespace zelsim
