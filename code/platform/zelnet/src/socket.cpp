// TCP sockets on getaddrinfo(3), non-blocking from the start.
#include "zelnet/socket.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "zelbase/exceptions.h"
#include "zelbase/strings.h"

namespace zelnet {

namespace {

constexpr const char* source_file = "code\\platform\\zelnet\\src\\socket";

using addrinfo_ptr = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

// Resolves host and port for TCP; sets `error` and returns null on failure.
addrinfo_ptr resolve(const std::string& host, const std::string& port, bool passive,
                     std::string& error) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_protocol = IPPROTO_TCP;
  hints.ai_flags = passive ? AI_PASSIVE : 0;
  addrinfo* found = nullptr;
  const int rc = getaddrinfo(host.empty() ? nullptr : host.c_str(), port.c_str(), &hints, &found);
  if (rc != 0) {
    error = zelbase::string_with_format("cannot resolve '%s:%s': %s", host.c_str(), port.c_str(),
                                        gai_strerror(rc));
    return addrinfo_ptr(nullptr, freeaddrinfo);
  }
  return addrinfo_ptr(found, freeaddrinfo);
}

int open_socket(const addrinfo& a) {
  return ::socket(a.ai_family, a.ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, a.ai_protocol);
}

}  // namespace

bool socket_connector::create_connect(const std::string& host, const std::string& port, int kind) {
  error_.clear();
  if (kind != socket_kind_tcp) {
    error_ = zelbase::string_with_format("unsupported socket kind %d", kind);
    return false;
  }
  const addrinfo_ptr addresses = resolve(host, port, false, error_);
  if (!addresses) return false;
  for (const addrinfo* a = addresses.get(); a != nullptr; a = a->ai_next) {
    const int fd = open_socket(*a);
    if (fd < 0) {
      error_ = zelbase::string_with_format("cannot create a socket: %s", std::strerror(errno));
      continue;
    }
    if (::connect(fd, a->ai_addr, a->ai_addrlen) == 0 || errno == EINPROGRESS) {
      file_ = zelbase::file(fd);
      return true;
    }
    error_ = zelbase::string_with_format("cannot connect to '%s:%s': %s", host.c_str(),
                                         port.c_str(), std::strerror(errno));
    ::close(fd);
  }
  return false;
}

socket_listener::~socket_listener() { close(); }

void socket_listener::listen(const std::string& host, const std::string& port, int backlog) {
  std::string error;
  const addrinfo_ptr addresses = resolve(host, port, true, error);
  if (!addresses) zelbase::es::uspec::raise(source_file, __LINE__, error);
  const addrinfo& a = *addresses;
  const int fd = open_socket(a);
  const int on = 1;
  if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      ::bind(fd, a.ai_addr, a.ai_addrlen) != 0 || ::listen(fd, backlog) != 0) {
    const std::string reason = std::strerror(errno);
    if (fd >= 0) ::close(fd);
    zelbase::es::uspec::raise(
        source_file, __LINE__,
        zelbase::string_with_format("cannot listen on '%s:%s': %s", host.c_str(), port.c_str(),
                                    reason.c_str()));
  }
  sockaddr_storage bound{};
  socklen_t size = sizeof bound;
  getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &size);
  port_ = ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6&>(bound).sin6_port
                                            : reinterpret_cast<sockaddr_in&>(bound).sin_port);
  file_ = zelbase::file(fd);
}

zelbase::file socket_listener::accept() {
  for (;;) {
    const int fd = ::accept4(file_.descriptor(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd >= 0) return zelbase::file(fd);
    if (errno != EINTR) return zelbase::file();
  }
}

}  // namespace zelnet
