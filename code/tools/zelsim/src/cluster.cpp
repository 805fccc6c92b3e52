// The simulated cluster: its nodes, their links, the nodes' thread that serves them and drives
// the master's workload, and the calls of other threads into it.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "cluster_impl.h"
#include "zelbase/exceptions.h"
#include "zelbase/strings.h"

namespace zelsim {

namespace {

constexpr const char* source_file = "code\\tools\\zelsim\\src\\cluster";
// At most this many workload changes between two looks at the sockets.
constexpr std::uint64_t workload_batch = 256;

using zelnet::zelp::packet;
using steady = std::chrono::steady_clock;

}  // namespace

void cluster::impl::log(const node& n, const std::string& event) const {
  if (opts.log) {
    std::fprintf(stderr, "zelsim: %s %s:%u: %s\n", n.id.c_str(), opts.host.c_str(),
                 static_cast<unsigned>(n.listener.port()), event.c_str());
  }
}

cluster::impl::node& cluster::impl::at(std::size_t number) {
  if (number < 1 || number > nodes.size()) {
    zelbase::es::arg::raise(source_file, __LINE__,
                            zelbase::string_with_format("no node %zu", number));
  }
  return *nodes[number - 1];
}

void cluster::impl::add_session(node& n, zelbase::file f) {
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

void cluster::impl::end_session(zelnet::ioctrl::hdlr& h) {
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

void cluster::impl::run_calls() {
  std::vector<std::function<void()>> now;
  {
    std::lock_guard<std::mutex> hold(calls_lock);
    now.swap(calls);
  }
  for (auto& f : now) f();
}

void cluster::impl::release_sockets() {
  loop.clear();
  for (auto& n : nodes) {
    n->sessions.clear();
    n->listener.close();
  }
  wake_file.close();
  if (wake_pipe[1] >= 0) ::close(wake_pipe[1]);
  wake_pipe[0] = wake_pipe[1] = -1;
}

void cluster::impl::close_node_links(node& n) {
  std::vector<zelbase::file> files;
  for (auto& [raw, s] : n.sessions) files.push_back(s->get_file());
  // Dropping a file through the controller calls erase, which ends the session.
  for (const zelbase::file& f : files) loop.forget(f);
}

void cluster::impl::notify(const packet& p) {
  if (observer) observer(p);
  ++notifications;
  for (auto& n : nodes) {
    for (auto& [raw, s] : n->sessions) {
      if (s->logged_in && s->is_established()) s->send(p);
    }
  }
}

unsigned cluster::impl::drive_workload() {
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

bool cluster::impl::warm_up_step() {
  try {
    work->step();
    return true;
  } catch (const zelbase::es::base& e) {
    std::fprintf(stderr, "zelsim: warm-up stopped: %s\n", e.message().c_str());
    return false;
  }
}

void cluster::impl::make_change() {
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

void cluster::impl::set_running(bool limit, std::uint64_t count) {
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

void cluster::impl::set_paused() {
  workload_running = false;
  {
    std::lock_guard<std::mutex> hold(paused_lock);
    paused = true;
  }
  paused_changed.notify_all();
}

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
