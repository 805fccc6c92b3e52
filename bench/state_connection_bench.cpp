// The state connection applying a stream of "cluster.api.state.update-item" notifications inside
// run(), against a raw read-and-decode loop of the same byte stream over loopback. A writer
// thread streams 1,000,000 notifications for 100,000 jobs each time the reader asks; the program
// prints the state connection's share of the raw rate, its notifications per second and the
// resident memory per job of the replica; the same passes inside a Boost.Asio io_context through
// the adapter are judged against run() (at least 90% of its rate). Each side's verdict is its
// fastest pass; a pass after the first of a connection updates jobs that its replica already holds.
// The stream visits the jobs in id order; with --scattered-ids it visits them in no order that
// memory could follow, as a cluster may send them (a run of its own: a replica filled in one order
// leaves the heap laid out for it, which would disturb passes of the other order in the same
// process).
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <functional>
#include <memory>

#include "loopback.h"
#include "ratio_reporter.h"
#include "zelcapi/asio_attachment.h"
#include "zelcapi/state_connection.h"
#include "zelnet/codec.h"

namespace {

using zelbench::median;
using zelbench::raw_connect;
using zelbench::raw_server;
using zelbench::read_and_decode;
using zelbench::read_frame;
using zelbench::write_all;
using zelnet::zelp::packet;
using clock_type = std::chrono::steady_clock;

constexpr int stream_notifications = 1000000;
constexpr int stream_jobs = 100000;
constexpr double target_share = 0.70;
constexpr double target_asio_share = 0.90;

// Set by --scattered-ids: the i-th notification updates job i * 7919 mod the job count (a stride
// coprime with it, so every job once per round) instead of job i mod the job count.
bool scattered_ids = false;

packet update_item(int i) {
  const int job = scattered_ids ? static_cast<int>(static_cast<long long>(i) * 7919 % stream_jobs)
                                : i % stream_jobs;
  zelcore::properties state;
  state.set_int_value("status", i % 7);
  state.set_int_value("progress", i % 101);
  state.set_string_value("host", "node-" + std::to_string(job % 64));
  zelcore::properties fields;
  fields.set_int_value("item-type", zelcapi::state_item_job);
  fields.set_string_value("state-id", "JOB-" + std::to_string(1000000 + job));
  fields.set_properties_value("state", state);
  return packet(packet::type_notification, "cluster.api.state.update-item", fields);
}

const std::string& notification_stream() {
  static const std::string stream = [] {
    std::string s;
    for (int i = 0; i < stream_notifications; ++i)
      s += zelnet::zelp::encode_packet_frame(update_item(i));
    return s;
  }();
  return stream;
}

// The writer: answers the client's hello, then writes the whole stream each time the client
// sends a frame. `failed` is set when a write fails.
void write_streams(int fd, volatile bool& failed) {
  std::string frame;
  if (!read_frame(fd, frame)) return;
  const std::string hello = zelnet::zelp::encode_hello_frame(zelnet::zelp::protocol_version);
  if (!write_all(fd, hello.data(), hello.size())) return;
  const std::string& stream = notification_stream();
  while (read_frame(fd, frame)) {
    if (!write_all(fd, stream.data(), stream.size())) {
      failed = true;
      return;
    }
  }
}

// Counts the applied updates and stops run() after the last one of a stream.
class counting_handler : public zelcapi::state_handler {
 public:
  bool state_item_updated(zelcapi::state_item_type, const std::string&,
                          const zelcore::properties&) override {
    if (++count == stream_notifications) end();
    return true;
  }
  void disconnected(const std::string&, bool) override { end(); }
  int count = 0;
  volatile bool stop = false;
  std::function<void()> on_stop;  // tells an event loop, which has no stop flag to read

