// Mutexes and threads.
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>

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
  try {
    t.start(body);
    ADD_FAILURE() << "no error";
  } catch (const zelbase::es::uspec& e) {
    EXPECT_STREQ(e.what(), "thread is already running");
  }
  gate.unlock();
  t.join();
  EXPECT_EQ(body.runs, 0);
}

TEST(Thread, CanBeStartedAgainAfterJoin) {
  counting_body body;
  zelbase::thread t;
  t.start(body);
  t.join();
  t.start(body);
  t.join();
  EXPECT_EQ(body.runs, 2);
}

TEST(Thread, TerminateIsAVirtualOperationOfTheBody) {
  struct stoppable : zelbase::thread_base {
    std::atomic<bool> stop{false};
    std::atomic<int> loops{0};
    void run() override {
      while (!stop) ++loops;
    }
    void terminate() override { stop = true; }
  } body;
  zelbase::thread t;
  t.start(body);
  zelbase::thread_base& base = body;
  base.terminate();
  t.join();
  EXPECT_TRUE(body.stop);
}

// A body that raises ends its thread, not the process; join() hands the error over once.
TEST(Thread, JoinRaisesWhatTheBodyRaisedOnce) {
  struct failing : zelbase::thread_base {
    void run() override { zelbase::es::arg::raise("body.cpp", 7, "no such job"); }
  } body;
  zelbase::thread t;
  t.start(body);
  try {
    t.join();
    ADD_FAILURE() << "no error";
  } catch (const zelbase::es::arg& e) {
    EXPECT_EQ(e.message(), "no such job");
  }
  EXPECT_NO_THROW(t.join());
  counting_body counting;
  t.start(counting);
  EXPECT_NO_THROW(t.join());
  EXPECT_EQ(counting.runs, 1);
}

TEST(Thread, DestroyingAThreadWhoseBodyRaisedDoesNotRaise) {
  struct failing : zelbase::thread_base {
    void run() override { throw std::runtime_error("lost"); }
  } body;
  EXPECT_NO_THROW({
    zelbase::thread t;
    t.start(body);
  });
}
