// Property trees across threads: copies shared with and released on other threads, while the
// originals change; tree objects made on one thread and freed on another (the small-object
// cache is per thread). Run under ThreadSanitizer and AddressSanitizer as well.
#include <gtest/gtest.h>
#include <malloc.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "zelcore/properties.h"

using zelcore::make_int;
using zelcore::make_string;
using zelcore::properties;
using zelcore::property_ptr;

namespace {

properties record(int n) {
  properties out(false);
  out.set_int_value("n", n);
  out.set_string_value("name", "job-" + std::to_string(n) + "-with-a-name-longer-than-sso");
  properties nested(false);
  nested.set_int_value("x", n);
  nested.set_string_value("y", std::to_string(n));
  out.set_properties_value("nested", nested);
  return out;
}

bool holds(const properties& p, int n) {
  return p.get_int_value("n") == n && p.get_properties_value("nested").get_int_value("x") == n &&
         p.get_properties_value("nested").get_string_value("y") == std::to_string(n) &&
         p.get_string_value("name") == "job-" + std::to_string(n) + "-with-a-name-longer-than-sso";
}

// A queue of trees handed from one thread to another.
class handoff {
 public:
  void push(properties p) {
    std::lock_guard<std::mutex> hold(lock_);
    queue_.push_back(std::move(p));
    ready_.notify_one();
  }
  void close() {
    std::lock_guard<std::mutex> hold(lock_);
    closed_ = true;
    ready_.notify_one();
  }
  bool pop(properties& out) {
    std::unique_lock<std::mutex> hold(lock_);
    ready_.wait(hold, [&] { return closed_ || !queue_.empty(); });
    if (queue_.empty()) return false;
    out = std::move(queue_.front());
    queue_.pop_front();
    return true;
  }

 private:
  std::mutex lock_;
  std::condition_variable ready_;
  std::deque<properties> queue_;
  bool closed_ = false;
};

}  // namespace

TEST(PropertyThreads, CopiesReleasedOnAnotherThreadWhileTheOriginalChanges) {
  constexpr int rounds = 20000;
  handoff queue;
  int bad = 0;
  std::thread consumer([&] {
    properties p(false);
    for (int expected = 0; queue.pop(p); ++expected)
      if (!holds(p, expected)) ++bad;
    p.clear();
  });
  properties original = record(0);
  for (int n = 0; n < rounds; ++n) {
    queue.push(original);  // shares the content and the children with the consumer's copy
    // Change the original while the copy may be read or released on the other thread.
    original.set_int_value("n", n + 1);
    original.set_string_value("name",
                              "job-" + std::to_string(n + 1) + "-with-a-name-longer-than-sso");
    original.set_create_referenced_property("/nested/x", make_int(n + 1));
    original.set_create_referenced_property("/nested/y", make_string(std::to_string(n + 1)));
  }
  queue.close();
  consumer.join();
  EXPECT_EQ(bad, 0);
  EXPECT_TRUE(holds(original, rounds));
}

TEST(PropertyThreads, OneTreeReadOnManyThreadsEachChangingItsOwnCopy) {
  properties shared(false);
  for (int i = 0; i < 200; ++i) shared.set_properties_value("r" + std::to_string(i), record(i));
  const std::string encoded = zelcore::encode_property(shared);
  std::vector<std::thread> threads;
  std::vector<int> bad(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < 50; ++round) {
        properties mine = shared;
        mine.merge_leaves(properties{{"r7", property_ptr(new properties{{"n", make_int(-t)}})}});
        mine.set_create_referenced_property("/r9/nested/x", make_int(t));
        mine.erase("r3");
        if (mine.get_properties_value("r7").get_int_value("n") != -t) ++bad[t];
        if (zelcore::encode_property(shared) != encoded) ++bad[t];
        if (!holds(shared.get_properties_value("r7"), 7)) ++bad[t];
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(bad, std::vector<int>(4, 0));
  EXPECT_EQ(zelcore::encode_property(shared), encoded);
}

TEST(PropertyThreads, TreesMadeOnOneThreadAreFreedOnAnotherBothWays) {
  handoff to_b, to_a;
  int bad_a = 0, bad_b = 0;
  constexpr int rounds = 5000;
  // Each thread frees what the other made and then makes new trees from blocks it freed.
  std::thread b([&] {
    properties p(false);
    for (int n = 0; to_b.pop(p); ++n) {
      if (!holds(p, n)) ++bad_b;
      p = record(-n);
      to_a.push(std::move(p));
    }
    to_a.close();
  });
  std::thread a([&] {
    for (int n = 0; n < rounds; ++n) to_b.push(record(n));
    to_b.close();
    properties p(false);
    for (int n = 0; to_a.pop(p); ++n)
      if (!holds(p, -n)) ++bad_a;
  });
  a.join();
  b.join();
  EXPECT_EQ(bad_a, 0);
  EXPECT_EQ(bad_b, 0);
}

// A thread that only frees tree objects (never allocates one) must still give its cached
// blocks back when it ends. The heap's in-use bytes show any it keeps (the address-sanitizer
// build reports no heap figures; its leak checker sees them instead).
TEST(PropertyThreads, AThreadThatOnlyFreesKeepsNoBlocksAfterItEnds) {
  const std::size_t before = mallinfo2().uordblks;
  for (int round = 0; round < 20; ++round) {
    std::vector<properties> made;
    for (int n = 0; n < 500; ++n) made.push_back(record(n));
    std::thread freer([&made] {
      for (properties& p : made) p.clear();
    });
    freer.join();
  }
  const std::size_t after = mallinfo2().uordblks;
  EXPECT_LT(after > before ? after - before : 0, 256u * 1024) << before << " -> " << after;
}
