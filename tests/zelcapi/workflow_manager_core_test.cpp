// Tests of the workflow manager's core: ids, wpaths, the sequence counter, lookup, adding,
// removing, encoders and whole-map queries.
#include <gtest/gtest.h>

#include <cctype>
#include <functional>
#include <limits>

#include "support/capture_sink.h"
#include "zelbase/exceptions.h"
#include "zelbase/time.h"
#include "zelcapi/workflow_manager_support.h"

namespace {

using zelcapi::workflow_manager;
using zelcore::properties;
using zeltest::capture_sink;
using zeltest::empty_workflow;
using zeltest::managed_workflows;
using zeltest::manager_source;
using zeltest::tree_of;
using zelworkflow::workflow_info;

// Asserts one manager failure report with the given text.
void expect_single_report(const capture_sink& sink, const std::string& message) {
  const auto reports = sink.reports();
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].file, manager_source);
  EXPECT_EQ(reports[0].category, "workflow_manager");
  EXPECT_EQ(reports[0].record_kind, 8u);
  EXPECT_EQ(reports[0].record_severity, 3u);
  EXPECT_EQ(reports[0].message, message);
}

properties spawned_workflow(std::uint64_t sequence_number) {
  workflow_info wi;
  wi.set_type(workflow_info::workflow_type_spawned);
  if (sequence_number != 0)
    wi.spawn(sequence_number, zelcore::make_string("in"), workflow_manager::attempts_config());
  properties out;
  wi.encode_workflow_info(out);
  return out;
}

TEST(WorkflowManagerIds, GeneratedStateIdsAreDistinctAndBeginWithWofl) {
  managed_workflows m;
  std::string first, second;
  m.manager.add_workflow(empty_workflow(workflow_info::workflow_type_template), m.db, first, "");
  m.manager.add_workflow(empty_workflow(workflow_info::workflow_type_template), m.db, second, "");
  // "WOFL-" and a lower-case uuid, with nothing between them.
  for (const std::string& id : {first, second}) {
    ASSERT_EQ(id.size(), 5u + 36u) << id;
    EXPECT_EQ(id.substr(0, 5), "WOFL-");
    for (std::size_t i = 5; i < id.size(); ++i) {
      const bool dash = i == 5 + 8 || i == 5 + 13 || i == 5 + 18 || i == 5 + 23;
      EXPECT_TRUE(dash ? id[i] == '-'
                       : std::isxdigit(static_cast<unsigned char>(id[i])) != 0 &&
                             !std::isupper(static_cast<unsigned char>(id[i])))
          << id;
    }
  }
  EXPECT_NE(first, second);
  EXPECT_EQ(m.workflows.size(), 2u);
}

TEST(WorkflowManagerIds, RequestedStateIdIsUsed) {
  managed_workflows m;
  std::string id;
  m.manager.add_workflow(empty_workflow(workflow_info::workflow_type_template), m.db, id, "mine");
  EXPECT_EQ(id, "mine");
  EXPECT_EQ(m.workflows.count("mine"), 1u);
}

TEST(WorkflowManagerIds, CreateWpathJoinsStateIdAndTaskIdInTheWorkflowScheme) {
  EXPECT_EQ(workflow_manager::create_wpath("A", "t1"), "workflow:A>t1");
}

TEST(WorkflowManagerIds, ExtractGivesBackStateIdAndTaskId) {
  std::string wfid, wtid;
  workflow_manager::extract_wfid_and_wtid(workflow_manager::create_wpath("A", "t1"), wfid, wtid);
  EXPECT_EQ(wfid, "A");
  EXPECT_EQ(wtid, "t1");
}

TEST(WorkflowManagerIds, ExtractOfThreeElementsGivesFirstAndLast) {
  std::string wfid, wtid;
  workflow_manager::extract_wfid_and_wtid("workflow:A>x>t1", wfid, wtid);
  EXPECT_EQ(wfid, "A");
  EXPECT_EQ(wtid, "t1");
  workflow_manager::extract_wfid_and_wtid("A>x>t1", wfid, wtid);
  EXPECT_EQ(wfid, "A");
  EXPECT_EQ(wtid, "t1");
}

