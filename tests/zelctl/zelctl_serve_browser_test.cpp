// zelctl serve's pages in a real headless Chromium: the overview shows the nodes and counts
// that the API returns, the jobs table filters and sorts as the API does, a change of the
// cluster reaches the page within two seconds, a job whose name is markup is shown as text and
// runs nothing, and each page leaves a screenshot under the build tree (screenshots/).
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "json_output.h"
#include "support/devtools_client.h"
#include "support/http_peer.h"
#include "zelcapi/state.h"
#include "zelctl_test_support.h"

using namespace zelctl_test;
using namespace std::chrono_literals;

namespace {

const char* const hostile_name = "<img src=x onerror=alert(1)>";

std::string screenshot_path(const std::string& page) {
  ::mkdir(SCREENSHOT_DIR, 0755);
  return std::string(SCREENSHOT_DIR) + "/" + page + ".png";
}

// A JavaScript string literal of `text`.
std::string js(const std::string& text) { return nlohmann::json(text).dump(); }

class ZelctlServeBrowser : public ::testing::Test {
 protected:
  void SetUp() override {
    if (zeltest::chromium_program().empty()) GTEST_SKIP() << "chromium is not installed";
    sim_.start();
    std::ofstream(dir_.file("pw")) << "demo\n";
    sim_.run_workload(1500);
    ASSERT_TRUE(sim_.wait_workload_paused(10s));
    serve_ = std::make_unique<process>(
        at(sim_, dir_.file("pw"), 2) +
        std::vector<std::string>{"serve", "--listen", "127.0.0.1:0", "--batch-ms", "100"});
    ASSERT_TRUE(serve_->wait_for_output("serving", 15s)) << serve_->err();
    port_ = zeltest::loopback_port_in(serve_->out());
    ASSERT_NE(port_, 0) << serve_->out();
    browser_ = std::make_unique<zeltest::devtools_browser>(zeltest::chromium_program());
    ASSERT_TRUE(browser_->ready());
  }
  std::string url(const std::string& path) {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }
  nlohmann::json api(const std::string& target) {
    const auto a = zeltest::http_get(port_, target);
    EXPECT_EQ(a.status, 200) << target;
    return nlohmann::json::parse(a.body);
  }
  // Sets the cluster's job `id` (a new one, queued) through a notification of the master.
  void announce_job(const std::string& id, const std::string& name) {
    zelcore::properties record;
    record.set_string_value("id", id);
    record.set_string_value("name", name);
    record.set_string_value("state", "queued");
    record.set_string_value("user", "mallory");
    record.set_string_value("node", "");
    record.set_int_value("priority", 1);
    zelcore::properties fields;
    fields.set_int_value("item-type", zelcapi::state_item_job);
    fields.set_string_value("state-id", id);
    fields.set_properties_value("state", record);
    sim_.broadcast(zelnet::zelp::packet(zelnet::zelp::packet::type_notification,
                                        "cluster.api.state.set-item", fields));
  }

