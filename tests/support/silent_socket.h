// Test support: a Unix socket that takes connections and never answers them, where a server
// would listen: a hung server as its clients see it. It counts the connections it took.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace zeltest {

class silent_socket {
 public:
  // Listens at `path` (a stale socket file there is removed first); raises std::runtime_error
  // when it cannot.
  explicit silent_socket(const std::string& path) : path_(path) {
    ::unlink(path.c_str());
    listener_ = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (listener_ < 0 || path.size() >= sizeof address.sun_path ||
        ::bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_, 64) != 0 || ::pipe(stop_) != 0)
      throw std::runtime_error("cannot listen at " + path + ": " + std::strerror(errno));
    acceptor_ = std::thread([this] { _accept(); });
  }
  // Closes every connection it took and the socket, and removes the file.
  ~silent_socket() {
    const ssize_t woken = ::write(stop_[1], "x", 1);  // a pipe of one byte: it fits
    (void)woken;
    acceptor_.join();
    for (const int fd : taken_) ::close(fd);
    ::close(listener_);
    ::close(stop_[0]);
    ::close(stop_[1]);
    ::unlink(path_.c_str());
  }
  silent_socket(const silent_socket&) = delete;
  silent_socket& operator=(const silent_socket&) = delete;

  std::size_t connections() const noexcept { return count_.load(); }
  // Waits until it took `n` connections; false when `limit` passed first.
  bool wait_for_connections(std::size_t n, std::chrono::milliseconds limit) const {
    const auto until = std::chrono::steady_clock::now() + limit;
    while (connections() < n) {
      if (std::chrono::steady_clock::now() > until) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
  }

 private:
  void _accept() {
    for (;;) {
      pollfd watched[2] = {{listener_, POLLIN, 0}, {stop_[0], POLLIN, 0}};
      if (::poll(watched, 2, -1) < 0 && errno != EINTR) return;
      if (watched[1].revents) return;
      if (!(watched[0].revents & POLLIN)) continue;
      const int fd = ::accept(listener_, nullptr, nullptr);
      if (fd < 0) continue;
      taken_.push_back(fd);  // held open, never read or written
      ++count_;
    }
  }

  std::string path_;
  int listener_ = -1;
  int stop_[2] = {-1, -1};
  std::vector<int> taken_;  // the acceptor's own until it is joined
  std::atomic<std::size_t> count_{0};
  std::thread acceptor_;
};

}  // namespace zeltest
