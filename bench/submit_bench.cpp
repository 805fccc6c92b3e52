// Submitting work to zelsim over loopback, in one run:
// - workflow submissions pipelined through the work client's asynchronous path
//   (submit_workflow_async, `window` requests in flight, each reply's callback sending the next)
//   against a raw socket client that writes the very frames the library sent (recorded once by
//   a loopback proxy before the benchmarks) with the same window, and reads and decodes
//   everything the master sends until every reply is in. Both log in the same way (the raw side
//   replays the library's hello and login frames) and both check that every item is done.
//   Target: the library at least 0.8 of the raw client's rate, judged on each side's fastest
//   repetition, the median beside it; repetitions interleaved.
// - jobs acknowledged per second for one bulk submit_jobs request of 100, 1,000 and 10,000 jobs:
//   from the send to the master's reply, which comes after the master has entered every job.
//
// `submit_bench --submit-to PORT [--workflows N] [--window W] [--user NAME:PASSWORD]` instead
// logs in to a zelsim program already running on 127.0.0.1:PORT (as demo:demo unless told),
// submits N (1,000) of the same workflows once, W (64) in flight, each task running for a day so
// that none ends during the pass, and prints the seconds from the first send to the last reply:
// the C++ peer of bench/python_submit_bench.py.
//
// Each repetition gets a fresh cluster (so that no side meets the work of the one before) whose
// runner's clock stands still (options.manual_time): submitted work is accepted, its first
// tasks and jobs become queued jobs and start on the nodes' free cores, and nothing ever ends,
// so the master's part is the request itself and the notifications it sends, not the running of
// work. The submitting link gets those notifications like any logged-in link; both sides read
// and decode them. Even so the master's handling of each request (checking and applying the
// workflow, making the first task's job, notifying) takes most of each side's time, on its own
// thread in this process: the client's own cost shows in the CPU column (the benchmark's
// thread), the ratio is judged on wall-clock time.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "loopback.h"
#include "ratio_reporter.h"
#include "zelbase/exceptions.h"
#include "zelcapi/connection.h"
#include "zelcapi/work_client.h"
#include "zelcore/plugin_db.h"
#include "zelnet/codec.h"
#include "zelnet/socket.h"
#include "zelsim/cluster.h"

namespace {

using zelbench::raw_connect;
using zelbench::write_all;
using zelcore::properties;
using zelnet::zelp::packet;
using clock_type = std::chrono::steady_clock;

constexpr int workflows_per_repetition = 1000;
constexpr int window = 64;
constexpr double target_share = 0.80;
constexpr const char* user = "bench";
constexpr const char* update_request = "cluster.api.workflow.update";

zelsim::options cluster_options() {
  zelsim::options o;
  o.log = false;
  o.users = {{user, user}};
  o.manual_time = true;
  return o;
}

// A chain of five tasks, each feeding the next one's in-node: what a pipeline submits.
properties five_task_workflow(int run_ms = 1000) {
  properties tasks;
  for (int i = 1; i <= 5; ++i) {
    properties task;
    task.set_string_value("kind", "command");
    task.set_int_value("max-attempts", 2);
    properties parameters;
    parameters.set_string_value("command", "step " + std::to_string(i));
    parameters.set_int_value("run-ms", run_ms);
    task.set_properties_value("parameters", parameters);
    properties ins;
    if (i > 1) ins.set_properties_value("in", properties());
    task.set_properties_value("in-nodes", ins);
    properties outs;
    if (i < 5) {
      zelbase::ptr_refcount<zelcore::property_list> to(new zelcore::property_list());
      to->push_back(zelcore::make_string("t" + std::to_string(i + 1) + ">in"));
      properties out;
      out["destinations"] = to;
      outs.set_properties_value("out", out);
    }
    task.set_properties_value("out-values", outs);
    tasks.set_properties_value("t" + std::to_string(i), task);
  }
  properties workflow;
  workflow.set_int_value("type", 2);
  workflow.set_properties_value("tasks", tasks);
  return workflow;
}

// A fresh cluster, and a work client over a connection logged in to its master as the bench
// user.
struct session {
  session() { sim.start(); }
  // Logs in through `port` (default: the master's own); false when the login failed.
  bool open(std::string port = "") {
    if (port.empty()) port = std::to_string(sim.port(1));
    if (c.connect("127.0.0.1", port, 5) != zelcapi::connection_ok ||
        c.login_sync(user, user, "", "", 5, false).get_properties().is_present("error"))
      return false;
    client = std::make_unique<zelcapi::work_client>(c, plugins);
    return true;
  }