TEST(WorkflowManagerIds, ExtractIntoItsOwnInput) {
  std::string path = "workflow:A>t1";
  std::string wtid;
  workflow_manager::extract_wfid_and_wtid(path, path, wtid);
  EXPECT_EQ(path, "A");
  EXPECT_EQ(wtid, "t1");
}

TEST(WorkflowManagerSequence, SpawnAfterLargestCounterGetsOne) {
  managed_workflows m;
  m.manager.set_current_sequence_number(std::numeric_limits<std::uint64_t>::max());
  std::string id;
  m.manager.add_workflow(spawned_workflow(0), m.db, id, "S");
  EXPECT_EQ(m.sequence_number, 1u);
  EXPECT_EQ(m.manager.get_current_sequence_number(), 1u);
  EXPECT_EQ(m.workflow("S").get_sequence_number(), 1u);
}

TEST(WorkflowManagerSequence, AddingUnspawnedSpawnedWorkflowSpawnsWithNextNumber) {
  managed_workflows m;
  m.manager.set_current_sequence_number(41);
  std::string id;
  m.manager.add_workflow(spawned_workflow(0), m.db, id, "S");
  EXPECT_EQ(m.sequence_number, 42u);
  EXPECT_EQ(m.workflow("S").get_sequence_number(), 42u);
  // The spawn's in-value is the fixed text that says none was needed.
  EXPECT_EQ(*m.workflow("S").get_spawn_value(), *zelcore::make_string("No in-value needed"));
}

TEST(WorkflowManagerSequence, AddingSpawnedWorkflowWithNumberLeavesCounter) {
  managed_workflows m;
  m.manager.set_current_sequence_number(7);
  std::string id;
  m.manager.add_workflow(spawned_workflow(5), m.db, id, "S");
  EXPECT_EQ(m.sequence_number, 7u);
  EXPECT_EQ(m.workflow("S").get_sequence_number(), 5u);
}

TEST(WorkflowManagerSequence, TemplatesAndInitWorkflowsAreOnlyInserted) {
  managed_workflows m;
  std::string id;
  m.manager.add_workflow(empty_workflow(workflow_info::workflow_type_template), m.db, id, "T");
  m.manager.add_workflow(empty_workflow(workflow_info::workflow_type_init), m.db, id, "I");
  EXPECT_EQ(m.sequence_number, 0u);
  EXPECT_EQ(m.workflow("T").get_sequence_number(), 0u);
  EXPECT_EQ(m.workflow("I").get_sequence_number(), 0u);
}

// Adds an unspawned spawned workflow under "A", where a template already is: the add raises,
// keeps the template and spawns nothing. `announced` is how many callbacks the receiver gets.
void expect_duplicate_refused(const std::function<void(managed_workflows&)>& add,
                              std::size_t announced) {
  managed_workflows m;
  std::string id;
  m.manager.add_workflow(empty_workflow(workflow_info::workflow_type_template), m.db, id, "A");
  const auto* before = m.workflows.at("A").get();
  m.receiver.calls.clear();
  capture_sink sink;
  try {
    add(m);
    FAIL() << "no exception";
  } catch (const zelbase::es::arg& e) {
    EXPECT_STREQ(e.what(),
                 "Can't add workflow with same state-id ('A') as an already present workflow.");
  }
  expect_single_report(
      sink, "Can't add workflow with same state-id ('A') as an already present workflow.");
  EXPECT_EQ(m.workflows.at("A").get(), before);
  EXPECT_EQ(m.workflow("A").get_type(), workflow_info::workflow_type_template);
  EXPECT_EQ(m.sequence_number, 0u);  // no spawn happened
  ASSERT_EQ(m.receiver.calls.size(), announced);
  for (const auto& call : m.receiver.calls) {
    EXPECT_TRUE(call.will);
    EXPECT_EQ(call.workflow_id, "A");
  }
}

TEST(WorkflowManagerAdd, DuplicateIdRaisesAndKeepsTheOldWorkflow) {
  std::string produced;
  expect_duplicate_refused(
      [&](managed_workflows& m) {
        m.manager.add_workflow(spawned_workflow(0), m.db, produced, "A");
      },
      0);
  EXPECT_EQ(produced, "A");
}

