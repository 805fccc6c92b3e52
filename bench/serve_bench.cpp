// zelctl serve under load, a plain program (not in the test run): a simulated cluster of 100,000
// jobs changing 5,000 times a second, the replica's apply rate with 100 event-stream clients
// (test clients that check that each receives every batch in order) against the rate with none
// (target at least 80%); then in headless Chromium the jobs page's first rows (target under
// 1.5 s) and the answer to a filter (target under 200 ms). One line per target:
// "<what> vs <peer>  <ratio>  (target ...)  met" or "NOT MET".
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/child_process.h"
#include "support/devtools_client.h"
#include "support/http_peer.h"
#include "zelsim/cluster.h"

namespace {

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

constexpr std::size_t jobs = 100000;
constexpr std::uint32_t rate = 5000;
constexpr std::size_t stream_clients = 100;
constexpr auto measure_for = 10s;

void verdict(const std::string& what, const std::string& peer, double ratio, bool higher_is_better,
             double target) {
  const bool met = higher_is_better ? ratio >= target : ratio <= target;
  std::printf("%s vs %s  %.2f  (target %s %.2f)  %s\n", what.c_str(), peer.c_str(), ratio,
              higher_is_better ? ">=" : "<=", target, met ? "met" : "NOT MET");
  std::fflush(stdout);
}

nlohmann::json get(std::uint16_t port, const std::string& target) {
  const auto a = zeltest::http_get(port, target);
  return a.status == 200 ? nlohmann::json::parse(a.body) : nlohmann::json();
}

std::uint64_t applied(std::uint16_t port) { return get(port, "/api/summary")["changes"]; }

// Stream clients read on a thread of their own; each checks that its batches follow one another.
struct stream_readers {
  std::vector<std::unique_ptr<zeltest::http_peer>> peers;
  std::vector<std::uint64_t> last_seq;
  std::vector<std::uint64_t> batches;
  std::uint64_t gaps = 0;
  std::uint64_t snapshots = 0;
  std::atomic<bool> stop{false};
  std::thread thread;

  stream_readers(std::uint16_t port, std::size_t n) : last_seq(n, 0), batches(n, 0) {
    for (std::size_t i = 0; i < n; ++i) {
      peers.push_back(std::make_unique<zeltest::http_peer>(port));
      peers.back()->open_stream("/api/events?snapshot=none");
    }
    thread = std::thread([this] {
      while (!stop) {
        for (std::size_t i = 0; i < peers.size(); ++i) {
          peers[i]->read_some(0ms);
          for (;;) {
            const auto e = peers[i]->next_event(0ms);
            if (e.name.empty()) break;
            // The reader must keep up with 100 streams: it reads the sequence number alone.
            const std::size_t at = e.data.rfind("\"seq\":");
            const std::uint64_t seq = std::strtoull(e.data.c_str() + at + 6, nullptr, 10);
            if (e.name == "batch") {
              if (last_seq[i] != 0 && seq != last_seq[i] + 1) ++gaps;
              ++batches[i];
            } else if (last_seq[i] != 0) {
              ++snapshots;  // the server judged this client too slow
            }
            last_seq[i] = seq;
          }
        }
        std::this_thread::sleep_for(5ms);
      }
    });
  }
  ~stream_readers() {
    stop = true;
    thread.join();
  }
};

// The changes per second that the replica applied, and that the cluster sent.
double measure_rate(std::uint16_t port, zelsim::cluster& sim) {
  const std::uint64_t before = applied(port);
  const std::uint64_t sent_before = sim.notifications_sent();
  const auto start = clock_type::now();
  std::this_thread::sleep_for(measure_for);
  const std::uint64_t after = applied(port);
  const double seconds = std::chrono::duration<double>(clock_type::now() - start).count();
  std::printf("  the cluster sent %.0f notifications/s to its clients\n",
              static_cast<double>(sim.notifications_sent() - sent_before) / seconds);
  return static_cast<double>(after - before) / seconds;
}

}  // namespace