  zelsim::cluster sim{cluster_options()};
  zelcore::plugin_db plugins;
  zelcapi::connection c;
  std::unique_ptr<zelcapi::work_client> client;
};

// The library's side: `count` workflows through submit_workflow_async, at most `in_flight` in
// flight; each reply's callback sends the next. Returns the seconds from the first send to the
// last reply, or a negative number with `error` set.
double submit_pipelined(zelcapi::connection& c, zelcapi::work_client& client,
                        const properties& workflow, int count, std::string& error,
                        int in_flight = window) {
  int sent = 0;
  int answered = 0;
  bool finished = false;
  std::function<void()> send_next;
  const zelcapi::work_client::write_callback done = [&](const zelcapi::write_result& r,
                                                        std::exception_ptr e) {
    ++answered;
    if (e || !r.all_ok()) {
      if (error.empty()) error = e ? "a submission failed" : "a submission was refused";
    }
    if (sent < count) send_next();
    finished = answered == count;
  };
  send_next = [&] {
    ++sent;
    client.submit_workflow_async(workflow, "", {}, done);
  };
  const auto start = clock_type::now();
  while (sent < in_flight && sent < count) send_next();
  if (!c.serve_until(finished)) error = "the link ended before every reply";
  const double seconds = std::chrono::duration<double>(clock_type::now() - start).count();
  return error.empty() ? seconds : -1;
}

// The frames a client sent, recorded by a loopback proxy between it and a node.
class recording_proxy {
 public:
  explicit recording_proxy(std::uint16_t node_port) : node_port_(node_port) {
    listener_.listen("127.0.0.1", "0");
    thread_ = std::thread([this] { pump(); });
  }
  ~recording_proxy() { stop(); }
  std::string port() const { return std::to_string(listener_.port()); }
  // Ends the proxying and returns what the client sent, cut into frames (length prefix
  // included). Call once the client has its replies, so that its bytes are all in.
  std::vector<std::string> frames() {
    stop();
    std::vector<std::string> out;
    std::size_t at = 0;
    while (at + 4 <= sent_.size()) {
      const auto* b = reinterpret_cast<const unsigned char*>(sent_.data() + at);
      const std::size_t length = (std::size_t{b[0]} << 24) | (b[1] << 16) | (b[2] << 8) | b[3];
      if (at + 4 + length > sent_.size()) break;
      out.push_back(sent_.substr(at, 4 + length));
      at += 4 + length;
    }
    return out;
  }

