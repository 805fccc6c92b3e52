// The connection against raw sockets over loopback, side by side in one run:
// - send_sync round trips to a zelsim echo node vs. a raw ping-pong of the same frame bytes;
// - packets received through run() into a counting handler vs. a raw read-and-decode loop of
//   the same byte stream.
// Each benchmark reports its median round trip (median_ns) or its packet rate (items/s, on
// wall-clock time).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <vector>

#include "zelcapi/connection.h"
#include "zelnet/codec.h"
#include "zelnet/socket.h"
#include "zelsim/cluster.h"

namespace {

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

bool write_all(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
    if (n <= 0) return false;
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

bool read_all(int fd, char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t n = ::recv(fd, data, size, 0);
    if (n <= 0) return false;
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

// Reads one frame into `frame` (length included).
bool read_frame(int fd, std::string& frame) {
  frame.resize(4);
  if (!read_all(fd, &frame[0], 4)) return false;
  const auto* b = reinterpret_cast<const unsigned char*>(frame.data());
  const std::size_t length = (std::size_t{b[0]} << 24) | (b[1] << 16) | (b[2] << 8) | b[3];
  frame.resize(4 + length);
  return read_all(fd, &frame[4], length);
}

// A blocking TCP server on a free loopback port that serves one client with `body`.
class raw_server {
 public:
  explicit raw_server(std::function<void(int)> body) {
    listener_.listen("127.0.0.1", "0");
    thread_ = std::thread([this, body] {
      pollfd p{listener_.get_file().descriptor(), POLLIN, 0};
      ::poll(&p, 1, 10000);
      zelbase::file f = listener_.accept();
      if (!f.is_open()) return;
      fcntl(f.descriptor(), F_SETFL, 0);
      const int on = 1;
      setsockopt(f.descriptor(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      body(f.descriptor());
      f.close();
    });
  }
  ~raw_server() { thread_.join(); }
  std::string port() const { return std::to_string(listener_.port()); }

 private:
  zelnet::socket_listener listener_;
  std::thread thread_;
};

// A blocking raw client socket.
int raw_connect(const std::string& port) {
  zelnet::socket_connector connector;
  connector.create_connect("127.0.0.1", port, zelnet::socket_kind_tcp);
  const int fd = connector.get_file().descriptor();
  pollfd p{fd, POLLOUT, 0};
  ::poll(&p, 1, 5000);
  fcntl(fd, F_SETFL, 0);
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return fd;
}

void set_median(benchmark::State& state, std::vector<double>& samples) {
  if (samples.empty()) return;
  std::nth_element(samples.begin(), samples.begin() + samples.size() / 2, samples.end());
  state.counters["median_ns"] = samples[samples.size() / 2];
}

double nanoseconds_since(clock_type::time_point start) {
  return std::chrono::duration<double, std::nano>(clock_type::now() - start).count();
}

void BM_send_sync_echo_zelsim(benchmark::State& state) {
  zelsim::options o;
  o.nodes = 1;
  o.log = false;
  zelsim::cluster sim(o);
  sim.start();
  zelcapi::connection c;
  if (c.connect("127.0.0.1", std::to_string(sim.port(1)), 5) != zelcapi::connection_ok) {
    state.SkipWithError("cannot connect to zelsim");
    return;
  }
  const packet request = echo_request();
  std::vector<double> samples;
  for (auto _ : state) {
    const auto start = clock_type::now();
    benchmark::DoNotOptimize(&c.send_sync(request, 5));
    samples.push_back(nanoseconds_since(start));
  }
  set_median(state, samples);
}
BENCHMARK(BM_send_sync_echo_zelsim)->Iterations(20000);

void BM_send_sync_echo_raw(benchmark::State& state) {
  const std::string frame = zelnet::zelp::encode_packet_frame(echo_request());
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
    write_all(fd, frame.data(), frame.size());
    read_frame(fd, reply);
    samples.push_back(nanoseconds_since(start));
  }
  ::close(fd);
  set_median(state, samples);
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
    c.send_no_wait(go);
    c.run(h.stop);
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
  std::vector<char> buffer(16000);
  for (auto _ : state) {
    write_all(fd, go.data(), go.size());
    zelnet::zelp::frame_decoder decoder;
    int count = 0;
    while (count < stream_packets) {
      const ssize_t n = ::recv(fd, buffer.data(), buffer.size(), 0);
      if (n <= 0) break;
      decoder.feed(buffer.data(), static_cast<std::size_t>(n));
      std::string_view payload;
      while (decoder.next(payload)) {
        benchmark::DoNotOptimize(zelnet::zelp::decode_packet(payload.data(), payload.size()));
        ++count;
      }
    }
  }
  ::close(fd);
  state.SetItemsProcessed(state.iterations() * stream_packets);
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(stream.size()));
}
BENCHMARK(BM_receive_raw_decode)->Iterations(50)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
