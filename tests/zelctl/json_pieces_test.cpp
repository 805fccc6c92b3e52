// zelctl serve's answers in pieces: the pieces of a plan, put together, are byte for byte the
// JSON that zelctl state prints, each piece ends soon after its size bound, and a plan keeps the
// records of the instant it was made while the replica changes.
#include <gtest/gtest.h>

#include <algorithm>

#include "json_output.h"
#include "serve/json_pieces.h"
#include "simulated_replica.h"

using namespace zelctl::serve;
using zelctl::json_text;

namespace {

class JsonPieces : public zelctl_test::simulated_replica {
 protected:
  // The whole text of a writer, and the size of each piece.
  static std::string written(json_pieces& writer, std::vector<std::size_t>& sizes) {
    std::string text;
    for (bool more = true; more;) {
      std::string piece;
      more = writer.next(piece);
      sizes.push_back(piece.size());
      text += piece;
    }
    return text;
  }
};

TEST_F(JsonPieces, TheStateInPiecesIsWhatZelctlStatePrints) {
  auto plan = std::make_shared<json_plan>();
  plan->add_state(replica_);
  const std::size_t bound = 4096;
  json_pieces writer(plan, bound);
  std::vector<std::size_t> sizes;
  const std::string text = written(writer, sizes);
  EXPECT_TRUE(zelctl_test::same_text(text, document_text(false)));
  // Each piece goes past the bound by one record at most.
  std::size_t longest_record = 0;
  for (const auto& [id, record] : replica_.get_items(zelcapi::state_item_job)) {
    longest_record = std::max(longest_record, json_text(zelctl::to_json(record), false).size());
  }
  ASSERT_GT(sizes.size(), 10u);
  for (std::size_t i = 0; i + 1 < sizes.size(); ++i) {
    EXPECT_GE(sizes[i], bound) << "piece " << i;
  }
  const std::size_t largest = *std::max_element(sizes.begin(), sizes.end());
  zelcore::properties workflows;
  replica_.get_workflows(workflows);
  for (const auto& [id, workflow] : workflows) {
    longest_record = std::max(longest_record, json_text(zelctl::to_json(workflow), false).size());
  }
  EXPECT_LE(largest, bound + longest_record + 64);
}

TEST_F(JsonPieces, APlanKeepsTheRecordsOfItsInstant) {
  auto plan = std::make_shared<json_plan>();
  plan->add_state(replica_);
  const std::string before = document_text(false);
  // The replica changes after the plan was made: a record removed, one replaced, one merged.
  const auto& jobs = replica_.get_items(zelcapi::state_item_job);
  ASSERT_GE(jobs.size(), 3u);
  auto it = jobs.begin();
  const std::string removed = it->first;
  const std::string replaced = (++it)->first;
  const std::string merged = (++it)->first;
  replica_.item_remove(zelcapi::state_item_job, removed);
  zelcore::properties fresh;
  fresh.set_string_value("state", "replaced");
  replica_.item_set(zelcapi::state_item_job, replaced, fresh);
  zelcore::properties update;
  update.set_string_value("state", "merged");
  replica_.item_update(zelcapi::state_item_job, merged, update);
  replica_.item_set(zelcapi::state_item_node, "node-new", fresh);
  ASSERT_NE(document_text(false), before);
  // Two writers of the one plan, one started before the changes' end and one after.
  json_pieces first(plan, 1024);
  std::string from_first;
  first.next(from_first);
  replica_.item_remove(zelcapi::state_item_job, merged);
  json_pieces second(plan, 1024);
  for (bool more = true; more;) more = first.next(from_first);
  EXPECT_TRUE(zelctl_test::same_text(from_first, before));
  std::vector<std::size_t> sizes;
  EXPECT_TRUE(zelctl_test::same_text(written(second, sizes), before));
}

TEST(JsonPiecesOfRecords, SelectedRecordsAndEmptyObjects) {
  zelcore::plugin_db plugins;
  zelcapi::state replica(plugins, nullptr);
  for (const char* id : {"job-1", "job-2", "job-3"}) {
    zelcore::properties record;
    record.set_string_value("state", std::string(id) == "job-2" ? "running" : "queued");
    record.set_string_value("name", "<\"quoted\">");
    replica.item_set(zelcapi::state_item_job, id, record);
  }
  auto plan = std::make_shared<json_plan>();
  plan->add_records(freeze(
      replica.get_items(zelcapi::state_item_job),
      [](const zelcore::properties& r) { return r.get_string_value("state", "") == "queued"; }));
  plan->add_text(" and ");
  plan->add_records(freeze(replica.get_items(zelcapi::state_item_node)));
  json_pieces writer(plan, 1);
  std::string text;
  while (writer.next(text)) {
  }
  EXPECT_EQ(text,
            "{\"job-1\":{\"name\":\"<\\\"quoted\\\">\",\"state\":\"queued\"},"
            "\"job-3\":{\"name\":\"<\\\"quoted\\\">\",\"state\":\"queued\"}} and {}");
}

}  // namespace
