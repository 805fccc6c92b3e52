// The connection against raw sockets over loopback, side by side in one run:
// - send_sync round trips to a zelsim echo node vs. a raw ping-pong of the same frame bytes;
// - packets received through run() into a counting handler vs. a raw read-and-decode loop of
//   the same byte stream.
// Each benchmark reports its median round trip (median_ns) or its packet rate (items/s, on
// wall-clock time); the program then prints each pair's ratio against its target. A reply or
// streamed packet that does not arrive ends the benchmark with an error.
#include <benchmark/benchmark.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>

#include "loopback.h"
#include "zelbase/exceptions.h"
#include "zelcapi/connection.h"
#include "zelnet/codec.h"
#include "zelsim/cluster.h"

namespace {

using zelbench::median;
using zelbench::raw_connect;
using zelbench::raw_server;
using zelbench::read_and_decode;
using zelbench::read_frame;
using zelbench::write_all;
using zelnet::zelp::packet;
using clock_type = std::chrono::steady_clock;

constexpr int stream_packets = 20000;

packet echo_request() {
  packet p(2, "echo");
  p.get_properties().set_string_value("job", "JOB-0123456789");
  p.get_properties().set_int_value("priority", 50);
  p.get_properties().set_bool_value("urgent", false);
  return p;
}

packet notification(int i) {
  packet p(3, "cluster.api.state.update");
  p.get_properties().set_string_value("id", "TASK-" + std::to_string(i));
  p.get_properties().set_int_value("status", i % 7);
  p.get_properties().set_string_value("host", "node-2");
  return p;
}

// The figures of each side, for the ratios printed at the end: median round trips in
// nanoseconds, and wall-clock seconds per pass of the stream.
double echo_zelsim_median_ns = 0;
double echo_raw_median_ns = 0;
std::vector<double> receive_run_seconds;
std::vector<double> receive_raw_seconds;

void set_median(benchmark::State& state, const std::vector<double>& samples, double& out) {
  if (samples.empty()) return;
  out = median(samples);
  state.counters["median_ns"] = out;
}

// A reply is whole when it is the echo of the request: a reply or request named "echo" with the
// request's properties.
bool is_echo(const packet& reply, const packet& request) {
  return reply.get_name() == request.get_name() &&
         reply.get_properties().get_string_value("job", "") ==
             request.get_properties().get_string_value("job");
}

double nanoseconds_since(clock_type::time_point start) {
  return std::chrono::duration<double, std::nano>(clock_type::now() - start).count();
}

void BM_send_sync_echo_zelsim(benchmark::State& state) {
  zelsim::options o;
  o.nodes = 1;
  o.log = false;
  o.users = {{"bench", "bench"}};
  zelsim::cluster sim(o);
  sim.start();
  zelcapi::connection c;
  if (c.connect("127.0.0.1", std::to_string(sim.port(1)), 5) != zelcapi::connection_ok) {
    state.SkipWithError("cannot connect to zelsim");
    return;
  }
  // The master serves requests only to a link that logged in.
  if (c.login_sync("bench", "bench", "", "", 5, false).get_properties().is_present("error")) {
    state.SkipWithError("cannot log in to zelsim");
    return;
  }
  const packet request = echo_request();
  std::vector<double> samples;
  for (auto _ : state) {
    const auto start = clock_type::now();
    try {
      const packet& reply = c.send_sync(request, 5);
      samples.push_back(nanoseconds_since(start));
      if (reply.get_type() != packet::type_reply || !is_echo(reply, request)) {
        state.SkipWithError("a reply that is not the echo of the request");
        break;
      }
    } catch (const zelbase::es::base& e) {
      state.SkipWithError(e.what());
      break;
    }
  }
  set_median(state, samples, echo_zelsim_median_ns);
}
BENCHMARK(BM_send_sync_echo_zelsim)->Iterations(20000);

void BM_send_sync_echo_raw(benchmark::State& state) {
  const packet request = echo_request();
  const std::string frame = zelnet::zelp::encode_packet_frame(request);
  raw_server server([](int fd) {
    std::string in;
    while (read_frame(fd, in) && write_all(fd, in.data(), in.size())) {
    }
  });
  const int fd = raw_connect(server.port());
  std::string reply;
  std::vector<double> samples;
  for (auto _ : state) {
    const auto start = clock_type::now();
    if (!write_all(fd, frame.data(), frame.size()) || !read_frame(fd, reply)) {
      state.SkipWithError("the raw echo failed");
      break;
    }
    // Decoded as the library decodes a reply, so that both sides do the same work.
    const packet decoded = zelnet::zelp::decode_packet(reply.data() + 4, reply.size() - 4);
    samples.push_back(nanoseconds_since(start));
    if (!is_echo(decoded, request)) {
      state.SkipWithError("a reply that is not the echo of the request");
      break;
    }
  }
  ::close(fd);
  set_median(state, samples, echo_raw_median_ns);
}
BENCHMARK(BM_send_sync_echo_raw)->Iterations(20000);

// The stream both receive benchmarks read: `stream_packets` notifications, written by a raw
// server after the hello each time the client asks with one frame.
std::string notification_stream() {
  std::string stream;
  for (int i = 0; i < stream_packets; ++i)
    stream += zelnet::zelp::encode_packet_frame(notification(i));
  return stream;
}

void serve_streams(int fd, const std::string& stream) {
  std::string frame;
  if (!read_frame(fd, frame)) return;
  const std::string hello = zelnet::zelp::encode_hello_frame(zelnet::zelp::protocol_version);
  write_all(fd, hello.data(), hello.size());
  while (read_frame(fd, frame) && write_all(fd, stream.data(), stream.size())) {
  }
}

class counting_handler : public zelcapi::handler {
 public:
  bool handle(const packet&, packet&) override {
    stop = ++count == stream_packets;
    return true;
  }
  // A lost link ends the pass; the count then tells that the stream did not arrive whole.
  void disconnected(const std::string&, bool) override { stop = true; }
  int count = 0;
  volatile bool stop = false;
};

void BM_receive_run(benchmark::State& state) {
  const std::string stream = notification_stream();
  raw_server server([&stream](int fd) { serve_streams(fd, stream); });
  counting_handler h;
  zelcapi::connection c(&h);
  if (c.connect("127.0.0.1", server.port(), 5) != zelcapi::connection_ok) {
    state.SkipWithError("cannot connect to the raw server");
    return;
  }
  const packet go(2, "go");
  for (auto _ : state) {
    h.count = 0;
    h.stop = false;
    const auto start = clock_type::now();
    c.send_no_wait(go);
    c.run(h.stop);
    receive_run_seconds.push_back(nanoseconds_since(start) / 1e9);
    if (h.count != stream_packets) {
      state.SkipWithError("the stream did not arrive whole");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * stream_packets);
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(stream.size()));
  c.disconnect("done", false);
}
BENCHMARK(BM_receive_run)->Iterations(50)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_receive_raw_decode(benchmark::State& state) {
  const std::string stream = notification_stream();
  raw_server server([&stream](int fd) { serve_streams(fd, stream); });
  const int fd = raw_connect(server.port());
  const std::string hello = zelnet::zelp::encode_hello_frame(zelnet::zelp::protocol_version);
  write_all(fd, hello.data(), hello.size());
  std::string answer;
  read_frame(fd, answer);
  const std::string go = zelnet::zelp::encode_packet_frame(packet(2, "go"));
  for (auto _ : state) {
    const auto start = clock_type::now();
    if (!write_all(fd, go.data(), go.size())) {
      state.SkipWithError("cannot ask for the stream");
      break;
    }
    const int count = read_and_decode(fd, stream_packets);
    receive_raw_seconds.push_back(nanoseconds_since(start) / 1e9);
    if (count != stream_packets) {
      state.SkipWithError("the stream did not arrive whole");
      break;
    }
  }
  ::close(fd);
  state.SetItemsProcessed(state.iterations() * stream_packets);
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(stream.size()));
}
BENCHMARK(BM_receive_raw_decode)->Iterations(50)->Unit(benchmark::kMillisecond)->UseRealTime();

