// Intrusive, thread-safe reference counting: object_refcount and the pointer ptr_refcount<T>.
// An object starts with a count of zero and frees itself when its count returns to zero, so it
// must be created with new and owned only through ptr_refcount (or live on the stack and never
// be handed to a ptr_refcount). Counts may change on any thread; the object itself is not made
// thread-safe by this.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "zelbase/export.h"

namespace zelbase {

class ZELBASE_EXPORT object_refcount {
 public:
  object_refcount() noexcept = default;
  // A copy is a new object: it starts with no owners of its own.
  object_refcount(const object_refcount&) noexcept {}
  object_refcount& operator=(const object_refcount&) noexcept { return *this; }

  void retain() const noexcept {
    if (count_.load(std::memory_order_relaxed) >= immortal_count) return;
    count_.fetch_add(1, std::memory_order_relaxed);
  }
  // Drops one owner; deletes the object when that was the last one.
  void release() const noexcept {
    const std::uint32_t count = count_.load(std::memory_order_acquire);
    if (count >= immortal_count) return;
    // A sole owner needs no atomic write: no other thread holds the object to count it again.
    if (count == 1 || count_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }
  std::uint32_t refcount() const noexcept { return count_.load(std::memory_order_acquire); }

  // Makes a heap object live for the rest of the process: retain and release no longer count,
  // so constants shared by all threads cost no atomic operation and no cache-line traffic.
  // Call it before the object is shared.
  void make_immortal() const noexcept { count_.store(immortal_count, std::memory_order_relaxed); }

 protected:
  template <class>
  friend class ptr_refcount;

  virtual ~object_refcount();

 private:
  static constexpr std::uint32_t immortal_count = 1u << 30;

  mutable std::atomic<std::uint32_t> count_{0};
};

// Counted pointer: retains on copy, releases on destruction or reassignment; may be null.
template <class T>
class ptr_refcount {
 public:
  using element_type = T;

  ptr_refcount() noexcept = default;
  ptr_refcount(std::nullptr_t) noexcept {}
  ptr_refcount(T* p) noexcept : p_(p) {
    if (p_) p_->retain();
  }
  ptr_refcount(const ptr_refcount& o) noexcept : p_(o.p_) {
    if (p_) p_->retain();
  }
  ptr_refcount(ptr_refcount&& o) noexcept : p_(o.p_) { o.p_ = nullptr; }
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  ptr_refcount(const ptr_refcount<U>& o) noexcept : p_(o.get()) {
    if (p_) p_->retain();
  }
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  ptr_refcount(ptr_refcount<U>&& o) noexcept : p_(o.detach()) {}
  // Takes the first count of an object just created, which no other thread can reach yet,
  // without an atomic operation.
  static ptr_refcount adopt_new(T* fresh) noexcept {
    fresh->count_.store(1, std::memory_order_relaxed);
    return ptr_refcount(fresh, adopted{});
  }
  ~ptr_refcount() {
    if (p_) p_->release();
  }

  ptr_refcount& operator=(const ptr_refcount& o) noexcept {
    ptr_refcount(o).swap(*this);
    return *this;
  }
  ptr_refcount& operator=(ptr_refcount&& o) noexcept {
    ptr_refcount(std::move(o)).swap(*this);
    return *this;
  }
  ptr_refcount& operator=(T* p) noexcept {
    ptr_refcount(p).swap(*this);
    return *this;
  }

  T* get() const noexcept { return p_; }
  T& operator*() const noexcept { return *p_; }
  T* operator->() const noexcept { return p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }
  bool is_null() const noexcept { return p_ == nullptr; }
  void reset() noexcept { ptr_refcount().swap(*this); }
  void swap(ptr_refcount& o) noexcept { std::swap(p_, o.p_); }
  // Gives up ownership without releasing; the caller takes over the count.
  T* detach() noexcept { return std::exchange(p_, nullptr); }

 private:
  struct adopted {};
  ptr_refcount(T* p, adopted) noexcept : p_(p) {}

  T* p_ = nullptr;
};

// Creates an object owned by the returned pointer (its first count taken without an atomic
// operation), as std::make_shared does for shared_ptr.
template <class T, class... Args>
ptr_refcount<T> make_refcount(Args&&... args) {
  return ptr_refcount<T>::adopt_new(new T(std::forward<Args>(args)...));
}

template <class T, class U>
bool operator==(const ptr_refcount<T>& a, const ptr_refcount<U>& b) noexcept {
  return a.get() == b.get();
}
template <class T, class U>
bool operator!=(const ptr_refcount<T>& a, const ptr_refcount<U>& b) noexcept {
  return a.get() != b.get();
}

}  // namespace zelbase
