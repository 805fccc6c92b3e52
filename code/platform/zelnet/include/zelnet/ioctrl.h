// The I/O controller: watches sockets with poll(2) and runs their handlers on the thread that
// calls wait(), run(), serve_until(), step() or step_error(). It starts no thread and takes no
// lock: one thread uses it at a time.
//
// An application with an event loop of its own gives the controller no thread: its loop watches
// watched_files(), calls step() when one of them is ready or when next_deadline() has come (and
// step_error() when its poll reports an error on one), and re-registers the files when the
// watch callback says that they changed. The bytes then move inside those steps alone.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "zelbase/file.h"
#include "zelnet/export.h"

namespace zelnet {

class ZELNET_EXPORT ioctrl {
 public:
  // The handler of one watched file. Called from inside the call that serves the controller
  // (wait, run, serve_until, step, step_error) or that drops the file (clear, forget).
  class ZELNET_EXPORT hdlr {
   public:
    virtual ~hdlr();
    // Watching of `f` starts; false refuses it (the controller then forgets the file).
    virtual bool attach(zelbase::file& f, unsigned flags, ioctrl& c);
    // The controller dropped `f` (from ioctrl::erase); `closing` says the file is closed next.
    virtual void dismiss(zelbase::file& f, unsigned flags, bool closing, ioctrl& c);
    // `f` is readable (or has hung up); false drops it.
    virtual bool readable(zelbase::file& f, unsigned flags, ioctrl& c) = 0;
    // Bytes read from `f`; a size of 0 means the peer closed. False drops the file.
    virtual bool read(zelbase::file& f, unsigned flags, const char* buffer, std::size_t size,
                      ioctrl& c);
    // True while output waits for `f` to become writable.
    virtual bool wants_write() const;
    // `f` is writable; false drops it.
    virtual bool write(zelbase::file& f, ioctrl& c);
    // True while input already read is not handled yet: a callback raised in the middle of it.
    // The next wait(), run(), step() or step_error() then calls resume() before it polls.
    virtual bool has_pending_input() const;
    // Handles that input; false drops the file.
    virtual bool resume(zelbase::file& f, unsigned flags, ioctrl& c);
  };

  using clock = std::chrono::steady_clock;
  using timer_id = std::uint64_t;

  // What a watched file waits for.
  enum watch_events : unsigned { watch_readable = 1, watch_writable = 2 };
  // One file to watch: its descriptor, the events it waits for and a serial number that tells a
  // new file from an earlier one with the same descriptor.
  struct watched_file {
    int descriptor;
    unsigned events;
    std::uint64_t serial;
    bool operator==(const watched_file& o) const noexcept {
      return descriptor == o.descriptor && events == o.events && serial == o.serial;
    }
    bool operator!=(const watched_file& o) const noexcept { return !(*this == o); }
  };

  // `capacity` is the size in bytes of the buffer that reads go through.
  explicit ioctrl(unsigned capacity);
  virtual ~ioctrl();
  ioctrl(const ioctrl&) = delete;
  ioctrl& operator=(const ioctrl&) = delete;

  // Adds `f` to the watched files; false when it is closed or already watched.
  virtual bool insert(zelbase::file& f, hdlr& h, unsigned flags);
  // Called after the controller stopped watching `f` (peer gone, handler refused, clear()).
  // The default dismisses the handler and closes the file; an override takes that over.
  virtual void erase(zelbase::file& f, hdlr& h, unsigned flags);
  // As insert and erase, for a listening socket (its handler accepts when readable).
  virtual bool insert_listener(zelbase::file& f, hdlr& h, unsigned flags);
  virtual void erase_listener(zelbase::file& f, hdlr& h, unsigned flags);
  // Called by run() after each idle `ms` milliseconds; false ends run(). Default: true.
  virtual bool timeout(unsigned ms);
  // Whether watched sockets get TCP keep-alive. Default: true.
  virtual bool keep_alive();
  // Processes I/O until `stop` becomes true (it is read at least every 100 ms) or timeout()
  // returns false; abort() does not end it. What a callback raises leaves it.
  virtual void run(const volatile bool& stop);

