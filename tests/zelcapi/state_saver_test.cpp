// Saving a state to its state_db on the saver thread, overlapping saves, a failing store, and
// loading a state back from a state_db.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <random>
#include <thread>

#include "support/capture_sink.h"
#include "zelcapi/recording_receiver.h"
#include "zelcapi/state.h"
#include "zelcapi/state_test_support.h"

using zelcapi::state;
using zelcapi::state_item_client;
using zelcapi::state_item_job;
using zelcapi::workflow_result_info;
using zelcore::make_int;
using zelcore::make_string;
using zelcore::properties;
using zelworkflow::workflow_info;
using strings = std::vector<std::string>;

namespace {

const std::string starting = "Starting save of state-db to disk";
const std::string still_active =
    "Previous save of state still active, consider raising the interval for state saving and/or "
    "lowering the time to keep history";
const std::string done_prefix = "Done with save of state-db to disk in ";

// The calls of one complete save of a state holding client c1, job j1, no workflow, one result
// and sequence number 0.
const strings small_save = {"begin_save", "store_item(0,c1)", "store_item(5,j1)",
                            "store_workflow_results(1)", "store_workflow_sequence_number(0)"};

bool is_done_report(const std::string& message) {
  return message.rfind(done_prefix, 0) == 0 && message.size() > done_prefix.size() + 8 &&
         message.compare(message.size() - 8, 8, " seconds") == 0;
}

void expect_state_report(const zelcore::report_record& r, zelcore::kind kind,
                         zelbase::severity severity) {
  EXPECT_EQ(r.file, zeltest::state_source);
  EXPECT_EQ(r.category, "State");
  EXPECT_EQ(r.record_kind, kind) << r.message;
  EXPECT_EQ(r.record_severity, severity) << r.message;
}

class StateSaver : public testing::Test {
 protected:
  zeltest::capture_sink sink;
  zelcore::plugin_db plugins;
  zeltest::recording_state_db db;
  zeltest::recording_receiver receiver;
  state st{plugins, &receiver, &db};

