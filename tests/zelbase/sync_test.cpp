// Mutexes and threads.
#include <gtest/gtest.h>

#include <atomic>

#include "zelbase/exceptions.h"
#include "zelbase/sync.h"

namespace {
struct counting_body : zelbase::thread_base {
  std::atomic<int> runs{0};
  void run() override { ++runs; }
};
}  // namespace

TEST(Mutex, TrylockFailsWhileAnotherThreadHoldsIt) {
  zelbase::mutex m(false);
  m.lock();
  bool taken = true;
  std::thread other([&] { taken = m.trylock(); });
  other.join();
  EXPECT_FALSE(taken);
  m.unlock();
  EXPECT_TRUE(m.trylock());
  m.unlock();
}

TEST(Mutex, RecursiveMutexCanBeTakenAgainByItsOwner) {
  zelbase::mutex m(true);
  m.lock();
  EXPECT_TRUE(m.trylock());
  m.unlock();
  m.unlock();
}

TEST(Thread, RunsTheBodyOnceAndJoins) {
  counting_body body;
  zelbase::thread t;
  t.start(body);
  t.join();
  EXPECT_EQ(body.runs, 1);
  EXPECT_FALSE(t.joinable());
  t.join();  // joining again does nothing
}

TEST(Thread, StartingARunningThreadRaises) {
  counting_body body;
  zelbase::thread t;
  zelbase::mutex gate(false);
  struct waiting_body : zelbase::thread_base {
    zelbase::mutex& gate;
    explicit waiting_body(zelbase::mutex& g) : gate(g) {}
    void run() override {
      gate.lock();
      gate.unlock();
    }
  } waiting(gate);
  gate.lock();
  t.start(waiting);
  EXPECT_THROW(t.start(body), zelbase::es::uspec);
  gate.unlock();
  t.join();
}