  // Starts watching `f` with `h`: inserts it, makes it non-blocking when `nonblocking`, and
  // calls h.attach when `attach`. False when the file cannot be watched.
  bool watch(zelbase::file& f, hdlr& h, unsigned flags, bool attach, bool nonblocking);
  // Processes I/O and timers until abort() (true) or until `ms` milliseconds have passed (false);
  // wait(1) does the pending work once.
  bool wait(unsigned ms);
  // Does the work that is due, without blocking: input left unhandled in a buffer, what the
  // watched files are ready for, and the timers whose time has come. Returns the number of
  // files and timers served. Handler and timer callbacks run inside it; what they raise leaves
  // it, and the work left is done by the next step.
  int step();
  // For a loop whose poll reported an error on `descriptor` (a closed or reset peer): the file's
  // handler reads it at once, which finds the error (or the peer's close) and drops the file,
  // instead of another poll of every file; then the timers that are due run, as in step().
  // Input left unhandled in a buffer goes first: the file is then read at the next report, so
  // the loop keeps watching it (and reporting) until it is dropped. Nothing happens for a
  // descriptor that is not watched. Returns as step().
  int step_error(int descriptor);
  // The files to watch, in descriptor order; every file waits for readable.
  std::vector<watched_file> watched_files() const;
  // When step() must run at the latest: the earliest timer, or now while input waits in a
  // buffer; none when only a watched file can bring work.
  std::optional<clock::time_point> next_deadline() const;
  // `callback` is called whenever watched_files() changes (a file added, a file dropped before
  // it is closed, a change of the events a file waits for) and when a timer is set that comes
  // before every other, so that a loop re-registers its files and re-arms its timer. It is
  // called on the thread that uses the controller, from inside the call that made the change (a
  // step, or a call such as connect_async). One loop at a time: a callback given while another
  // is set raises es::arg; an empty one detaches. What the callback raises leaves the call that
  // made the change; a file being dropped is closed first.
  void set_watch_callback(std::function<void()> callback);
  // `before` runs before each poll(2) that may block (a time-out other than 0) and `after` once
  // it returns, on the thread that polls; either may be empty. An interpreter releases its lock
  // there, so that its callbacks run with the lock held and other threads run while the
  // controller waits. With `slice_ms` above 0 a poll blocks at most that long: a longer wait
  // polls again after `after` has run, so that `after` runs at least that often (an interpreter
  // checks for signals there). What `after` raises leaves the call that polled as a callback's
  // exception does, before any input of that poll is handled.
  void set_blocking_hooks(std::function<void()> before, std::function<void()> after,
                          int slice_ms = 0);
  // Calls the watch callback if watched_files() changed since it was last told; the links call
  // it after queuing output that the socket did not take at once.
  void update_watches();
  // Runs `callback` from a step, wait or run once `when` has come. Returns an id for
  // cancel_timer.
  timer_id add_timer(clock::time_point when, std::function<void()> callback);
  // Forgets a timer that has not fired; false when there is none of that id.
  bool cancel_timer(timer_id id) noexcept;

  // Processes I/O and timers until `done` becomes true; false when nothing is left that could
  // make it so (no file watched and no timer set). The synchronous forms of asynchronous
  // operations wait with it.
  bool serve_until(const bool& done);
  // Ends the current wait() with true; may be called from a handler inside that wait.
  void abort() noexcept { aborted_ = true; }
  // True from abort() until the wait it ends returns (or the run's next tick).
  bool aborted() const noexcept { return aborted_; }
  // Stops watching every file, calling erase (or erase_listener) for each; when a callback
  // raises, the other files are still dropped and the first exception passes on at the end.
  void clear();
  // Stops watching `f` (when watched), calling erase (or erase_listener) for it.
  void forget(const zelbase::file& f);
  // True while `h` watches `f`.
  bool watches(const zelbase::file& f, const hdlr& h) const;
  // Destroys `h` once no handler call is on the stack (handlers may be retired from inside
  // their own callbacks).
  void retire(std::unique_ptr<hdlr> h);
  // The read buffer shared by the handlers.
  char* buffer() noexcept { return buffer_.data(); }
  std::size_t capacity() const noexcept { return buffer_.size(); }

 private:
  struct entry {
    zelbase::file file;
    hdlr* handler;
    unsigned flags;
    bool listener;
    std::uint64_t id;
  };

  // One poll(2) of at most `ms` milliseconds (less when a timer is due sooner) and the dispatch
  // of what it found; returns the number of files that had events.
  int poll_once(int ms);
  // Runs the timers that are due; returns their number.
  int fire_due_timers();
  // Milliseconds from now to the earliest timer, at most `ms`.
  int until_next_timer(int ms) const;
  // Lets handlers with input left unhandled finish it; returns their number.
  int resume_pending();
  // The end of every step: the due timers and the loop's watches; returns the timers fired.
  int finish_step();
  void dispatch(int fd, std::uint64_t id, short events);
  void drop(int fd, std::uint64_t id);
  void sweep() noexcept;

  std::vector<char> buffer_;
  std::map<int, entry> entries_;
  std::uint64_t next_id_ = 1;
  bool aborted_ = false;
  unsigned depth_ = 0;
  std::vector<std::unique_ptr<hdlr>> retired_;
  std::map<std::pair<clock::time_point, timer_id>, std::function<void()>> timers_;
  std::map<timer_id, clock::time_point> timer_times_;
  timer_id next_timer_id_ = 1;
  std::function<void()> watch_callback_;
  std::function<void()> before_block_;
  std::function<void()> after_block_;
  int block_slice_ms_ = 0;
  std::vector<watched_file> told_watches_;
};

// For event-loop adapters: erases from `watches` (a map from descriptor to a pointer whose
// `file` is the watched_file it watches) every entry whose file is no longer in `files`, calling
// `release` with it first.
template <class Watches, class Release>
void forget_unwatched(Watches& watches, const std::vector<ioctrl::watched_file>& files,
                      Release release) {
  for (auto it = watches.begin(); it != watches.end();) {
    bool kept = false;
    for (const ioctrl::watched_file& f : files) {
      kept = kept || (f.descriptor == it->first && f.serial == it->second->file.serial);
    }
    if (kept) {
      ++it;
    } else {
      release(it->second);
      it = watches.erase(it);
    }
  }
}

}  // namespace zelnet
