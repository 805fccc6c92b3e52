// The work client's plain jobs: ten thousand jobs in one submission, then steering a part of them
// with the outcome of every item; the asynchronous forms; a lost link and a refused request.
#include <gtest/gtest.h>

#include <chrono>

#include "work_client_test_support.h"
#include "zelcapi/connection_test_support.h"

namespace {

using namespace zeltest;
using namespace std::chrono_literals;
using zelcapi::job_action;
using zelcapi::write_outcome;

properties job(std::int64_t run_ms) {
  return properties{{"command", text("/bin/true")}, {"run-ms", number(run_ms)}};
}

std::string master_job_state(zelsim::cluster& sim, const std::string& id) {
  return master_record(sim, "jobs", id).get_string_value("state", "");
}

// How many items of a result have each outcome.
std::map<std::string, std::size_t> counts(const zelcapi::write_result& r) {
  std::map<std::string, std::size_t> out;
  for (const zelcapi::item_result& item : r.items)
    ++out[zelcapi::write_outcome_c_str(item.outcome)];
  return out;
}

TEST(WorkClientJobs, TenThousandJobsInOneSubmissionThenCancelAndRetryOfSomeWithOutcomesPerItem) {
  write_cluster sim;
  plain_work_session alice(sim, "alice", "secret");
  alice.client.set_timeout(120);
  const std::vector<properties> jobs(10000, job(1000));
  const zelcapi::write_result submitted = alice.client.submit_jobs(jobs, "many");
  ASSERT_EQ(submitted.items.size(), 10000u);
  EXPECT_EQ(counts(submitted), (std::map<std::string, std::size_t>{{"done", 10000}}));
  EXPECT_EQ(submitted.submission_id.rfind("sub-s", 0), 0u) << submitted.submission_id;
  EXPECT_EQ(master_records(sim, "jobs").size(), 10000u);

  // The last 100 are queued (the nodes' cores are taken by the first ones); one id is unknown.
  std::vector<std::string> some;
  for (std::size_t i = 9900; i < 10000; ++i) some.push_back(submitted.items[i].id);
  some.push_back("job-s9999999");
  const zelcapi::write_result cancelled = alice.client.steer_jobs(job_action::cancel, some);
  ASSERT_EQ(cancelled.items.size(), 101u);
  EXPECT_EQ(counts(cancelled),
            (std::map<std::string, std::size_t>{{"done", 100}, {"not-found", 1}}));
  EXPECT_EQ(cancelled.items[100].text, "job 'job-s9999999' is not in the cluster's live state");
  EXPECT_EQ(cancelled.items[0].id, some[0]);
  EXPECT_EQ(master_job_state(sim, some[0]), "cancelled");

  // Retrying: the cancelled ones go back to the queue; a queued one cannot be retried.
  std::vector<std::string> retry(some.begin(), some.begin() + 50);
  retry.push_back(submitted.items[5000].id);
  const zelcapi::write_result retried = alice.client.steer_jobs(job_action::retry, retry);
  EXPECT_EQ(counts(retried),
            (std::map<std::string, std::size_t>{{"done", 50}, {"not-allowed", 1}}));
  EXPECT_EQ(retried.items[50].text, "job '" + submitted.items[5000].id + "' is queued");
  EXPECT_EQ(master_job_state(sim, some[0]), "queued");
  EXPECT_EQ(master_job_state(sim, some[50]), "cancelled");
  // Cancelling the other half again changes nothing.
  const std::vector<std::string> again(some.begin() + 50, some.begin() + 100);
  EXPECT_EQ(counts(alice.client.steer_jobs(job_action::cancel, again)),
            (std::map<std::string, std::size_t>{{"already-done", 50}}));
}

TEST(WorkClientJobs, HoldReleaseAndPriorityAnswerPerItemAndAnotherUserIsRefused) {
  write_cluster sim;
  work_session alice(sim, "alice", "secret");
  // Enough jobs to keep the last one queued.
  std::vector<properties> jobs(40, job(100000));
  const zelcapi::write_result submitted = alice.client.submit_jobs(jobs);
  const std::string first = submitted.items.front().id;
  const std::string last = submitted.items.back().id;
  ASSERT_EQ(master_job_state(sim, first), "running");
  ASSERT_EQ(master_job_state(sim, last), "queued");

  EXPECT_EQ(outcomes(alice.client.steer_jobs(job_action::hold, {last, first})),
            (std::vector<std::string>{"done", "not-allowed: job '" + first + "' is running"}));
  // The replica saw the hold before the reply came.
  EXPECT_EQ(
      alice.link.get_state()->get_item(zelcapi::state_item_job, last).get_string_value("state"),
      "held");
  EXPECT_EQ(outcomes(alice.client.steer_jobs(job_action::release, {last})),
            std::vector<std::string>{"done"});
  EXPECT_EQ(outcomes(alice.client.steer_jobs(job_action::priority, {last}, 9)),
            std::vector<std::string>{"done"});
  EXPECT_EQ(master_record(sim, "jobs", last).get_int_value("priority"), 9);

  plain_work_session bob(sim, "bob", "hunter2");
  const zelcapi::write_result refused = bob.client.steer_jobs(job_action::cancel, {last});
  ASSERT_EQ(refused.items.size(), 1u);
  EXPECT_EQ(refused.items[0].outcome, write_outcome::access_denied);
  EXPECT_EQ(refused.items[0].owner, "alice");
  EXPECT_EQ(master_job_state(sim, last), "queued");
}

TEST(WorkClientJobs, AnAsynchronousSubmissionAndItsWaitEndTheJob) {
  write_cluster sim;
  work_session alice(sim, "alice", "secret");
  bool told = false;
  zelcapi::write_result submitted;
  alice.client.submit_jobs_async({job(500)}, "one", {},
                                 [&](const zelcapi::write_result& r, std::exception_ptr error) {
                                   EXPECT_FALSE(error);
                                   submitted = r;
                                   told = true;
                                 });
  ASSERT_TRUE(serve_until({&alice.link}, [&] { return told; }));
  ASSERT_EQ(outcomes(submitted), std::vector<std::string>{"done"});
  const std::string id = submitted.items[0].id;
  sim.advance_time(500ms);
  const zelcapi::work_record end = alice.client.wait_for_job(id, 10000);
  EXPECT_EQ(end.record.get_string_value("state"), "finished");
  EXPECT_EQ(end.describe(), "job '" + id + "' is finished");
}

TEST(WorkClientJobs, ARequestRefusedWholeRaisesWithTheMastersText) {
  write_cluster sim;
  plain_work_session alice(sim, "alice", "secret");
  try {
    alice.client.submit_jobs({});
    ADD_FAILURE() << "an empty submission was accepted";
  } catch (const zelcapi::write_error& e) {
    EXPECT_EQ(e.why(), zelcapi::write_error::refused);
    EXPECT_EQ(e.message(), "'cluster.api.jobs.submit' refused by the master: \"jobs\" is empty");
  }
}

TEST(WorkClientJobs, ALinkLostBeforeTheReplyRaisesWithTheKeyToSendAgain) {
  write_cluster sim;
  plain_work_session alice(sim, "alice", "secret");
  sim.drop_replies(1);
  bool told = false;
  std::string reason;
  alice.client.submit_jobs_async({job(100)}, "", {},
                                 [&](const zelcapi::write_result& r, std::exception_ptr error) {
                                   EXPECT_TRUE(r.items.empty());
                                   told = true;
                                   try {
                                     std::rethrow_exception(error);
                                   } catch (const zelcapi::write_error& e) {
                                     EXPECT_EQ(e.why(), zelcapi::write_error::link_lost);
                                     reason = e.message();
                                   }
                                 });
  // The master applied it and answered nothing; then the link goes.
  ASSERT_TRUE(
      serve_until({&alice.logged_in.c}, [&] { return master_records(sim, "jobs").size() == 1; }));
  sim.close_links(1);
  ASSERT_TRUE(serve_until({&alice.logged_in.c}, [&] { return told; }));
  EXPECT_NE(reason.find("the link was lost before the reply (Connection error); the master may "
                        "have applied it: send it again with key 'key-"),
            std::string::npos)
      << reason;
  // Without a link, a request fails at once.
  EXPECT_THROW(alice.client.steer_jobs(job_action::cancel, {"job-s0000001"}), zelcapi::write_error);
}

// A master whose steering replies carry the items the test gives (null: no "items" at all).
TEST(WorkClientJobs, AnUnreadableReplyRaisesNamingWhatIsWrong) {
  write_cluster sim;
  plain_work_session alice(sim, "alice", "secret");
  zelcore::property_ptr items;
  sim.on(steer_request, [&items](zelsim::request_context&, const packet&, packet& reply) {
    if (items) reply.get_properties()["items"] = items;
    return true;
  });
  const auto refusal = [&](const zelcore::property_ptr& given) {
    items = given;
    try {
      alice.client.steer_jobs(job_action::hold, {"job-s0000001"});
    } catch (const zelcapi::write_error& e) {
      EXPECT_EQ(e.why(), zelcapi::write_error::bad_reply);
      const std::string prefix =
          "'cluster.api.jobs.steer' (key '" + e.key() + "'): unreadable reply: ";
      EXPECT_EQ(e.message().rfind(prefix, 0), 0u) << e.message();
      return e.message().substr(prefix.size());
    }
    return std::string("accepted");
  };
  EXPECT_EQ(refusal(nullptr), "property 'items' is missing");
  EXPECT_EQ(refusal(number(3)), "property 'items' is a int, not a list");
  EXPECT_EQ(refusal(list_of({})), "the reply holds 0 items for 1 sent");
  EXPECT_EQ(refusal(list_of({number(1)})), "an item of the reply is not a properties");
  EXPECT_EQ(refusal(list_of({tree(properties{{"outcome", text("maybe")}})})),
            "an item of the reply has the unknown outcome 'maybe'");
  EXPECT_EQ(refusal(list_of({tree(properties{{"outcome", number(1)}})})),
            "property 'outcome' is a int, not a string");
  EXPECT_EQ(refusal(list_of({tree(properties{{"outcome", text("done")}})})), "accepted");
}

}  // namespace