  void fill_small() {
    st.item_set(state_item_client, "c1", properties{{"a", make_int(1)}});
    st.item_set(state_item_job, "j1", properties{{"b", make_int(2)}});
    st.workflow_result_add("WOFL-r", workflow_result_info(2u, 3u));
  }
  // Waits for the running save: a load from no store first joins the current saver.
  void wait_for_saves() { st.set_and_update_from_state_db(nullptr); }
  // Waits (at most ten seconds) until a report with this message arrived.
  bool wait_for_report(const std::string& message) {
    for (int i = 0; i < 10000; ++i) {
      for (const std::string& m : sink.messages())
        if (m == message) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
  }
};

}  // namespace

TEST_F(StateSaver, SaveWritesRecordsInOrderThenWorkflowsResultsAndTheSequenceNumber) {
  st.item_set(state_item_job, "j2", properties());
  st.item_set(state_item_job, "j1", properties());
  st.item_set(zelcapi::state_item_task, "t1", properties());
  st.item_set(state_item_client, "c1", properties());
  st.workflow_result_add("WOFL-r", workflow_result_info(1u));
  st.add_workflow("W2", zeltest::sample_workflow(workflow_info::workflow_type_template, 1));
  st.add_workflow("W1", zeltest::sample_workflow(workflow_info::workflow_type_init, 1));
  st.get_workflow_manager().set_current_sequence_number(5);
  st.save_state_to_db(true);
  EXPECT_EQ(db.calls(),
            (strings{"begin_save", "store_item(0,c1)", "store_item(5,j1)", "store_item(5,j2)",
                     "store_item(6,t1)", "store_item(7,W1)", "store_item(7,W2)",
                     "store_workflow_results(1)", "store_workflow_sequence_number(5)"}));
  EXPECT_EQ(db.saved(), zeltest::snapshot_of(st));
}

TEST_F(StateSaver, EachSaveReportsItsStartAndItsDuration) {
  st.save_state_to_db(true);
  const auto reports = sink.reports();
  ASSERT_EQ(reports.size(), 2u);
  expect_state_report(reports[0], 8, 7);
  EXPECT_EQ(reports[0].message, starting);
  expect_state_report(reports[1], 8, 7);
  EXPECT_TRUE(is_done_report(reports[1].message)) << reports[1].message;
}

TEST(StateSaverWithoutStore, SaveDoesNothingWithoutAStateDb) {
  zeltest::capture_sink sink;
  zelcore::plugin_db plugins;
  state st{plugins, nullptr};
  st.item_set(state_item_job, "j1", properties());
  st.save_state_to_db(false);
  st.save_state_to_db(true);
  EXPECT_TRUE(sink.reports().empty());
}

TEST_F(StateSaver, SecondSaveWhileTheFirstRunsWarnsAndIsSkipped) {
  fill_small();
  db.hold_saves();
  st.save_state_to_db(false);
  db.wait_for_begun_saves(1);
  st.item_set(state_item_job, "j9", properties());
  st.save_state_to_db(false);
  const auto reports = sink.reports();
  ASSERT_EQ(reports.size(), 2u);
  EXPECT_EQ(reports[0].message, starting);
  EXPECT_EQ(reports[1].message, still_active);
  expect_state_report(reports[1], 5, 2);

  db.release();
  wait_for_saves();
  EXPECT_EQ(db.calls(), small_save);
  EXPECT_FALSE(db.saved().get_properties_value("jobs").is_present("j9"));
  EXPECT_EQ(sink.reports().size(), 3u);
}

TEST_F(StateSaver, WaitingSaveWhileOneRunsWarnsThenSavesAfterItAndReturnsWhenDone) {
  fill_small();
  db.hold_saves();
  st.save_state_to_db(false);
  db.wait_for_begun_saves(1);
  st.item_set(state_item_job, "j2", properties());
  std::atomic<bool> returned{false};
  std::thread waiter([&] {
    st.save_state_to_db(true);
    returned = true;
  });
  ASSERT_TRUE(wait_for_report(still_active));
  EXPECT_FALSE(returned);  // it waits behind the held save
  db.release();
  waiter.join();

  strings expected = small_save;
  expected.insert(expected.end(),
                  {"begin_save", "store_item(0,c1)", "store_item(5,j1)", "store_item(5,j2)",
                   "store_workflow_results(1)", "store_workflow_sequence_number(0)"});
  EXPECT_EQ(db.calls(), expected);
  EXPECT_TRUE(db.saved().get_properties_value("jobs").is_present("j2"));
  const strings messages = sink.messages();
  ASSERT_EQ(messages.size(), 5u);
  EXPECT_EQ(messages[0], starting);
  EXPECT_EQ(messages[1], still_active);
  // The old saver lets go of the lock before it reports "Done", so the new one may start first.
  EXPECT_EQ(std::count(messages.begin() + 2, messages.end(), starting), 1);
  EXPECT_EQ(std::count_if(messages.begin() + 2, messages.end(), is_done_report), 2);
}

TEST_F(StateSaver, AStartedSaveIsWaitedForInSlicesUntilItEnds) {
  fill_small();
  EXPECT_TRUE(state::wait_for_saves(std::chrono::milliseconds(0)));
  db.hold_saves();
  st.start_save();
  db.wait_for_begun_saves(1);
  // The save is held: each slice of the wait runs out, and the caller gets control back.
  EXPECT_FALSE(state::wait_for_saves(std::chrono::milliseconds(1)));
  EXPECT_FALSE(state::wait_for_saves(std::chrono::milliseconds(1)));
  db.release();
  while (!state::wait_for_saves(std::chrono::milliseconds(10))) {
  }
  EXPECT_EQ(db.calls(), small_save);
  const strings messages = sink.messages();
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_TRUE(is_done_report(messages[1]));
}

TEST_F(StateSaver, AStartedSaveWaitsForTheOneStillWritingAndIsNotSkipped) {
  fill_small();
  db.hold_saves();
  st.save_state_to_db(false);
  db.wait_for_begun_saves(1);
  st.item_set(state_item_job, "j2", properties());
  std::thread starter([this] { st.start_save(); });
  // The held save is still writing, also while the starter joins it.
  EXPECT_FALSE(state::wait_for_saves(std::chrono::milliseconds(1)));
  db.release();
  starter.join();
  while (!state::wait_for_saves(std::chrono::milliseconds(10))) {
  }
  const strings calls = db.calls();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "begin_save"), 2);
  EXPECT_TRUE(db.saved().get_properties_value("jobs").is_present("j2"));
  const strings messages = sink.messages();
  EXPECT_EQ(std::count(messages.begin(), messages.end(), still_active), 0);
}