// One line per pair: "<what> vs <peer>  <ratio>  (target ...)  met|NOT MET".
void print_target(const char* what, double ratio, const char* relation, double target, bool met) {
  std::printf("%-52s %5.2f  (target %s %.2f)  %s\n", what, ratio, relation, target,
              met ? "met" : "NOT MET");
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  std::printf("\n");
  bool complete = true;
  // A round trip through the library and zelsim takes at most 1.3 times the raw echo's.
  constexpr double round_trip_target = 1.3;
  if (echo_zelsim_median_ns > 0 && echo_raw_median_ns > 0) {
    const double ratio = echo_zelsim_median_ns / echo_raw_median_ns;
    print_target("send_sync round trip vs raw echo", ratio, "<=", round_trip_target,
                 ratio <= round_trip_target);
  } else {
    complete = false;
  }
  // run() receives at least 60% of the raw read-and-decode rate.
  constexpr double receive_target = 0.60;
  if (!receive_run_seconds.empty() && !receive_raw_seconds.empty()) {
    const double share = median(receive_raw_seconds) / median(receive_run_seconds);
    print_target("run() receive rate vs raw read-and-decode", share, ">=", receive_target,
                 share >= receive_target);
  } else {
    complete = false;
  }
  if (!complete) std::printf("a pair did not run whole: no ratio for it\n");
  benchmark::Shutdown();
  return complete ? 0 : 1;
}
