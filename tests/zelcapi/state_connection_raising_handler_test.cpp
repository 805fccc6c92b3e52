// A state handler that raises: for the notifications whose handler call comes first, the
// replica still makes the change before the exception passes on, so that a failing application
// handler never leaves the replica behind the cluster; a raising pre-update call is no veto.
#include <gtest/gtest.h>

#include <stdexcept>

#include "support/capture_sink.h"
#include "support/loop_convergence.h"
#include "zelcapi/state_connection_test_support.h"

namespace {

using zelcapi::state_item_job;
using zelnet::zelp::packet;
using zeltest::item_fields;
using zeltest::notification;
using zeltest::one_field;
using zeltest::state_connection_failures;
using zeltest::StateConnectionTest;
using lines = std::vector<std::string>;

packet item_notification(const std::string& what, std::int64_t type, const std::string& id) {
  return notification("cluster.api.state." + what, item_fields(type, id));
}

packet set_item(const std::string& id, const zelcore::properties& state) {
  return notification("cluster.api.state.set-item", item_fields(state_item_job, id, state));
}

packet result_notification(const std::string& what, const std::string& id) {
  zelcore::properties fields;
  fields.set_string_value("state-id", id);
  fields.set_properties_value("result", one_field("st", 4));
  return notification("cluster.api.state." + what, fields);
}

// Makes the handler raise an application's error in the calls whose line begins with `prefix`.
void raise_in(zeltest::recording_state_handler& h, const std::string& prefix) {
  h.on_call = [prefix](const std::string& line) {
    if (line.rfind(prefix, 0) == 0) throw std::runtime_error("application error in " + line);
  };
}

TEST_F(StateConnectionTest, ARaisingHandlerOfRemoveItemPassesItsErrorAfterTheItemIsRemoved) {
  ASSERT_TRUE(handled(set_item("j1", one_field("a", 1))));
  raise_in(handler, "removed");
  EXPECT_THROW(handled(item_notification("remove-item", state_item_job, "j1")), std::runtime_error);
  EXPECT_FALSE(replica().has_item(state_item_job, "j1"));
}

TEST_F(StateConnectionTest, ARaisingHandlerOfEraseKeyPassesItsErrorAfterThePropertyIsErased) {
  zelcore::properties record = one_field("a", 1);
  record.set_int_value("b", 2);
  ASSERT_TRUE(handled(set_item("j1", record)));
  raise_in(handler, "erased");
  zelcore::properties fields = item_fields(state_item_job, "j1");
  fields.set_string_value("property-ref", "/b");
  EXPECT_THROW(handled(notification("cluster.api.state.erase-property-ref", fields)),
               std::runtime_error);
  EXPECT_EQ(replica().get_item(state_item_job, "j1"), one_field("a", 1));
}

TEST_F(StateConnectionTest, ARaisingHandlerOfRemoveResultPassesItsErrorAfterTheResultIsRemoved) {
  ASSERT_TRUE(handled(result_notification("update-workflow-result", "WOFL-1")));
  raise_in(handler, "result-removed");
  EXPECT_THROW(handled(result_notification("remove-workflow-result", "WOFL-1")),
               std::runtime_error);
  EXPECT_FALSE(replica().has_workflow_result("WOFL-1"));
}

TEST_F(StateConnectionTest, ARaisingPreUpdateIsNoVetoTheCommandIsAppliedWithoutTheUpdatedCall) {
  raise_in(handler, "pre-update");
  EXPECT_THROW(handled(zeltest::update_workflow(zeltest::add_workflow_command("WOFL-1"))),
               std::runtime_error);
  EXPECT_TRUE(replica().has_workflow_in_state("WOFL-1"));
  EXPECT_EQ(handler.calls, lines{"pre-update add-workflow (0)"});
}

TEST_F(StateConnectionTest, ALibraryErrorOfTheHandlerIsReportedAfterTheItemIsRemoved) {
  ASSERT_TRUE(handled(set_item("j1", one_field("a", 1))));
  zeltest::capture_sink sink;
  handler.on_call = [](const std::string&) {
    zelbase::es::arg::raise("handler", 1, "handler refused");
  };
  EXPECT_TRUE(handled(item_notification("remove-item", state_item_job, "j1")));
  EXPECT_FALSE(replica().has_item(state_item_job, "j1"));
  EXPECT_EQ(state_connection_failures(sink), lines{"failed to update state ('handler refused')"});
}

TEST_F(StateConnectionTest, WhenBothTheHandlerAndTheReplicaFailTheReplicasFailureIsReported) {
  ASSERT_TRUE(handled(set_item("j1", one_field("a", 1))));
  zeltest::capture_sink sink;
  raise_in(handler, "erased");
  zelcore::properties fields = item_fields(state_item_job, "j1");
  fields.set_string_value("property-ref", "a");  // not a reference: the replica refuses it
  EXPECT_THROW(handled(notification("cluster.api.state.erase-property-ref", fields)),
               std::runtime_error);
  const lines reported = state_connection_failures(sink);
  ASSERT_EQ(reported.size(), 1u);
  EXPECT_EQ(reported[0].rfind("failed to update state ('", 0), 0u) << reported[0];
  EXPECT_EQ(replica().get_item(state_item_job, "j1"), one_field("a", 1));
}

class RaisingHandlerWithHistoryTest : public StateConnectionTest {
 protected:
  RaisingHandlerWithHistoryTest() : StateConnectionTest(3600) {}
};

TEST_F(RaisingHandlerWithHistoryTest, ARaisingHandlerOfHistorizeItemPassesItsErrorAfterTheMove) {
  ASSERT_TRUE(handled(set_item("j1", one_field("a", 1))));
  raise_in(handler, "historized");
  EXPECT_THROW(handled(item_notification("historize-item", state_item_job, "j1")),
               std::runtime_error);
  EXPECT_FALSE(replica().has_item(state_item_job, "j1"));
  EXPECT_EQ(replica().get_history_items(state_item_job).at("j1"), one_field("a", 1));
}

// A busy cluster against a handler that raises every 97th time it is asked first; the caller
// goes on waiting after each exception, as an application that logs its handler's errors.
TEST(StateConnectionRaisingHandler, TenThousandChangesThroughWaitEndEqualToTheMaster) {
  zeltest::still_clock clock;
  zelsim::cluster sim(zeltest::seeded_workload(17, 300));
  sim.start();
  zeltest::raising_follower f(97);
  std::uint64_t caught = 0;
  zeltest::expect_convergence_in_loop(
      sim, f,
      [&](const std::function<bool()>& done, std::chrono::milliseconds limit) {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (!done()) {
          if (std::chrono::steady_clock::now() >= end) return false;
          try {
            f.c.wait(10);
          } catch (const std::runtime_error&) {
            ++caught;
          }
        }
        return true;
      },
      10000);
  EXPECT_GT(f.raised, 10u);
  EXPECT_EQ(caught, f.raised);
}

}  // namespace