TEST_F(StateSaver, FailingStoreIsReportedAndTheRestOfThatSaveIsNotWritten) {
  fill_small();
  db.fail_next_store_item();
  st.save_state_to_db(true);
  EXPECT_EQ(db.calls(), (strings{"begin_save", "store_item(0,c1)"}));
  const auto reports = sink.reports();
  ASSERT_EQ(reports.size(), 3u);
  EXPECT_EQ(reports[0].message, starting);
  EXPECT_EQ(reports[1].message, "Failed to update state: disk full");
  expect_state_report(reports[1], 8, 3);
  EXPECT_TRUE(is_done_report(reports[2].message)) << reports[2].message;
  // The state itself is untouched.
  EXPECT_TRUE(st.has_item(state_item_client, "c1"));
  EXPECT_TRUE(st.has_item(state_item_job, "j1"));

  db.clear_calls();
  sink.clear();
  st.save_state_to_db(true);
  EXPECT_EQ(db.calls(), small_save);
  EXPECT_EQ(db.saved(), zeltest::snapshot_of(st));
  ASSERT_EQ(sink.messages().size(), 2u);
}

TEST_F(StateSaver, LoadFromNoStoreClearsThePointerAndLoadsNothing) {
  fill_small();
  db.put_item(zelcapi::db_item_job, "j-saved", properties());
  const properties before = zeltest::snapshot_of(st);
  st.set_and_update_from_state_db(nullptr);
  EXPECT_EQ(st.get_state_db(), nullptr);
  EXPECT_TRUE(db.calls().empty());
  EXPECT_EQ(zeltest::snapshot_of(st), before);
  st.save_state_to_db(true);  // nowhere to save to any more
  EXPECT_TRUE(db.calls().empty());
  EXPECT_TRUE(sink.reports().empty());
}

TEST_F(StateSaver, LoadReplacesItemsResultsAndCounterAndDecodesWorkflowsBesideTheOthers) {
  fill_small();
  st.add_workflow("A", zeltest::sample_workflow(workflow_info::workflow_type_template, 1));
  st.add_workflow("B", zeltest::sample_workflow(workflow_info::workflow_type_template, 1));
  receiver.calls.clear();
  db.put_item(zelcapi::db_item_job, "j-saved", properties{{"s", make_int(1)}});
  db.put_item(zelcapi::db_item_workflow, "B",
              zeltest::sample_workflow(workflow_info::workflow_type_init, 1));
  db.put_item(zelcapi::db_item_workflow, "C",
              zeltest::sample_workflow(workflow_info::workflow_type_spawned, 1));
  db.put_result("WOFL-saved", workflow_result_info(6u, 8u));
  db.put_sequence_number(42);

  st.set_and_update_from_state_db(&db);
  EXPECT_EQ(st.get_state_db(), &db);
  EXPECT_EQ(db.calls(),
            (strings{"load_items(0)", "load_items(1)", "load_items(2)", "load_items(3)",
                     "load_items(4)", "load_items(5)", "load_items(6)", "load_workflow_results",
                     "load_workflow_sequence_number", "load_items(7)"}));
  EXPECT_TRUE(st.get_items(state_item_client).empty());
  ASSERT_EQ(st.get_items(state_item_job).size(), 1u);
  EXPECT_EQ(st.get_item(state_item_job, "j-saved"), (properties{{"s", make_int(1)}}));
  ASSERT_EQ(st.get_workflow_results().size(), 1u);
  EXPECT_EQ(st.get_workflow_result("WOFL-saved").ht, 8u);
  EXPECT_EQ(st.get_workflow_sequence_number(), 42u);
  ASSERT_EQ(st.get_workflows().size(), 3u);
  EXPECT_EQ(st.get_workflow_from_state("A")->get_type(), workflow_info::workflow_type_template);
  EXPECT_EQ(st.get_workflow_from_state("B")->get_type(), workflow_info::workflow_type_init);
  // Decoded directly, not added through the manager: never spawned, nothing announced.
  EXPECT_EQ(st.get_workflow_from_state("C")->get_sequence_number(), 0u);
  EXPECT_TRUE(receiver.calls.empty());
}

