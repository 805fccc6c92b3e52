// The I/O controller: watches sockets with poll(2) and runs their handlers on the thread that
// calls wait() or run(). It starts no thread and takes no lock: one thread uses it at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "zelbase/file.h"
#include "zelnet/export.h"

namespace zelnet {

class ZELNET_EXPORT ioctrl {
 public:
  // The handler of one watched file. Called only from inside wait() or run().
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
    // The next wait() or run() then calls resume() before it polls.
    virtual bool has_pending_input() const;
    // Handles that input; false drops the file.
    virtual bool resume(zelbase::file& f, unsigned flags, ioctrl& c);
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
  // returns false; abort() does not end it.
  virtual void run(const volatile bool& stop);

  // Starts watching `f` with `h`: inserts it, makes it non-blocking when `nonblocking`, and
  // calls h.attach when `attach`. False when the file cannot be watched.
  bool watch(zelbase::file& f, hdlr& h, unsigned flags, bool attach, bool nonblocking);
  // Processes I/O until abort() (true) or until `ms` milliseconds have passed (false);
  // wait(1) does the pending work once.
  bool wait(unsigned ms);
  // Ends the current wait() with true; may be called from a handler inside that wait.
  void abort() noexcept { aborted_ = true; }
  // True from abort() until the wait it ends returns (or the run's next tick).
  bool aborted() const noexcept { return aborted_; }
  // Stops watching every file, calling erase (or erase_listener) for each.
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

  // One poll(2) of at most `ms` milliseconds and the dispatch of what it found; returns the
  // number of files that had events.
  int poll_once(int ms);
  // Lets handlers with input left unhandled finish it; returns their number.
  int resume_pending();
  void dispatch(int fd, std::uint64_t id, short events);
  void drop(int fd, std::uint64_t id);
  void sweep() noexcept;

  std::vector<char> buffer_;
  std::map<int, entry> entries_;
  std::uint64_t next_id_ = 1;
  bool aborted_ = false;
  unsigned depth_ = 0;
  std::vector<std::unique_ptr<hdlr>> retired_;
};

}  // namespace zelnet
