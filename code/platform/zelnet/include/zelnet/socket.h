// TCP sockets: the connector that opens a client socket and the listener of a server.
#pragma once

#include <cstdint>
#include <string>

#include "zelbase/file.h"
#include "zelnet/export.h"

namespace zelnet {

// The socket kind of create_connect: the IP protocol number of TCP.
constexpr int socket_kind_tcp = 6;

class ZELNET_EXPORT socket_connector {
 public:
  socket_connector() = default;

  // Resolves `host` and `port` (a number or a service name) and starts a non-blocking connect
  // to the first address that takes one; the connect completes, or fails, inside the
  // controller's wait(). False when nothing could be resolved or connected, with the reason in
  // last_error(). `kind` must be socket_kind_tcp. The caller owns (and closes) the file.
  bool create_connect(const std::string& host, const std::string& port, int kind);
  zelbase::file& get_file() noexcept { return file_; }
  const std::string& last_error() const noexcept { return error_; }

 private:
  zelbase::file file_;
  std::string error_;
};

class ZELNET_EXPORT socket_listener {
 public:
  socket_listener() = default;
  ~socket_listener();
  socket_listener(const socket_listener&) = delete;
  socket_listener& operator=(const socket_listener&) = delete;

  // Binds a non-blocking listening socket to `host`:`port` ("0" picks a free port); raises
  // es::uspec naming the address and the reason on failure.
  void listen(const std::string& host, const std::string& port, int backlog = 64);
  // Accepts one pending connection as a non-blocking socket; a closed file when none is
  // pending.
  zelbase::file accept();
  // Stops listening.
  void close() noexcept { file_.close(); }
  zelbase::file& get_file() noexcept { return file_; }
  // The port bound by listen().
  std::uint16_t port() const noexcept { return port_; }

 private:
  zelbase::file file_;
  std::uint16_t port_ = 0;
};

}  // namespace zelnet