TEST_F(StateSaver, EveryPartGoesThroughAStateDbIntoAFreshStateAndBack) {
  zeltest::fill_every_part(st);
  const properties snapshot = zeltest::snapshot_of(st);
  st.save_state_to_db(true);
  EXPECT_EQ(db.saved(), snapshot);

  state copy{plugins, nullptr};
  copy.set_and_update_from_state_db(&db);
  EXPECT_EQ(zeltest::snapshot_of(copy), snapshot);
  db.clear_calls();
  copy.save_state_to_db(true);
  EXPECT_EQ(db.saved(), snapshot);
  EXPECT_EQ(db.calls().front(), "begin_save");
  EXPECT_EQ(db.calls().back(), "store_workflow_sequence_number(2)");
}

TEST_F(StateSaver, WorkflowChangedAfterTheSaveReturnedIsSavedAsItWas) {
  st.add_workflow("W", zeltest::sample_workflow(workflow_info::workflow_type_template, 2));
  properties before(false);
  st.get_workflow_from_state("W")->encode_workflow_info(before);
  db.hold_saves();
  st.save_state_to_db(false);
  st.get_workflow_manager().add_workflow_meta_data("W",
                                                   properties{{"note", make_string("changed")}});
  db.release();
  wait_for_saves();
  EXPECT_EQ(db.saved().get_properties_value("workflows").get_properties_value("W"), before);
  EXPECT_EQ(st.get_workflow_from_state("W")->get_workflow_meta_data().get_string_value("note"),
            "changed");
}

TEST_F(StateSaver, SaveWritesWhatTheStateHeldWhenItBeganWhileTheOwnerKeepsChanging) {
  zeltest::fill_every_part(st);
  const properties expected = zeltest::snapshot_of(st);
  db.hold_saves();
  st.save_state_to_db(false);
  db.wait_for_begun_saves(1);
  st.item_remove(zelcapi::state_item_node, "b1");
  st.workflow_result_remove("WOFL-r2");
  st.remove_workflow("I");
  db.release();
  for (int i = 0; i < 300; ++i) {  // while the saver writes
    st.item_update(state_item_client, "a1", properties{{"n", make_int(i)}});
    st.item_set(state_item_job, "f" + std::to_string(i % 7), properties{{"i", make_int(i)}});
    st.workflow_result_add("WOFL-r1", workflow_result_info(static_cast<std::uint32_t>(i)));
    st.get_workflow_manager().add_workflow_meta_data("T", properties{{"i", make_int(i)}});
  }
  wait_for_saves();
  EXPECT_EQ(db.saved(), expected);
  EXPECT_EQ(st.get_item(state_item_client, "a1").get_int_value("n"), 299);
  EXPECT_FALSE(st.has_item(zelcapi::state_item_node, "b1"));
}

TEST_F(StateSaver, RepeatedSavesWhileTheOwnerChangesEndWithTheLatestState) {
  for (int i = 0; i < 100; ++i) {
    st.item_update(state_item_job, "j" + std::to_string(i % 5), properties{{"n", make_int(i)}});
    st.workflow_result_add("WOFL-" + std::to_string(i % 3), workflow_result_info(1u));
    if (i == 0)
      st.add_workflow("T", zeltest::sample_workflow(workflow_info::workflow_type_template, 2));
    st.get_workflow_manager().add_workflow_meta_data("T", properties{{"i", make_int(i)}});
    if (i % 10 == 0) st.save_state_to_db(false);
  }
  st.save_state_to_db(true);
  EXPECT_EQ(db.saved(), zeltest::snapshot_of(st));
}

namespace {
// A state whose stores a later layer changes directly as well.
class layered_state : public state {
 public:
  using state::get_items_non_const;
  using state::state;
};
}  // namespace

