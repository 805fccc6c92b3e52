// The poll(2)-based I/O controller.
#include "zelnet/ioctrl.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <exception>

#include "zelbase/exceptions.h"

namespace zelnet {

namespace {

constexpr const char* source_file = "code\\platform\\zelnet\\src\\ioctrl";
constexpr int run_tick_ms = 100;

// Marks a handler call in progress, so that retired handlers outlive it.
class depth_guard {
 public:
  explicit depth_guard(unsigned& depth) : depth_(depth) { ++depth_; }
  ~depth_guard() { --depth_; }
  depth_guard(const depth_guard&) = delete;
  depth_guard& operator=(const depth_guard&) = delete;

 private:
  unsigned& depth_;
};

// poll(2) of `fds` for up to `ms` milliseconds (-1: until an event). A poll that may block runs
// between the hooks, and with `slice_ms` above 0 in slices of at most that long; returns what
// the last poll returned.
int poll_in_slices(std::vector<pollfd>& fds, int ms, int slice_ms,
                   const std::function<void()>& before, const std::function<void()>& after) {
  if (ms == 0) return ::poll(fds.data(), fds.size(), 0);
  const bool sliced = slice_ms > 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  for (;;) {
    int slice = ms;
    if (sliced && ms < 0) {
      slice = slice_ms;
    } else if (sliced) {
      const auto left =
          std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now())
              .count();
      slice = static_cast<int>(std::clamp<decltype(left)>(left, 0, slice_ms));
    }
    if (before) before();
    const int ready = ::poll(fds.data(), fds.size(), slice);
    if (after) after();
    if (!sliced || ready != 0) return ready;
    if (ms >= 0 && std::chrono::steady_clock::now() >= deadline) return 0;
  }
}

}  // namespace

ioctrl::hdlr::~hdlr() = default;

bool ioctrl::hdlr::attach(zelbase::file&, unsigned, ioctrl&) { return true; }

void ioctrl::hdlr::dismiss(zelbase::file&, unsigned, bool, ioctrl&) {}

bool ioctrl::hdlr::read(zelbase::file&, unsigned, const char*, std::size_t size, ioctrl&) {
  return size != 0;
}

bool ioctrl::hdlr::wants_write() const { return false; }

bool ioctrl::hdlr::write(zelbase::file&, ioctrl&) { return true; }

bool ioctrl::hdlr::has_pending_input() const { return false; }

bool ioctrl::hdlr::resume(zelbase::file&, unsigned, ioctrl&) { return true; }

ioctrl::ioctrl(unsigned capacity) : buffer_(capacity == 0 ? 1 : capacity) {}

ioctrl::~ioctrl() {
  // Handlers may already be gone with a derived class; only the descriptors are left to free.
  for (auto& [fd, e] : entries_) e.file.close();
}

bool ioctrl::insert(zelbase::file& f, hdlr& h, unsigned flags) {
  if (!f.is_open() || entries_.count(f.descriptor()) != 0) return false;
  entries_.emplace(f.descriptor(), entry{f, &h, flags, false, next_id_++});
  const int on = 1;
  // Requests are small and latency-bound; both options are ignored by non-TCP files.
  setsockopt(f.descriptor(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  if (keep_alive()) setsockopt(f.descriptor(), SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
  return true;
}

void ioctrl::erase(zelbase::file& f, hdlr& h, unsigned flags) {
  h.dismiss(f, flags, true, *this);
  f.close();
}

bool ioctrl::insert_listener(zelbase::file& f, hdlr& h, unsigned flags) {
  if (!f.is_open() || entries_.count(f.descriptor()) != 0) return false;
  entries_.emplace(f.descriptor(), entry{f, &h, flags, true, next_id_++});
  return true;
}

void ioctrl::erase_listener(zelbase::file& f, hdlr& h, unsigned flags) { erase(f, h, flags); }

bool ioctrl::timeout(unsigned) { return true; }

bool ioctrl::keep_alive() { return true; }

void ioctrl::run(const volatile bool& stop) {
  while (!stop) {
    // An abort (a sync reply taken while running) ends waits only, not the run.
    aborted_ = false;
    const int served = poll_once(run_tick_ms);
    if (served + fire_due_timers() == 0 && !timeout(run_tick_ms)) return;
  }
}

bool ioctrl::watch(zelbase::file& f, hdlr& h, unsigned flags, bool attach, bool nonblocking) {
  if (nonblocking && f.is_open()) {
    const int current = fcntl(f.descriptor(), F_GETFL);
    if (current < 0 || fcntl(f.descriptor(), F_SETFL, current | O_NONBLOCK) < 0) return false;
  }
  if (!insert(f, h, flags)) return false;
  if (attach) {
    depth_guard guard(depth_);
    if (!h.attach(f, flags, *this)) {
      entries_.erase(f.descriptor());
      return false;
    }
  }
  update_watches();
  return true;
}

bool ioctrl::wait(unsigned ms) {
  using clock = std::chrono::steady_clock;
  const clock::time_point deadline = clock::now() + std::chrono::milliseconds(ms);
  aborted_ = false;
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - clock::now()).count();
    // poll takes an int: a wait beyond 24 days polls in slices of at most INT_MAX ms.
    poll_once(static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX)));
    if (!aborted_) fire_due_timers();
    if (aborted_) {
      aborted_ = false;
      return true;
    }
    if (clock::now() >= deadline) return false;
  }
}

