// Benchmark support: blocking loopback sockets for the raw peers that the library is measured
// against (whole writes and reads, frames read by their length, a one-client server thread, the
// raw read-and-decode loop) and the median of timing samples.
#pragma once

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "zelnet/codec.h"
#include "zelnet/socket.h"

namespace zelbench {

inline bool write_all(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
    if (n <= 0) return false;
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

inline bool read_all(int fd, char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t n = ::recv(fd, data, size, 0);
    if (n <= 0) return false;
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

// Reads one frame into `frame` (length included).
inline bool read_frame(int fd, std::string& frame) {
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
inline int raw_connect(const std::string& port) {
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

// The raw peer's receive loop: reads `fd` through a 16000-byte buffer (as the connection does),
// cuts the frames and decodes each packet, until `packets` have come or the peer closed; returns
// how many came.
inline int read_and_decode(int fd, int packets) {
  static thread_local std::vector<char> buffer(16000);
  zelnet::zelp::frame_decoder decoder;
  int count = 0;
  while (count < packets) {
    const ssize_t n = ::recv(fd, buffer.data(), buffer.size(), 0);
    if (n <= 0) break;
    decoder.feed(buffer.data(), static_cast<std::size_t>(n));
    std::string_view payload;
    while (decoder.next(payload)) {
      benchmark::DoNotOptimize(zelnet::zelp::decode_packet(payload.data(), payload.size()));
      ++count;
    }
  }
  return count;
}

inline double median(std::vector<double> samples) {
  std::nth_element(samples.begin(), samples.begin() + samples.size() / 2, samples.end());
  return samples[samples.size() / 2];
}

}  // namespace zelbench
