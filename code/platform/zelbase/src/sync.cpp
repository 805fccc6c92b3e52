// Locks, threads and reference-counted objects.
#include "zelbase/sync.h"

#include <utility>

#include "zelbase/exceptions.h"
#include "zelbase/refcount.h"

namespace zelbase {

namespace {
constexpr const char* source_file = "code\\platform\\zelbase\\src\\sync";
}

object_refcount::~object_refcount() = default;

mutex::mutex(bool recursive) : recursive_(recursive) {}
mutex::~mutex() = default;

void mutex::lock() {
  if (recursive_)
    nested_.lock();
  else
    plain_.lock();
}

void mutex::unlock() {
  if (recursive_)
    nested_.unlock();
  else
    plain_.unlock();
}

bool mutex::trylock() { return recursive_ ? nested_.try_lock() : plain_.try_lock(); }

thread_base::~thread_base() = default;
void thread_base::terminate() {}

thread::thread() = default;
thread::~thread() { wait(); }

void thread::start(thread_base& body) {
  if (worker_.joinable()) es::uspec::raise(source_file, __LINE__, "thread is already running");
  failure_ = nullptr;
  worker_ = std::thread([this, &body] {
    try {
      body.run();
    } catch (...) {
      failure_ = std::current_exception();
    }
  });
}

void thread::wait() noexcept {
  if (worker_.joinable() && worker_.get_id() != std::this_thread::get_id()) worker_.join();
}

void thread::join() {
  wait();
  if (failure_ && !worker_.joinable()) std::rethrow_exception(std::exchange(failure_, nullptr));
}

}  // namespace zelbase