 private:
  void end() {
    stop = true;
    if (on_stop) on_stop();
  }
};

long resident_bytes() {
  std::ifstream statm("/proc/self/statm");
  long pages = 0, resident = 0;
  statm >> pages >> resident;
  return resident * ::sysconf(_SC_PAGESIZE);
}

// Wall-clock seconds of each pass, per side, for the ratio printed at the end.
std::vector<double> state_connection_seconds;
std::vector<double> raw_seconds;
std::vector<double> asio_seconds;
double replica_bytes_per_job = 0;

double fastest(const std::vector<double>& samples) {
  return *std::min_element(samples.begin(), samples.end());
}

double seconds_since(clock_type::time_point start) {
  return std::chrono::duration<double>(clock_type::now() - start).count();
}

// Connects a state connection to a writer and measures passes of the stream, each driven by
// `drive(c, h)` until the handler's stop; `seconds` gets each pass's wall-clock time.
template <class Drive>
void measure_passes(benchmark::State& state, std::vector<double>& seconds, Drive drive) {
  notification_stream();
  volatile bool write_failed = false;
  raw_server writer([&write_failed](int fd) { write_streams(fd, write_failed); });
  counting_handler h;
  zelcore::plugin_db plugins;
  const long before = resident_bytes();
  zelcapi::state_connection c(&h, 0, &plugins);
  if (c.connect("127.0.0.1", writer.port(), 5) != zelcapi::connection_ok) {
    state.SkipWithError("cannot connect to the writer");
    return;
  }
  const packet go(packet::type_request, "go");
  for (auto _ : state) {
    h.count = 0;
    h.stop = false;
    const auto start = clock_type::now();
    c.send_no_wait(go);
    drive(c, h);
    seconds.push_back(seconds_since(start));
    if (h.count != stream_notifications || write_failed) {
      state.SkipWithError("the stream did not arrive whole");
      break;
    }
  }
  const std::size_t jobs = c.get_state()->get_items(zelcapi::state_item_job).size();
  if (jobs != stream_jobs) state.SkipWithError("the replica does not hold every job");
  // The largest of the repetitions: a later one reuses the memory that an earlier one freed.
  replica_bytes_per_job =
      std::max(replica_bytes_per_job, static_cast<double>(resident_bytes() - before) / stream_jobs);
  state.SetItemsProcessed(state.iterations() * stream_notifications);
  c.disconnect("done", false);
}

void BM_state_connection_run(benchmark::State& state) {
  measure_passes(state, state_connection_seconds,
                 [](zelcapi::state_connection& c, counting_handler& h) { c.run(h.stop); });
}
BENCHMARK(BM_state_connection_run)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same passes inside a Boost.Asio io_context, through the adapter: the loop watches the
// socket and the deadline, and the connection steps in its handlers.
void BM_state_connection_asio(benchmark::State& state) {
  boost::asio::io_context io;
  std::unique_ptr<zelcapi::asio_attachment> attached;
  measure_passes(state, asio_seconds, [&](zelcapi::state_connection& c, counting_handler& h) {
    if (!attached) attached = std::make_unique<zelcapi::asio_attachment>(io, c);
    h.on_stop = [&io] { io.stop(); };
    io.restart();
    io.run();
  });
}
BENCHMARK(BM_state_connection_asio)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_raw_read_and_decode(benchmark::State& state) {
  volatile bool write_failed = false;
  raw_server writer([&write_failed](int fd) { write_streams(fd, write_failed); });
  const int fd = raw_connect(writer.port());
  const std::string hello = zelnet::zelp::encode_hello_frame(zelnet::zelp::protocol_version);
  std::string answer;
  if (!write_all(fd, hello.data(), hello.size()) || !read_frame(fd, answer)) {
    state.SkipWithError("no hello from the writer");
    ::close(fd);
    return;
  }
  const std::string go = zelnet::zelp::encode_packet_frame(packet(packet::type_request, "go"));
  for (auto _ : state) {
    const auto start = clock_type::now();
    if (!write_all(fd, go.data(), go.size())) break;
    const int count = read_and_decode(fd, stream_notifications);
    raw_seconds.push_back(seconds_since(start));
    if (count != stream_notifications || write_failed) {
      state.SkipWithError("the stream did not arrive whole");
      break;
    }
  }
  ::close(fd);
  state.SetItemsProcessed(state.iterations() * stream_notifications);
}
BENCHMARK(BM_raw_read_and_decode)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (std::string(argv[i]) == "--help")
      std::printf(
          "state_connection_bench [--scattered-ids] [benchmark flags]\n"
          "  --scattered-ids  update the jobs in scattered id order instead of id order\n");
    if (std::string(argv[i]) != "--scattered-ids") continue;
    scattered_ids = true;
    std::copy(argv + i + 1, argv + argc + 1, argv + i);
    --argc;
    break;
  }
  // Three repetitions of three passes each, the two sides interleaved at random.
  zelbench::initialize_repeated(&argc, argv, 3);
  benchmark::RunSpecifiedBenchmarks();
  if (state_connection_seconds.empty() || raw_seconds.empty()) {
    std::printf("the two sides did not both run: no ratio\n");
    benchmark::Shutdown();
    return 1;
  }
  // Judged on each side's fastest pass, the one that the machine's other work disturbed least;
  // the medians beside it.
  const double ours = stream_notifications / fastest(state_connection_seconds);
  const double raw = stream_notifications / fastest(raw_seconds);
  const double share = ours / raw;
  const double median_share = median(raw_seconds) / median(state_connection_seconds);
  std::printf("\n%-52s %5.2f  (target >= %.2f)  %s  median %.2f\n",
              "state_connection run vs raw read-and-decode", share, target_share,
              share >= target_share ? "met" : "NOT MET", median_share);
  std::printf(
      "state_connection: %.0f notifications/s, raw: %.0f notifications/s (fastest passes)\n", ours,
      raw);
  if (!asio_seconds.empty()) {
    const double asio = stream_notifications / fastest(asio_seconds);
    const double asio_share = asio / ours;
    std::printf("%-52s %5.2f  (target >= %.2f)  %s  median %.2f\n",
                "state_connection in an Asio io_context vs run", asio_share, target_asio_share,
                asio_share >= target_asio_share ? "met" : "NOT MET",
                median(state_connection_seconds) / median(asio_seconds));
    std::printf("state_connection in Asio: %.0f notifications/s (fastest pass)\n", asio);
  }
  std::printf("replica: %.0f resident bytes per job (%d jobs, %s)\n", replica_bytes_per_job,
              stream_jobs, scattered_ids ? "updated in scattered id order" : "updated in id order");
  benchmark::Shutdown();
  return 0;
}