TEST(StateSaverItemOrder, EachSaveHoldsTheItemsOfItsMomentHoweverTheyCameOrWent) {
  zelcore::plugin_db plugins;
  zeltest::recording_state_db db;
  layered_state st(plugins, nullptr, &db);
  const auto check_save = [&](int round) {
    db.clear_calls();
    st.save_state_to_db(true);
    ASSERT_EQ(db.saved(), zeltest::snapshot_of(st)) << "round " << round;
    // In id order, each id once.
    strings written;
    for (const std::string& call : db.calls())
      if (call.rfind("store_item(5,", 0) == 0) written.push_back(call);
    strings expected;
    for (const auto& [id, record] : st.get_items(state_item_job))
      expected.push_back("store_item(5," + id + ")");
    ASSERT_EQ(written, expected) << "round " << round;
  };
  // One gone and one come through the store itself: the count stays as it was.
  st.item_set(state_item_job, "j1", properties());
  st.item_set(state_item_job, "j2", properties());
  check_save(-2);
  st.get_items_non_const(state_item_job).erase("j1");
  st.get_items_non_const(state_item_job)["j3"] = properties();
  check_save(-1);
  // One to three changes of every kind between saves.
  std::mt19937 draw(7);
  const auto id = [&] { return "j" + std::to_string(draw() % 40); };
  for (int round = 0; round < 300; ++round) {
    for (unsigned change = draw() % 3; change < 3; ++change) {
      switch (draw() % 8) {
        case 0: st.item_set(state_item_job, id(), properties{{"r", make_int(round)}}); break;
        case 1: st.item_update(state_item_job, id(), properties{{"u", make_int(round)}}); break;
        case 2: st.item_remove(state_item_job, id()); break;
        case 3:
          st.get_items_non_const(state_item_job)[id()] = properties{{"m", make_int(round)}};
          break;
        case 4: st.get_items_non_const(state_item_job).erase(id()); break;
        case 5:
          if (round % 50 == 5) st.clear_state(state_item_job);
          break;
        default: break;  // saves of an unchanged store come as well
      }
    }
    check_save(round);
  }
}

TEST(StateSaverProcessWide, SavesOfTwoStatesRunOneAtATime) {
  zeltest::capture_sink sink;
  zelcore::plugin_db plugins;
  zeltest::recording_state_db first_db;
  zeltest::recording_state_db second_db;
  state first{plugins, nullptr, &first_db};
  state second{plugins, nullptr, &second_db};
  first_db.hold_saves();
  first.save_state_to_db(false);
  first_db.wait_for_begun_saves(1);
  second.save_state_to_db(false);
  EXPECT_EQ(sink.messages(), (strings{starting, still_active}));
  first_db.release();
  first.set_and_update_from_state_db(nullptr);
  EXPECT_TRUE(second_db.calls().empty());
  second.save_state_to_db(true);
  EXPECT_EQ(second_db.calls().front(), "begin_save");
}

TEST(StateSaverReports, SaveAskedForOnTheDoneReportFindsThePreviousSaveFinished) {
  zelcore::plugin_db plugins;
  zeltest::recording_state_db first_db;
  zeltest::recording_state_db second_db;
  state first{plugins, nullptr, &first_db};
  state second{plugins, nullptr, &second_db};
  std::mutex guard;
  strings messages;
  bool saved_on_done = false;
  // A sink that saves another state when it hears that a save is done, as an application's log
  // handler might; the owner of `first` is waiting meanwhile, so `second` has one user.
  const zelcore::report_sink previous =
      zelcore::set_report_sink([&](const zelcore::report_record& r) {
        {
          std::lock_guard<std::mutex> hold(guard);
          messages.push_back(r.message);
          if (saved_on_done || r.message.rfind(done_prefix, 0) != 0) return;
          saved_on_done = true;
        }
        second.save_state_to_db(false);
      });
  first.save_state_to_db(true);
  second.set_and_update_from_state_db(nullptr);
  zelcore::set_report_sink(previous);

  EXPECT_EQ(std::count(messages.begin(), messages.end(), still_active), 0);
  ASSERT_EQ(messages.size(), 4u);
  EXPECT_EQ(messages[0], starting);
  EXPECT_TRUE(is_done_report(messages[1])) << messages[1];
  EXPECT_EQ(messages[2], starting);
  EXPECT_TRUE(is_done_report(messages[3])) << messages[3];
  EXPECT_EQ(second_db.calls(), (strings{"begin_save", "store_workflow_results(0)",
                                        "store_workflow_sequence_number(0)"}));
}