void ioctrl::clear() {
  // Every file is closed, even when a callback raises on the way: the first exception passes
  // on at the end.
  std::exception_ptr raised;
  {
    depth_guard guard(depth_);
    while (!entries_.empty()) {
      try {
        drop(entries_.begin()->first, entries_.begin()->second.id);
      } catch (...) {
        if (!raised) raised = std::current_exception();
      }
    }
  }
  sweep();
  if (raised) std::rethrow_exception(raised);
}

void ioctrl::forget(const zelbase::file& f) {
  const auto it = entries_.find(f.descriptor());
  if (it == entries_.end()) return;
  {
    depth_guard guard(depth_);
    drop(it->first, it->second.id);
  }
  sweep();
}

bool ioctrl::watches(const zelbase::file& f, const hdlr& h) const {
  const auto it = entries_.find(f.descriptor());
  return it != entries_.end() && it->second.handler == &h;
}

void ioctrl::retire(std::unique_ptr<hdlr> h) {
  if (depth_ > 0) {
    retired_.push_back(std::move(h));
  } else {
    h.reset();
  }
}

int ioctrl::step() {
  aborted_ = false;
  const int served = poll_once(0);
  return served + finish_step();
}

int ioctrl::step_error(int descriptor) {
  aborted_ = false;
  // Input already read goes first, as in every step; the loop reports the error again while
  // the file is still watched.
  int served = resume_pending();
  const auto it = entries_.find(descriptor);
  if (served == 0 && it != entries_.end()) {
    {
      depth_guard guard(depth_);
      dispatch(descriptor, it->second.id, POLLERR);
    }
    sweep();
    served = 1;
  }
  return served + finish_step();
}

int ioctrl::finish_step() {
  // An abort stops the frames after an awaited reply; the timers run still, so that a
  // completion posted for that reply comes before those frames (which the next step handles).
  const int fired = fire_due_timers();
  update_watches();
  return fired;
}

bool ioctrl::serve_until(const bool& done) {
  while (!done) {
    if (entries_.empty() && timers_.empty()) return false;
    aborted_ = false;
    poll_once(-1);
    fire_due_timers();
  }
  aborted_ = false;
  return true;
}

std::vector<ioctrl::watched_file> ioctrl::watched_files() const {
  std::vector<watched_file> files;
  files.reserve(entries_.size());
  for (const auto& [fd, e] : entries_) {
    unsigned events = watch_readable;
    if (!e.listener && e.handler->wants_write()) events |= watch_writable;
    files.push_back(watched_file{fd, events, e.id});
  }
  return files;
}

std::optional<ioctrl::clock::time_point> ioctrl::next_deadline() const {
  for (const auto& [fd, e] : entries_) {
    if (!e.listener && e.handler->has_pending_input()) return clock::now();
  }
  if (timers_.empty()) return std::nullopt;
  return timers_.begin()->first.first;
}

void ioctrl::set_watch_callback(std::function<void()> callback) {
  // Two loops watching the same files would each step on the other's readiness.
  if (callback && watch_callback_) {
    zelbase::es::arg::raise(source_file, __LINE__,
                            "the controller is already attached to an event loop: detach that "
                            "one first");
  }
  watch_callback_ = std::move(callback);
  told_watches_ = watched_files();
}

void ioctrl::set_blocking_hooks(std::function<void()> before, std::function<void()> after,
                                int slice_ms) {
  before_block_ = std::move(before);
  after_block_ = std::move(after);
  block_slice_ms_ = slice_ms;
}

void ioctrl::update_watches() {
  if (!watch_callback_) return;
  std::vector<watched_file> now = watched_files();
  if (now == told_watches_) return;
  told_watches_ = std::move(now);
  watch_callback_();
}