  temp_dir dir_;
  zelsim::cluster sim_{cluster_options()};
  std::unique_ptr<process> serve_;
  std::uint16_t port_ = 0;
  std::unique_ptr<zeltest::devtools_browser> browser_;
};

TEST_F(ZelctlServeBrowser, OverviewShowsTheNodesAndCountsOfTheApi) {
  browser_->navigate(url("/"));
  const nlohmann::json summary = api("/api/summary");
  ASSERT_TRUE(browser_->wait_for("document.querySelectorAll('#nodes tbody tr').length == " +
                                 std::to_string(summary["nodes"].size())));
  for (const auto& node : summary["nodes"]) {
    const std::string row = "document.querySelector('#nodes tr[data-node=' + JSON.stringify(" +
                            js(node["id"]) + ") + ']')";
    EXPECT_EQ(browser_->eval(row + ".cells[1].textContent"), node["state"]);
  }
  EXPECT_EQ(browser_->eval("document.querySelector('#nodes tr[data-node=\"node-1\"]').cells[2]"
                           ".textContent"),
            "master");
  EXPECT_EQ(browser_->eval("document.getElementById('master').textContent"), summary["master"]);
  const nlohmann::json shown = browser_->eval(
      "Object.fromEntries([...document.querySelectorAll('#job-counts tbody tr')]"
      ".map(r => [r.dataset.state, Number(r.cells[1].textContent)]))");
  EXPECT_EQ(shown, summary["counts"]["jobs"]);
  EXPECT_TRUE(browser_->wait_for("document.querySelectorAll('#chart svg path').length > 0"));
  EXPECT_EQ(browser_->eval("document.querySelectorAll('#legend span').length"),
            summary["counts"]["jobs"].size());
  // The page's refresh ran to its end without an error.
  EXPECT_EQ(browser_->eval("document.getElementById('status').textContent"), "live");
  EXPECT_TRUE(browser_->screenshot(screenshot_path("overview")));
}

TEST_F(ZelctlServeBrowser, JobsTableFiltersAndSortsAsTheApi) {
  browser_->navigate(url("/jobs"));
  ASSERT_TRUE(browser_->wait_for("document.querySelectorAll('#jobs tbody tr').length > 0"));
  // The state filter offers every state that the jobs hold.
  const nlohmann::json job_counts = api("/api/summary")["counts"]["jobs"];
  for (const auto& [state, n] : job_counts.items()) {
    EXPECT_TRUE(
        browser_->wait_for("[...document.querySelectorAll('#filter-state option')]"
                           ".some(o => o.value == " +
                           js(state) + ")"))
        << state;
  }
  const nlohmann::json running = api("/api/table/jobs?state=running&limit=1");
  ASSERT_GT(running["matched"].get<int>(), 0);
  browser_->eval(
      "{const s = document.getElementById('filter-state'); s.value = 'running';"
      " s.dispatchEvent(new Event('change'));}");
  ASSERT_TRUE(browser_->wait_for(
      "[...document.querySelectorAll('#jobs tbody tr')].every(r => r.cells[2].textContent == "
      "'running') && document.getElementById('range').textContent.includes(' of " +
      std::to_string(running["matched"].get<int>()) + " ')"))
      << browser_->eval("document.getElementById('range').textContent");
  // Two clicks on the priority column: descending.
  browser_->eval("document.querySelector('th[data-column=priority]').click()");
  browser_->eval("document.querySelector('th[data-column=priority]').click()");
  const nlohmann::json top =
      api("/api/table/jobs?state=running&sort=priority&order=desc&limit=100");
  std::string expected_ids;
  for (const auto& row : top["rows"]) expected_ids += row["id"].get<std::string>() + " ";
  ASSERT_TRUE(browser_->wait_for(
      "[...document.querySelectorAll('#jobs tbody tr')].map(r => r.dataset.id + ' ').join('') "
      "== " +
      js(expected_ids)))
      << browser_->eval(
             "[...document.querySelectorAll('#jobs tbody tr')].map(r => r.dataset.id).join(' ')");
  // A click on a row shows the whole record.
  const std::string first = top["rows"][0]["id"];
  browser_->eval("document.querySelector('#jobs tbody tr').click()");
  ASSERT_TRUE(browser_->wait_for("document.querySelector('#record pre') !== null"));
  EXPECT_EQ(
      nlohmann::json::parse(
          browser_->eval("document.querySelector('#record pre').textContent").get<std::string>()),
      api("/api/state/jobs/" + first));
  EXPECT_EQ(browser_->eval("document.getElementById('status').textContent"), "live");
  EXPECT_TRUE(browser_->screenshot(screenshot_path("jobs")));
}

TEST_F(ZelctlServeBrowser, AChangeAppearsWithinTwoSecondsAndMarkupStaysText) {
  browser_->navigate(url("/jobs"));
  ASSERT_TRUE(browser_->wait_for("document.querySelectorAll('#jobs tbody tr').length > 0"));
  browser_->eval(
      "{const t = document.getElementById('filter-text'); t.value = 'job-hostile';"
      " t.dispatchEvent(new Event('input'));}");
  ASSERT_TRUE(browser_->wait_for("document.querySelectorAll('#jobs tbody tr').length == 0"));
  const auto sent = std::chrono::steady_clock::now();
  announce_job("job-hostile", hostile_name);
  const auto shown = browser_->wait_for(
      "document.querySelector('#jobs tr[data-id=\"job-hostile\"]') !== null", 5s);
  ASSERT_TRUE(shown.has_value());
  const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now() - sent);
  std::printf("change shown in the jobs page after %lld ms\n",
              static_cast<long long>(took.count()));
  EXPECT_LT(took, 2000ms);
  EXPECT_EQ(browser_->eval("document.querySelector('#jobs tr[data-id=\"job-hostile\"]').cells[1]"
                           ".textContent"),
            hostile_name);
  browser_->eval("document.querySelector('#jobs tr[data-id=\"job-hostile\"]').click()");
  ASSERT_TRUE(browser_->wait_for("document.querySelector('#record pre') !== null"));
  EXPECT_NE(browser_->eval("document.querySelector('#record pre').textContent")
                .get<std::string>()
                .find(hostile_name),
            std::string::npos);
  // Shown as text: no element came of it, no dialog opened, no script ran.
  EXPECT_EQ(browser_->eval("document.querySelectorAll('img').length"), 0);
  std::this_thread::sleep_for(300ms);
  browser_->eval("1");
  EXPECT_EQ(browser_->events("Page.javascriptDialogOpening"), 0u);
  EXPECT_EQ(browser_->eval("document.getElementById('status').textContent"), "live");
  EXPECT_TRUE(browser_->screenshot(screenshot_path("jobs-hostile-name")));
}