 private:
  void stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
  }
  void pump() {
    pollfd p{listener_.get_file().descriptor(), POLLIN, 0};
    if (::poll(&p, 1, 10000) <= 0) return;
    zelbase::file client = listener_.accept();
    if (!client.is_open()) return;
    const int node = raw_connect(std::to_string(node_port_));
    const int from = client.descriptor();
    std::vector<char> buffer(1 << 16);
    while (!stop_) {
      pollfd both[2] = {{from, POLLIN, 0}, {node, POLLIN, 0}};
      if (::poll(both, 2, 50) <= 0) continue;
      for (int side = 0; side < 2; ++side) {
        if ((both[side].revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
        const ssize_t n = ::recv(both[side].fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (n <= 0) {
          ::close(node);
          return;
        }
        const auto size = static_cast<std::size_t>(n);
        if (side == 0) sent_.append(buffer.data(), size);
        if (!write_all(side == 0 ? node : from, buffer.data(), size)) {
          ::close(node);
          return;
        }
      }
    }
    ::close(node);
  }

  std::uint16_t node_port_;
  zelnet::socket_listener listener_;
  std::atomic<bool> stop_{false};
  std::string sent_;
  std::thread thread_;
};

// What the library sent for one pipelined pass: the frames before the first write request
// (hello, login) and the write requests, exactly as they left it.
struct recorded_frames {
  std::vector<std::string> prologue;
  std::vector<std::string> requests;
};

bool is_update_request(const std::string& frame) {
  try {
    const packet p = zelnet::zelp::decode_packet(frame.data() + 4, frame.size() - 4);
    return p.get_type() == packet::type_request && p.get_name() == update_request;
  } catch (const zelbase::es::base&) {
    return false;  // the hello is no packet
  }
}

recorded_frames record_library_frames(std::string& error) {
  recorded_frames out;
  session s;
  recording_proxy proxy(s.sim.port(1));
  if (!s.open(proxy.port())) {
    error = "cannot log in through the recording proxy";
    return out;
  }
  if (submit_pipelined(s.c, *s.client, five_task_workflow(), workflows_per_repetition, error) < 0)
    return out;
  s.c.disconnect("recorded", false);
  for (std::string& frame : proxy.frames()) {
    if (is_update_request(frame)) {
      out.requests.push_back(std::move(frame));
    } else if (out.requests.empty()) {
      out.prologue.push_back(std::move(frame));
    }
  }
  if (out.requests.size() != static_cast<std::size_t>(workflows_per_repetition))
    error = "recorded " + std::to_string(out.requests.size()) + " write requests";
  return out;
}

const recorded_frames& library_frames(std::string& error) {
  static std::string record_error;
  static const recorded_frames frames = record_library_frames(record_error);
  error = record_error;
  return frames;
}

// The raw client's reading: cuts and decodes every frame the node sends; counts the replies to
// write requests (each must hold one item whose outcome is done) and the other replies.
class raw_reader {
 public:
  explicit raw_reader(int fd) : fd_(fd), buffer_(16000) {}
  // Reads once (blocking); false when the link ended or a reply is not a success.
  bool read_some() {
    const ssize_t n = ::recv(fd_, buffer_.data(), buffer_.size(), 0);
    if (n <= 0) return false;
    decoder_.feed(buffer_.data(), static_cast<std::size_t>(n));
    std::string_view payload;
    while (decoder_.next(payload)) {
      if (!hello_) {  // the node's hello comes first and is no packet
        hello_ = true;
        continue;
      }
      const packet p = zelnet::zelp::decode_packet(payload.data(), payload.size());
      if (p.get_type() != packet::type_reply) continue;
      if (p.get_name() != update_request) {
        ++other_replies;
        continue;
      }
      const auto& items = p.get_properties().get_list_value("items");
      if (items.size() != 1 || !items.front() ||
          items.front()->kind() != zelcore::property::kind_properties ||
          static_cast<const properties&>(*items.front()).get_string_value("outcome", "") != "done")
        return false;
      ++write_replies;
    }
    return true;
  }
  int write_replies = 0;
  int other_replies = 0;

 private:
  int fd_;
  std::vector<char> buffer_;
  zelnet::zelp::frame_decoder decoder_;
  bool hello_ = false;
};

void BM_workflows_library_async(benchmark::State& state) {
  std::string record_error;
  library_frames(record_error);  // recorded before either side is timed; the raw side reports it
  const properties workflow = five_task_workflow();
  std::string error;
  for (auto _ : state) {
    session s;
    if (!s.open()) {
      state.SkipWithError("cannot log in to zelsim");
      return;
    }
    const double seconds =
        submit_pipelined(s.c, *s.client, workflow, workflows_per_repetition, error);
    if (seconds < 0) {
      state.SkipWithError(error.c_str());
      return;
    }
    state.SetIterationTime(seconds);
  }
  state.SetItemsProcessed(state.iterations() * workflows_per_repetition);
}
BENCHMARK(BM_workflows_library_async)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

void BM_workflows_raw_socket(benchmark::State& state) {
  std::string error;
  const recorded_frames& frames = library_frames(error);
  if (!error.empty()) {
    state.SkipWithError(error.c_str());
    return;
  }
  for (auto _ : state) {
    zelsim::cluster sim(cluster_options());
    sim.start();
    const int fd = raw_connect(std::to_string(sim.port(1)));
    raw_reader reader(fd);
    // The hello (answered by the node's hello, which the reader takes first), then each
    // request of the login, waited for as the library waits for it.
    for (std::size_t i = 0; i < frames.prologue.size(); ++i) {
      const std::string& frame = frames.prologue[i];
      const int before = reader.other_replies;
      if (!write_all(fd, frame.data(), frame.size())) break;
      while (i > 0 && reader.other_replies == before && reader.read_some()) {
      }
    }
    if (reader.other_replies != static_cast<int>(frames.prologue.size()) - 1) {
      ::close(fd);
      state.SkipWithError("the raw login got no reply");
      return;
    }
    const auto start = clock_type::now();
    std::size_t sent = 0;
    bool ok = true;
    while (ok && reader.write_replies < workflows_per_repetition) {
      while (sent < frames.requests.size() &&
             static_cast<int>(sent) - reader.write_replies < window) {
        const std::string& frame = frames.requests[sent++];
        ok = write_all(fd, frame.data(), frame.size());
      }
      ok = ok && reader.read_some();
    }
    const double seconds = std::chrono::duration<double>(clock_type::now() - start).count();
    ::close(fd);
    if (!ok) {
      state.SkipWithError("the raw client's link ended or a submission was not done");
      return;
    }
    state.SetIterationTime(seconds);
  }
  state.SetItemsProcessed(state.iterations() * workflows_per_repetition);
}
BENCHMARK(BM_workflows_raw_socket)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// Seconds of each repetition of one bulk submission, by its number of jobs.
std::map<int, std::vector<double>> bulk_seconds;

void BM_jobs_bulk_submission(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  properties job;
  job.set_string_value("command", "render frame");
  job.set_int_value("cores", 1);
  job.set_int_value("run-ms", 60000);
  const std::vector<properties> jobs(static_cast<std::size_t>(count), job);
  for (auto _ : state) {
    session s;
    if (!s.open()) {
      state.SkipWithError("cannot log in to zelsim");
      return;
    }
    s.client->set_timeout(300);
    const auto start = clock_type::now();
    try {
      const zelcapi::write_result r = s.client->submit_jobs(jobs, "bulk");
      const double seconds = std::chrono::duration<double>(clock_type::now() - start).count();
      if (r.items.size() != jobs.size() || !r.all_ok()) {
        state.SkipWithError("a job was not entered");
        return;
      }
      state.SetIterationTime(seconds);
      bulk_seconds[count].push_back(seconds);
    } catch (const zelbase::es::base& e) {
      state.SkipWithError(e.what());
      return;
    }
  }
  state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(BM_jobs_bulk_submission)
    ->Arg(100)
    ->Arg(1000)
    ->Arg(10000)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// The --submit-to mode; returns the exit status.
int submit_to(int argc, char** argv) {
  std::string port;
  std::string account = "demo:demo";
  int count = workflows_per_repetition;
  int in_flight = window;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string flag = argv[i];
    const std::string value = argv[i + 1];
    if (flag == "--submit-to") {
      port = value;
    } else if (flag == "--user") {
      account = value;
    } else if (flag == "--workflows") {
      count = std::atoi(value.c_str());
    } else if (flag == "--window") {
      in_flight = std::atoi(value.c_str());
    } else {
      std::fprintf(stderr, "submit_bench: unknown flag %s\n", flag.c_str());
      return 2;
    }
  }
  const std::size_t colon = account.find(':');
  if (port.empty() || argc % 2 == 0 || count < 1 || in_flight < 1 || colon == std::string::npos) {
    std::fprintf(stderr,
                 "usage: submit_bench --submit-to PORT [--workflows N] [--window W] "
                 "[--user NAME:PASSWORD]\n");
    return 2;
  }
  zelcapi::connection c;
  if (c.connect("127.0.0.1", port, 5) != zelcapi::connection_ok ||
      c.login_sync(account.substr(0, colon), account.substr(colon + 1), "", "", 5, false)
          .get_properties()
          .is_present("error")) {
    std::fprintf(stderr, "submit_bench: cannot log in to 127.0.0.1:%s\n", port.c_str());
    return 1;
  }
  zelcore::plugin_db plugins;
  zelcapi::work_client client(c, plugins);
  constexpr int a_day_ms = 86400000;
  std::string error;
  const double seconds =
      submit_pipelined(c, client, five_task_workflow(a_day_ms), count, error, in_flight);
  c.disconnect("done", false);
  if (seconds < 0) {
    std::fprintf(stderr, "submit_bench: %s\n", error.c_str());
    return 1;
  }
  std::printf("%.6f\n", seconds);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::string_view(argv[1]) == "--submit-to") return submit_to(argc, argv);
  // Ten repetitions of each, interleaved at random: the master shares the machine with the
  // client, so single repetitions vary by a third on a busy machine.
  zelbench::initialize_repeated(&argc, argv, 10);
  zelbench::ratio_reporter reporter(zelbench::ratio_reporter::real_time);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  std::printf("\n");
  reporter.print_share_of_rate("workflow submissions, library async vs raw socket",
                               "BM_workflows_library_async", "BM_workflows_raw_socket",
                               target_share);
  for (const auto& [count, seconds] : bulk_seconds) {
    const double fastest = *std::min_element(seconds.begin(), seconds.end());
    std::printf("jobs acknowledged per second, one submission of %5d jobs  %9.0f  median %9.0f\n",
                count, count / fastest, count / zelbench::median(seconds));
  }
  benchmark::Shutdown();
  return 0;
}
