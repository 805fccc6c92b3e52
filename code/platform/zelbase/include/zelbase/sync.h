// Locks and threads: mutex with trylock, thread_base (a thread's body) and thread.
#pragma once

#include <exception>
#include <memory>
#include <mutex>
#include <thread>

#include "zelbase/export.h"

namespace zelbase {

// A mutex; `recursive` lets the owning thread lock it again (then unlock as often).
class ZELBASE_EXPORT mutex {
 public:
  explicit mutex(bool recursive = false);
  ~mutex();
  mutex(const mutex&) = delete;
  mutex& operator=(const mutex&) = delete;

  void lock();
  void unlock();
  // Takes the lock if it is free; true when it was taken.
  bool trylock();

 private:
  bool recursive_;
  std::mutex plain_;
  std::recursive_mutex nested_;
};

// The body of a thread: run() is its work; terminate() asks it to end early (default: nothing).
class ZELBASE_EXPORT thread_base {
 public:
  virtual ~thread_base();
  virtual void run() = 0;
  virtual void terminate();
};

// Runs one thread_base on a new thread. The body must outlive the thread; join() before
// destroying either. A thread still running at destruction is joined there. An exception that
// escapes run() ends the thread, not the process: join() raises it.
class ZELBASE_EXPORT thread {
 public:
  thread();
  ~thread();
  thread(const thread&) = delete;
  thread& operator=(const thread&) = delete;

  // Starts body.run() on a new thread; raises es::uspec when a thread is already running.
  void start(thread_base& body);
  // Waits for the thread to end; returns at once when none was started. Raises what run()
  // raised, once (the destructor, which must not raise, drops it).
  void join();
  bool joinable() const noexcept { return worker_.joinable(); }

 private:
  void wait() noexcept;

  std::thread worker_;
  std::exception_ptr failure_;  // written by the worker, read after it is joined
};

}  // namespace zelbase