int main() {
  zelsim::options o;
  o.users = {{"demo", "demo"}};
  o.log = false;
  o.rate = rate;
  o.jobs = jobs;
  o.warm_up = WARM_UP;
  std::printf("starting a cluster of up to %zu jobs (%d warm-up changes)...\n", jobs, WARM_UP);
  std::fflush(stdout);
  zelsim::cluster sim(o);
  sim.start();
  zeltest::temp_dir dir;
  std::ofstream(dir.file("pw")) << "demo\n";
  zeltest::child_process serve(
      ZELCTL_PROGRAM,
      {"--host", "127.0.0.1", "--port", std::to_string(sim.port(2)), "--user", "demo",
       "--password-file", dir.file("pw"), "--timeout", "60", "serve", "--listen", "127.0.0.1:0"});
  if (!serve.wait_for_output("serving", 300s)) {
    std::fprintf(stderr, "zelctl serve did not start: %s\n", serve.err().c_str());
    return 1;
  }
  const std::uint16_t port = zeltest::loopback_port_in(serve.out());
  std::printf("replica holds %s jobs\n",
              get(port, "/api/summary")["totals"]["jobs"].dump().c_str());
  sim.run_workload();
  std::this_thread::sleep_for(2s);
  const double alone = measure_rate(port, sim);
  std::printf("apply rate, no stream client: %.0f changes/s\n", alone);
  double with_clients = 0;
  {
    stream_readers readers(port, stream_clients);
    std::this_thread::sleep_for(2s);
    with_clients = measure_rate(port, sim);
    std::uint64_t fewest = ~0ULL;
    std::uint64_t most = 0;
    for (auto b : readers.batches) {
      fewest = std::min(fewest, b);
      most = std::max(most, b);
    }
    std::printf(
        "apply rate, %zu stream clients: %.0f changes/s; batches per client %llu to %llu, "
        "%llu gaps and %llu catch-up snapshots in all: %s\n",
        stream_clients, with_clients, static_cast<unsigned long long>(fewest),
        static_cast<unsigned long long>(most), static_cast<unsigned long long>(readers.gaps),
        static_cast<unsigned long long>(readers.snapshots),
        readers.gaps == 0 && readers.snapshots == 0 && fewest > 0
            ? "each client received every batch"
            : "NOT every client received every batch");
  }
  verdict("apply rate with 100 stream clients", "none", with_clients / alone, true, 0.80);

  if (zeltest::chromium_program().empty()) {
    std::printf("chromium is not installed: no page figures\n");
    return 0;
  }
  zeltest::devtools_browser browser(zeltest::chromium_program());
  const std::string base = "http://127.0.0.1:" + std::to_string(port);
  browser.navigate(base + "/jobs");
  browser.wait_for("window.zelFirstRows !== undefined", 30s);
  const double first_rows = browser.eval("window.zelFirstRows").get<double>();
  std::printf("jobs page: first rows at %.0f ms after navigation start\n", first_rows);
  verdict("jobs page first rows (" + std::to_string(static_cast<int>(first_rows)) + " ms)",
          "1500 ms", first_rows / 1500.0, false, 1.0);
  // Eight filters in turn; the median judges, the slowest is shown beside it.
  std::vector<double> answers;
  for (const char* state :
       {"running", "queued", "", "finished", "running", "queued", "", "failed"}) {
    browser.eval("window.zelJobsTiming = undefined");
    browser.eval(std::string("{const s = document.getElementById('filter-state'); s.value = '") +
                 state + "'; s.dispatchEvent(new Event('change'));}");
    browser.wait_for("window.zelJobsTiming !== undefined", 30s);
    const double ms = browser.eval("window.zelJobsTiming.ms").get<double>();
    std::printf("filter state='%s': answered and drawn in %.0f ms\n", state, ms);
    answers.push_back(ms);
  }
  std::sort(answers.begin(), answers.end());
  const double median = (answers[3] + answers[4]) / 2;
  std::printf("filter answers: median %.0f ms, slowest %.0f ms\n", median, answers.back());
  verdict("jobs page filter, median of 8 (" + std::to_string(static_cast<int>(median)) + " ms)",
          "200 ms", median / 200.0, false, 1.0);
  return 0;
}