TEST(WorkflowManagerAdd, ReceivedAddUnderAnExistingIdRaisesAndKeepsTheOldWorkflow) {
  expect_duplicate_refused(
      [](managed_workflows& m) {
        m.manager.update_workflow(properties{{"action", zelcore::make_string("add-workflow")},
                                             {"state-id", zelcore::make_string("A")},
                                             {"workflow", tree_of(spawned_workflow(0))}},
                                  m.db);
      },
      1);
}

TEST(WorkflowManagerAdd, AddWritesAddWorkflowWithProducedIdAndTheCallersTree) {
  managed_workflows m;
  const properties workflow = empty_workflow(workflow_info::workflow_type_template);
  std::string id;
  m.manager.add_workflow(workflow, m.db, id, "");
  ASSERT_EQ(m.receiver.calls.size(), 1u);
  const auto& call = m.receiver.calls[0];
  EXPECT_FALSE(call.will);
  EXPECT_EQ(call.workflow_id, id);
  EXPECT_EQ(call.update, (properties{{"action", zelcore::make_string("add-workflow")},
                                     {"state-id", zelcore::make_string(id)},
                                     {"workflow", tree_of(workflow)}}));
}

TEST(WorkflowManagerLookup, UnknownIdIsReportedThenRaisedWithCode) {
  managed_workflows m;
  const workflow_manager& manager = m.manager;
  capture_sink sink;
  try {
    manager.get_workflow_info("nope");
    FAIL() << "no exception";
  } catch (const zelbase::es::api_code& e) {
    EXPECT_EQ(e.code(), -3414000);
    EXPECT_STREQ(e.what(), "'nope' isn't a valid workflow state id");
    EXPECT_EQ(e.file(), manager_source);
  }
  expect_single_report(sink, "'nope' isn't a valid workflow state id");
}

TEST(WorkflowManagerLookup, EveryIdTakingOperationFailsTheSameWay) {
  managed_workflows m;
  capture_sink sink;
  properties out;
  EXPECT_THROW(m.manager.encode_workflow("x", out), zelbase::es::api_code);
  EXPECT_THROW(m.manager.encode_task("x", "t", out), zelbase::es::api_code);
  EXPECT_THROW(m.manager.get_priority("x"), zelbase::es::api_code);
  EXPECT_THROW(m.manager.set_priority("x", 1, workflow_info::priority_absolute, 0, 10),
               zelbase::es::api_code);
  EXPECT_THROW(m.manager.add_dependant("x", "y"), zelbase::es::api_code);
  EXPECT_THROW(m.manager.set_ext_meta_data("x", properties()), zelbase::es::api_code);
  EXPECT_EQ(sink.messages(), std::vector<std::string>(6, "'x' isn't a valid workflow state id"));
  EXPECT_TRUE(m.receiver.calls.empty());
}

TEST(WorkflowManagerRemove, StampsRemoveTimeAndDropsTheIdFromDependants) {
  const auto old_clock = zelbase::set_time_clock([] { return 1234567u; });
  managed_workflows m;
  std::string id;
  m.manager.add_workflow(empty_workflow(workflow_info::workflow_type_template), m.db, id, "A");
  m.manager.add_workflow(empty_workflow(workflow_info::workflow_type_template), m.db, id, "B");
  m.manager.add_workflow(empty_workflow(workflow_info::workflow_type_template), m.db, id, "C");
  m.manager.add_dependant("B", "A");
  m.manager.add_dependant("C", "A");
  m.manager.add_dependant("C", "B");
  const auto held = m.workflows.at("A");
  m.receiver.calls.clear();
  m.manager.remove_workflow("A");
  zelbase::set_time_clock(old_clock);

  EXPECT_EQ(m.workflows.count("A"), 0u);
  EXPECT_EQ(held->get_workflow_meta_data().get_int_value("remove-time"), 1234567);
  EXPECT_FALSE(m.workflow("B").remove_dependant("A"));  // already gone
  EXPECT_FALSE(m.workflow("C").remove_dependant("A"));
  EXPECT_TRUE(m.workflow("C").remove_dependant("B"));  // other dependants stay
  const properties update{{"action", zelcore::make_string("remove-workflow")},
                          {"state-id", zelcore::make_string("A")}};
  ASSERT_EQ(m.receiver.calls.size(), 2u);
  EXPECT_TRUE(m.receiver.calls[0].will);
  EXPECT_EQ(m.receiver.calls[0].workflow_id, "A");
  EXPECT_EQ(m.receiver.calls[0].update, update);
  EXPECT_FALSE(m.receiver.calls[1].will);
  EXPECT_EQ(m.receiver.calls[1].workflow_id, "A");
  EXPECT_EQ(m.receiver.calls[1].update, update);
}