ioctrl::timer_id ioctrl::add_timer(clock::time_point when, std::function<void()> callback) {
  const timer_id id = next_timer_id_++;
  const auto it = timers_.emplace(std::make_pair(when, id), std::move(callback)).first;
  timer_times_.emplace(id, when);
  // A loop's timer is armed for the earliest deadline: one that comes sooner re-arms it.
  if (it == timers_.begin() && watch_callback_) watch_callback_();
  return id;
}

bool ioctrl::cancel_timer(timer_id id) noexcept {
  const auto it = timer_times_.find(id);
  if (it == timer_times_.end()) return false;
  timers_.erase(std::make_pair(it->second, id));
  timer_times_.erase(it);
  return true;
}

int ioctrl::fire_due_timers() {
  int fired = 0;
  // One at a time: a callback may add or cancel timers, and a timer added for now by a
  // callback runs in the same pass.
  while (!timers_.empty() && timers_.begin()->first.first <= clock::now()) {
    const auto it = timers_.begin();
    std::function<void()> callback = std::move(it->second);
    timer_times_.erase(it->first.second);
    timers_.erase(it);
    ++fired;
    depth_guard guard(depth_);
    callback();
  }
  sweep();
  return fired;
}

int ioctrl::until_next_timer(int ms) const {
  if (timers_.empty()) return ms;
  if (ms < 0) ms = INT_MAX;
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(timers_.begin()->first.first - clock::now())
          .count();
  return static_cast<int>(std::clamp<decltype(left)>(left, 0, ms));
}

int ioctrl::poll_once(int ms) {
  if (const int resumed = resume_pending()) return resumed;
  ms = until_next_timer(ms);
  std::vector<pollfd> fds;
  std::vector<std::uint64_t> ids;
  fds.reserve(entries_.size());
  ids.reserve(entries_.size());
  for (const auto& [fd, e] : entries_) {
    short events = POLLIN;
    if (!e.listener && e.handler->wants_write()) events |= POLLOUT;
    fds.push_back(pollfd{fd, events, 0});
    ids.push_back(e.id);
  }
  const int ready = poll_in_slices(fds, ms, block_slice_ms_, before_block_, after_block_);
  if (ready <= 0) return 0;
  {
    depth_guard guard(depth_);
    for (std::size_t i = 0; i < fds.size() && !aborted_; ++i) {
      if (fds[i].revents != 0) dispatch(fds[i].fd, ids[i], fds[i].revents);
    }
  }
  sweep();
  return ready;
}

int ioctrl::resume_pending() {
  std::vector<std::pair<int, std::uint64_t>> pending;
  for (const auto& [fd, e] : entries_)
    if (!e.listener && e.handler->has_pending_input()) pending.emplace_back(fd, e.id);
  if (pending.empty()) return 0;
  {
    depth_guard guard(depth_);
    for (const auto& [fd, id] : pending) {
      if (aborted_) break;
      const auto it = entries_.find(fd);
      if (it == entries_.end() || it->second.id != id) continue;
      entry e = it->second;
      if (!e.handler->resume(e.file, e.flags, *this)) drop(fd, id);
    }
  }
  sweep();
  return static_cast<int>(pending.size());
}

void ioctrl::dispatch(int fd, std::uint64_t id, short events) {
  auto it = entries_.find(fd);
  if (it == entries_.end() || it->second.id != id) return;
  entry e = it->second;
  if ((events & (POLLIN | POLLHUP | POLLERR | POLLNVAL)) != 0 &&
      !e.handler->readable(e.file, e.flags, *this)) {
    drop(fd, id);
    return;
  }
  it = entries_.find(fd);
  if ((events & POLLOUT) != 0 && it != entries_.end() && it->second.id == id &&
      !e.handler->write(e.file, *this)) {
    drop(fd, id);
  }
}

void ioctrl::drop(int fd, std::uint64_t id) {
  const auto it = entries_.find(fd);
  if (it == entries_.end() || it->second.id != id) return;
  entry e = it->second;
  entries_.erase(it);
  // An event loop stops watching the file while it is still open. What its callback raises
  // passes on once the file is closed, never instead of closing it.
  std::exception_ptr raised;
  try {
    update_watches();
  } catch (...) {
    raised = std::current_exception();
  }
  if (e.listener) {
    erase_listener(e.file, *e.handler, e.flags);
  } else {
    erase(e.file, *e.handler, e.flags);
  }
  if (raised) std::rethrow_exception(raised);
}

void ioctrl::sweep() noexcept {
  if (depth_ == 0) retired_.clear();
}

}  // namespace zelnet