TEST_F(ZelctlServeBrowser, WorkflowsAndHistoryPagesDrawTheReplica) {
  sim_.run_workload(1500);
  ASSERT_TRUE(sim_.wait_workload_paused(10s));
  // The replica has caught up with the master.
  const auto until = std::chrono::steady_clock::now() + 10s;
  while (api("/api/state") != zelctl::to_json(sim_.master_snapshot())) {
    ASSERT_LT(std::chrono::steady_clock::now(), until);
    std::this_thread::sleep_for(50ms);
  }
  const nlohmann::json workflows = api("/api/state/workflows");
  ASSERT_FALSE(workflows.empty());
  browser_->navigate(url("/workflows"));
  ASSERT_TRUE(browser_->wait_for("document.querySelectorAll('#workflows tbody tr').length == " +
                                 std::to_string(workflows.size())));
  // A click on a workflow draws its tasks, coloured by status.
  const std::string chosen = workflows.begin().key();
  browser_->eval("document.querySelector('#workflows tr[data-id=' + JSON.stringify(" + js(chosen) +
                 ") + ']').click()");
  ASSERT_TRUE(
      browser_->wait_for("document.getElementById('workflow-title').textContent == " + js(chosen)));
  EXPECT_EQ(browser_->eval("document.querySelectorAll('#workflow-graph g[data-task]').length"),
            workflows[chosen]["tasks"].size());
  for (const auto& [task, info] : workflows[chosen]["tasks"].items()) {
    const char* names[] = {"waiting", "runnable", "running", "finished", "failed", "killed"};
    EXPECT_EQ(browser_->eval("document.querySelector('#workflow-graph g[data-task=' + "
                             "JSON.stringify(" +
                             js(task) + ") + ']').dataset.status"),
              names[info["status"].get<int>()]);
  }
  EXPECT_EQ(browser_->eval("document.getElementById('status').textContent"), "live");
  EXPECT_TRUE(browser_->screenshot(screenshot_path("workflows")));
  const nlohmann::json history = api("/api/history/jobs");
  ASSERT_FALSE(history.empty());
  browser_->navigate(url("/history"));
  ASSERT_TRUE(browser_->wait_for("document.querySelectorAll('#history tbody tr').length == " +
                                 std::to_string(std::min<std::size_t>(500, history.size()))));
  EXPECT_EQ(browser_->eval("document.getElementById('status').textContent"), "live");
  EXPECT_TRUE(browser_->screenshot(screenshot_path("history")));
}

}  // namespace