TEST(WorkflowManagerRemove, RemovingByTheMapsOwnKeyIsSafe) {
  managed_workflows m;
  std::string id;
  m.manager.add_workflow(empty_workflow(workflow_info::workflow_type_template), m.db, id, "A");
  m.manager.add_workflow(empty_workflow(workflow_info::workflow_type_template), m.db, id, "B");
  m.manager.add_dependant("B", "A");
  m.manager.remove_workflow(m.workflows.begin()->first);
  EXPECT_EQ(m.workflows.count("A"), 0u);
  EXPECT_FALSE(m.workflow("B").remove_dependant("A"));
}

TEST(WorkflowManagerRemove, UnknownIdAnnouncesThenFailsWithoutWasUpdated) {
  managed_workflows m;
  capture_sink sink;
  try {
    m.manager.remove_workflow("nope");
    FAIL() << "no exception";
  } catch (const zelbase::es::api_code& e) {
    EXPECT_EQ(e.code(), -3414000);
    EXPECT_STREQ(e.what(), "'nope' isn't a valid workflow state id");
  }
  expect_single_report(sink, "'nope' isn't a valid workflow state id");
  ASSERT_EQ(m.receiver.calls.size(), 1u);
  EXPECT_TRUE(m.receiver.calls[0].will);
  EXPECT_EQ(m.receiver.calls[0].workflow_id, "nope");
}

TEST(WorkflowManagerRemove, WithoutReceiverTheWorkflowIsStillRemoved) {
  managed_workflows m(false);
  std::string id;
  m.manager.add_workflow(empty_workflow(workflow_info::workflow_type_template), m.db, id, "A");
  m.manager.remove_workflow("A");
  EXPECT_TRUE(m.workflows.empty());
  EXPECT_TRUE(m.receiver.calls.empty());
}

TEST(WorkflowManagerQueries, EncodeAllWorkflowsReplacesOnlyTheirOwnKeys) {
  managed_workflows m;
  std::string id;
  m.manager.add_workflow(empty_workflow(workflow_info::workflow_type_template), m.db, id, "A");
  properties out{{"A", zelcore::make_string("old")}, {"Z", zelcore::make_int(1)}};
  m.manager.encode_all_workflows(out);
  properties a;
  m.manager.encode_workflow("A", a);
  EXPECT_EQ(out.get_properties_value("A"), a);
  EXPECT_EQ(out.get_int_value("Z"), 1);
  EXPECT_EQ(out.size(), 2u);
}

TEST(WorkflowManagerQueries, EncodedWorkflowDecodesToTheSameWorkflow) {
  managed_workflows m;
  std::string id;
  m.manager.add_workflow(spawned_workflow(3), m.db, id, "S");
  properties first;
  m.manager.encode_workflow("S", first);
  m.manager.add_workflow(first, m.db, id, "S2");
  properties second;
  m.manager.encode_workflow("S2", second);
  EXPECT_EQ(first, second);
}

TEST(WorkflowManagerQueries, AllWorkflowStatusesKeepOtherEntries) {
  managed_workflows m;
  std::string id;
  m.manager.add_workflow(empty_workflow(workflow_info::workflow_type_template), m.db, id, "A");
  std::map<std::string, workflow_info::status> statuses{{"other", workflow_info::status_failed}};
  m.manager.get_all_workflow_statuses(statuses);
  ASSERT_EQ(statuses.size(), 2u);
  EXPECT_EQ(statuses.at("A"), m.workflow("A").get_status());
  EXPECT_EQ(statuses.at("other"), workflow_info::status_failed);
}

TEST(WorkflowManagerQueries, AllWpathsOfEmptyManagerLeaveTheSetAlone) {
  managed_workflows m;
  std::set<std::string> wpaths{"kept"};
  m.manager.get_all_wpaths(wpaths);
  EXPECT_EQ(wpaths, std::set<std::string>{"kept"});
}

}  // namespace
