// Test support: a peer on a raw loopback socket that writes and reads bytes exactly as a test
// says, for tests of links and of hostile servers.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include <functional>
#include <string>
#include <thread>

#include "zelnet/socket.h"

namespace zeltest {

// Accepts one connection on a free port and runs `body` with its blocking descriptor on a
// thread of its own; the destructor waits for the body.
class raw_peer {
 public:
  explicit raw_peer(std::function<void(int)> body) {
    listener_.listen("127.0.0.1", "0");
    thread_ = std::thread([this, body] {
      pollfd p{listener_.get_file().descriptor(), POLLIN, 0};
      ::poll(&p, 1, 5000);
      zelbase::file f = listener_.accept();
      if (!f.is_open()) return;
      fcntl(f.descriptor(), F_SETFL, 0);
      body(f.descriptor());
      f.close();
    });
  }
  ~raw_peer() { thread_.join(); }
  raw_peer(const raw_peer&) = delete;
  raw_peer& operator=(const raw_peer&) = delete;
  std::string port() const { return std::to_string(listener_.port()); }

 private:
  zelnet::socket_listener listener_;
  std::thread thread_;
};

inline void write_all(int fd, const std::string& bytes) {
  std::size_t at = 0;
  while (at < bytes.size()) {
    const ssize_t n = ::send(fd, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
    if (n <= 0) return;
    at += static_cast<std::size_t>(n);
  }
}

// Up to `size` bytes: fewer only when the peer closed first.
inline std::string read_exactly(int fd, std::size_t size) {
  std::string bytes(size, '\0');
  std::size_t at = 0;
  while (at < size) {
    const ssize_t n = ::recv(fd, &bytes[at], size - at, 0);
    if (n <= 0) break;
    at += static_cast<std::size_t>(n);
  }
  bytes.resize(at);
  return bytes;
}

}  // namespace zeltest
