// The simulated cluster: nodes, their links and the built-in request handlers.
#include "zelsim/cluster.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <future>
#include <mutex>
#include <sstream>
#include <thread>

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

using zelnet::zelp::packet;
using steady = std::chrono::steady_clock;

}  // namespace

void read_accounts_file(const std::string& path, options& o) {
  std::ifstream in(path);
  if (!in) zelbase::es::arg::raise(source_file, __LINE__, "cannot read '" + path + "'");
  std::string line;
  for (unsigned number = 1; std::getline(in, line); ++number) {
    const std::string text = line.substr(0, line.find('#'));
    std::istringstream words(text);
    std::string kind, name, password, extra;
    if (!(words >> kind)) continue;
    words >> name >> password;
    if ((kind != "user" && kind != "admin") || name.empty() || password.empty() ||
        (words >> extra)) {
      zelbase::es::arg::raise(
          source_file, __LINE__,
          zelbase::string_with_format("%s:%u: expected 'user|admin NAME PASSWORD'", path.c_str(),
                                      number));
    }
    (kind == "user" ? o.users : o.admins)[name] = password;
  }
}

struct ZELSIM_NO_EXPORT cluster::impl {
  struct node;

  // One client link of a node.
  class session final : public zelnet::zelp::server_link {
   public:
    session(impl& owner, node& n) : server_link(owner.loop, n.version), owner_(owner), node_(n) {}
    node& get_node() const { return node_; }

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
      if (!node_.stalled) owner_.dispatch(node_, in, out);
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
    bool readable(zelbase::file& f, unsigned, zelnet::ioctrl&) override {
      char drain[64];
      while (::read(f.descriptor(), drain, sizeof drain) > 0) {
      }
      owner_.run_calls();
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
    auto s = std::make_unique<session>(*this, n);
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

  void dispatch(node& n, const packet& in, packet& out) {
    if (in.get_type() != packet::type_request) return;
    packet reply(packet::type_reply, in.get_name());
    const std::string& bounce = packet::bounce_property_id();
    if (const zelcore::property_ptr b = in.get_properties().get_property(bounce)) {
      reply.set_property(bounce, b);
    }
    const auto found = handlers.find(in.get_name());
    if (found == handlers.end()) {
      reply.get_properties().set_string_value("error", "unknown request '" + in.get_name() + "'");
      log(n, "unknown request '" + in.get_name() + "'");
      out = reply;
      return;
    }
    request_context context{self, n.number};
    try {
      if (found->second(context, in, reply)) out = reply;
    } catch (const zelbase::es::base& e) {
      // A malformed request gets an error reply; the node goes on.
      reply.get_properties().set_string_value("error", e.message());
      log(n, "request '" + in.get_name() + "' failed: " + e.message());
      out = reply;
    }
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
    props.set_string_value("client-id", zelcore::string_uuid(false));
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
    handlers["cluster.client.login"] = std::bind(&impl::client_login, this, _1, _2, _3);
    handlers["admin.login"] = std::bind(&impl::admin_login, this, _1, _2, _3);
    handlers["cluster.client.cluster-status"] = std::bind(&impl::cluster_status, this, _1, _2, _3);
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

  cluster& self;
  options opts;
  controller loop;
  std::vector<std::unique_ptr<node>> nodes;
  std::size_t master = 1;
  bool missing_master = false;
  std::map<std::string, request_handler> handlers;
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
  m.install_handlers();
}

cluster::~cluster() { stop(); }

void cluster::start() {
  impl& m = *impl_;
  if (m.running) return;
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

}  // namespace zelsim
