// A replica holding the state of a simulated cluster after 1500 changes of its workload: jobs,
// tasks, nodes, workflows and workflow results, the same on every run (the workload's seed).
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "json_output.h"
#include "zelcapi/state.h"
#include "zelsim/cluster.h"

namespace zelctl_test {

// Equal texts; else where they first differ, with a little of each around it (a whole
// snapshot is too long to print).
inline ::testing::AssertionResult same_text(const std::string& got, const std::string& expected) {
  if (got == expected) return ::testing::AssertionSuccess();
  std::size_t at = 0;
  while (at < got.size() && at < expected.size() && got[at] == expected[at]) ++at;
  const std::size_t from = at < 40 ? 0 : at - 40;
  return ::testing::AssertionFailure()
         << "sizes " << got.size() << " and " << expected.size() << ", first difference at " << at
         << ": got ..." << got.substr(from, 80) << "... expected ..." << expected.substr(from, 80)
         << "...";
}

class simulated_replica : public ::testing::Test {
 protected:
  void SetUp() override {
    zelsim::options o;
    o.log = false;
    o.rate = 0;
    zelsim::cluster sim(o);
    sim.start();
    sim.run_workload(1500);
    ASSERT_TRUE(sim.wait_workload_paused(std::chrono::seconds(10)));
    replica_.set_state(sim.master_snapshot());
    ASSERT_FALSE(replica_.get_workflows().empty());
    ASSERT_FALSE(replica_.get_workflow_results().empty());
  }

  // The replica's whole snapshot converted to a JSON document and printed: what zelctl wrote
  // before it wrote straight from the trees.
  std::string document_text(bool pretty) const {
    zelcore::properties snapshot;
    replica_.get_state(snapshot);
    return zelctl::json_text(zelctl::to_json(snapshot), pretty);
  }

  zelcore::plugin_db plugins_;
  zelcapi::state replica_{plugins_, nullptr};
};

}  // namespace zelctl_test
