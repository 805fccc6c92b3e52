// Retries against the master's reply hooks: a dropped reply and a delayed one, each followed by
// the same request with its key, make one set of work; and two requests with one key that are in
// flight together make one.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>

#include "write_test_support.h"
#include "zelcapi/connection_test_support.h"

namespace {

using namespace zeltest;
using namespace std::chrono_literals;
using zeltest::async_exchange;
using zeltest::serve_until;

// Records the packets that reach the handler.
class received : public zelcapi::handler {
 public:
  bool handle(const packet& in, packet&) override {
    if (in.get_type() == packet::type_reply) replies.push_back(in.get_properties());
    return true;
  }
  std::vector<properties> replies;
};

properties two_jobs() {
  properties job{{"command", text("/bin/true")}, {"run-ms", number(10)}};
  return submission({job, job}, "retry-1");
}

std::size_t job_count(zelsim::cluster& sim) { return master_records(sim, "jobs").size(); }

TEST(ReplyHooks, ADroppedReplyThenTheSameRequestWithItsKeyMakesOneSetOfJobs) {
  write_cluster sim;
  write_client alice(sim, "alice", "secret");
  sim.drop_replies(1);
  async_exchange first;
  alice.c.send_async(packet(2, submit_request, two_jobs()), 1, first.callback());
  ASSERT_TRUE(serve_until({&alice.c}, [&] { return first.ended; }));
  EXPECT_EQ(first.error, "Connection timeout");
  // The master applied it: the two jobs are there although the client heard nothing.
  EXPECT_EQ(job_count(sim), 2u);

  const properties again = alice.request(submit_request, two_jobs());
  EXPECT_TRUE(again.get_bool_value("repeated"));
  EXPECT_EQ(items_of(again).size(), 2u);
  EXPECT_EQ(job_count(sim), 2u);
  EXPECT_EQ(master_records(sim, "submissions").size(), 1u);
}

TEST(ReplyHooks, ADelayedReplyComesAfterItsTimeOutToTheHandlerAndTheRetryGetsTheSameAnswer) {
  write_cluster sim;
  received h;
  write_client alice(sim, "alice", "secret");
  alice.c.set_handler(&h);
  sim.delay_replies(1, 3000ms);
  async_exchange first;
  alice.c.send_async(packet(2, submit_request, two_jobs()), 1, first.callback());
  ASSERT_TRUE(serve_until({&alice.c}, [&] { return first.ended; }));
  EXPECT_EQ(first.error, "Connection timeout");
  ASSERT_TRUE(serve_until({&alice.c}, [&] { return !h.replies.empty(); }));

  async_exchange retry;
  alice.c.send_async(packet(2, submit_request, two_jobs()), 5, retry.callback());
  ASSERT_TRUE(serve_until({&alice.c}, [&] { return retry.ended; }));
  EXPECT_EQ(retry.error, "");
  EXPECT_TRUE(retry.reply.get_properties().get_bool_value("repeated"));
  EXPECT_TRUE(*retry.reply.get_properties().get_property("items") ==
              *h.replies[0].get_property("items"));
  EXPECT_EQ(job_count(sim), 2u);
}

TEST(ReplyHooks, TwoRequestsWithOneKeyInFlightTogetherMakeOneSubmission) {
  write_cluster sim;
  write_client one(sim, "alice", "secret");
  write_client two(sim, "alice", "secret");
  // Both are sent before either is answered; their replies are held back to overlap them more.
  sim.delay_replies(2, 200ms);
  async_exchange a, b;
  one.c.send_async(packet(2, submit_request, two_jobs()), 10, a.callback());
  two.c.send_async(packet(2, submit_request, two_jobs()), 10, b.callback());
  ASSERT_TRUE(serve_until({&one.c, &two.c}, [&] { return a.ended && b.ended; }));
  EXPECT_EQ(a.error, "");
  EXPECT_EQ(b.error, "");
  EXPECT_TRUE(*a.reply.get_properties().get_property("items") ==
              *b.reply.get_properties().get_property("items"));
  EXPECT_NE(a.reply.get_properties().get_bool_value("repeated", false),
            b.reply.get_properties().get_bool_value("repeated", false));
  EXPECT_EQ(job_count(sim), 2u);
}

TEST(ReplyHooks, TwoWorkflowsWithOneStateIdInFlightTogetherMakeOne) {
  write_cluster sim;
  write_client one(sim, "alice", "secret");
  write_client two(sim, "alice", "secret");
  const properties add =
      updating({add_workflow("WOFL-twice", workflow_of({{"t", task_of(run_params(5000), {})}}))});
  async_exchange a, b;
  one.c.send_async(packet(2, update_request, add), 10, a.callback());
  two.c.send_async(packet(2, update_request, add), 10, b.callback());
  ASSERT_TRUE(serve_until({&one.c, &two.c}, [&] { return a.ended && b.ended; }));
  std::vector<std::string> outcomes = {
      only_item(a.reply.get_properties()).get_string_value("outcome"),
      only_item(b.reply.get_properties()).get_string_value("outcome")};
  std::sort(outcomes.begin(), outcomes.end());
  EXPECT_EQ(outcomes, (std::vector<std::string>{"already-done", "done"}));
  EXPECT_EQ(sim.submitted_work().workflows, 1u);
  EXPECT_EQ(sim.submitted_work().running, 1u);
}

TEST(ReplyHooks, OnlyWriteRequestsAreHeldAndOnlyAsManyAsAsked) {
  write_cluster sim;
  write_client alice(sim, "alice", "secret");
  sim.drop_replies(1);
  // Other requests are answered as ever, and do not use the drop up.
  EXPECT_TRUE(alice.request("cluster.api.state.request", properties()).is_present("state"));
  async_exchange dropped;
  alice.c.send_async(packet(2, steer_request, steering("cancel", {"job-x"})), 1,
                     dropped.callback());
  ASSERT_TRUE(serve_until({&alice.c}, [&] { return dropped.ended; }));
  EXPECT_EQ(dropped.error, "Connection timeout");
  EXPECT_EQ(only_item(alice.request(steer_request, steering("cancel", {"job-x"})))
                .get_string_value("outcome"),
            "not-found");
}

}  // namespace
