// Intrusive reference counting.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "zelbase/refcount.h"

namespace {
struct tracked : zelbase::object_refcount {
  explicit tracked(int* deaths) : deaths(deaths) {}
  ~tracked() override { ++*deaths; }
  int* deaths;
};
}  // namespace

TEST(PtrRefcount, FreesTheObjectWithTheLastOwner) {
  int deaths = 0;
  {
    zelbase::ptr_refcount<tracked> a(new tracked(&deaths));
    EXPECT_EQ(a->refcount(), 1u);
    {
      zelbase::ptr_refcount<tracked> b = a;
      EXPECT_EQ(a->refcount(), 2u);
    }
    EXPECT_EQ(deaths, 0);
  }
  EXPECT_EQ(deaths, 1);
}

TEST(PtrRefcount, ReassignmentReleasesTheOldObject) {
  int deaths = 0;
  zelbase::ptr_refcount<tracked> p(new tracked(&deaths));
  p = new tracked(&deaths);
  EXPECT_EQ(deaths, 1);
  p.reset();
  EXPECT_EQ(deaths, 2);
  EXPECT_TRUE(p.is_null());
}

TEST(PtrRefcount, ConvertsToAPointerToConstBase) {
  int deaths = 0;
  zelbase::ptr_refcount<tracked> p(new tracked(&deaths));
  zelbase::ptr_refcount<const zelbase::object_refcount> base = p;
  EXPECT_EQ(p->refcount(), 2u);
  p.reset();
  EXPECT_EQ(deaths, 0);
  base.reset();
  EXPECT_EQ(deaths, 1);
}

TEST(PtrRefcount, CountsAreSafeAcrossThreads) {
  int deaths = 0;
  zelbase::ptr_refcount<tracked> shared(new tracked(&deaths));
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([shared] {
      for (int i = 0; i < 100000; ++i) zelbase::ptr_refcount<tracked> copy = shared;
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(shared->refcount(), 1u);
  shared.reset();
  EXPECT_EQ(deaths, 1);
}

TEST(ObjectRefcount, CopyOfAnObjectStartsWithNoOwners) {
  int deaths = 0;
  zelbase::ptr_refcount<tracked> p(new tracked(&deaths));
  tracked copy(*p);
  EXPECT_EQ(copy.refcount(), 0u);
}

TEST(PtrRefcount, MakeRefcountCreatesTheFirstOwner) {
  int deaths = 0;
  {
    zelbase::ptr_refcount<tracked> a = zelbase::make_refcount<tracked>(&deaths);
    EXPECT_EQ(a->refcount(), 1u);
    zelbase::ptr_refcount<const tracked> b = a;
    EXPECT_EQ(a->refcount(), 2u);
    a.reset();
    EXPECT_EQ(b->refcount(), 1u);
    EXPECT_EQ(deaths, 0);
  }
  EXPECT_EQ(deaths, 1);
}

// The last owner frees without an atomic write; owners released on other threads must still be
// counted exactly once each.
TEST(PtrRefcount, LastOwnerOnAnyThreadFreesOnce) {
  int deaths = 0;
  for (int round = 0; round < 200; ++round) {
    zelbase::ptr_refcount<tracked> shared = zelbase::make_refcount<tracked>(&deaths);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
      threads.emplace_back([copy = shared]() mutable {
        for (int i = 0; i < 100; ++i) zelbase::ptr_refcount<tracked> more = copy;
        copy.reset();
      });
    shared.reset();
    for (std::thread& t : threads) t.join();
  }
  EXPECT_EQ(deaths, 200);
}
