// Locks, threads and reference-counted objects.
#include "zelbase/sync.h"

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
thread::~thread() { join(); }

void thread::start(thread_base& body) {
  if (worker_.joinable()) es::uspec::raise(source_file, __LINE__, "thread is already running");
  worker_ = std::thread([&body] { body.run(); });
}

void thread::join() {
  if (worker_.joinable() && worker_.get_id() != std::this_thread::get_id()) worker_.join();
}

}  // namespace zelbase
