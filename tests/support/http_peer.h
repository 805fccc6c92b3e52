// Test support: an HTTP client on a plain loopback socket that sends exactly the bytes a test
// gives (well-formed or not) and reads answers and Server-Sent Events with time limits.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>

namespace zeltest {

struct http_answer {
  int status = 0;                              // 0: no complete answer
  std::map<std::string, std::string> headers;  // names in lower case
  std::string body;
  std::size_t chunks = 0;  // the chunks of a chunked body
};

struct sse_event {
  std::string name;  // empty: none arrived in time
  std::string data;
};

class http_peer {
 public:
  // Connects to 127.0.0.1:port; `receive_buffer` > 0 shrinks the socket's receive buffer (a
  // slow reader's kernel then holds little).
  explicit http_peer(std::uint16_t port, int receive_buffer = 0) {
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    if (receive_buffer > 0) {
      ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
    }
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_port = htons(port);
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&at), sizeof at) == 0;
  }
  ~http_peer() { ::close(fd_); }
  http_peer(const http_peer&) = delete;
  http_peer& operator=(const http_peer&) = delete;

  bool connected() const { return connected_; }

  bool send(const std::string& bytes) {
    std::size_t at = 0;
    while (at < bytes.size()) {
      const ssize_t n = ::send(fd_, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
      if (n <= 0) return false;
      at += static_cast<std::size_t>(n);
    }
    return true;
  }

  // Reads what arrives within `limit` into the buffer; false when the peer closed (and nothing
  // more is buffered by the kernel).
  bool read_some(std::chrono::milliseconds limit) {
    pollfd p{fd_, POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(limit.count())) <= 0) return true;
    char chunk[65536];
    const ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
    if (n <= 0) {
      closed_ = true;
      return false;
    }
    buffer_.append(chunk, static_cast<std::size_t>(n));
    return true;
  }
  bool closed() const { return closed_; }

  // Reads until what arrived holds `text` (kept for the reads after); false at the limit.
  bool wait_for(const std::string& text, std::chrono::milliseconds limit) {
    const auto until = std::chrono::steady_clock::now() + limit;
    while (buffer_.find(text) == std::string::npos) {
      if (closed_ || std::chrono::steady_clock::now() > until) return false;
      read_some(std::chrono::milliseconds(50));
    }
    return true;
  }

  // Reads until the peer closes or `limit` passes; whether it closed.
  bool wait_closed(std::chrono::milliseconds limit) {
    const auto until = std::chrono::steady_clock::now() + limit;
    while (!closed_ && std::chrono::steady_clock::now() < until) {
      read_some(std::chrono::milliseconds(50));
    }
    return closed_;
  }

  // One answer (status line, headers, a body of Content-Length bytes; none after a HEAD, whose
  // Content-Length is the GET's).
  http_answer read_answer(std::chrono::milliseconds limit = std::chrono::seconds(10),
                          bool head_only = false) {
    const auto until = std::chrono::steady_clock::now() + limit;
    http_answer a;
    std::size_t head_end;
    while ((head_end = buffer_.find("\r\n\r\n")) == std::string::npos) {
      if (closed_ || std::chrono::steady_clock::now() > until) return a;
      read_some(std::chrono::milliseconds(50));
    }
    const std::string head = buffer_.substr(0, head_end);
    std::size_t line_end = head.find("\r\n");
    const std::string status_line = head.substr(0, line_end);
    if (status_line.size() < 12) return a;
    std::size_t length = 0;
    while (line_end != std::string::npos) {
      const std::size_t next = head.find("\r\n", line_end + 2);
      const std::string line = head.substr(
          line_end + 2, next == std::string::npos ? std::string::npos : next - line_end - 2);
      const std::size_t colon = line.find(':');
      if (colon != std::string::npos) {
        std::string name = line.substr(0, colon);
        for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        std::string value = line.substr(colon + 1);
        while (!value.empty() && value.front() == ' ') value.erase(0, 1);
        if (name == "content-length" && !head_only) length = std::stoul(value);
        a.headers[name] = value;
      }
      line_end = next;
    }
    const auto header = [&a](const std::string& name) {
      const auto it = a.headers.find(name);
      return it == a.headers.end() ? std::string() : it->second;
    };
    std::size_t at = head_end + 4;
    if (!head_only && header("transfer-encoding") == "chunked") {
      // Chunks up to the empty one: each a hex size line, the bytes and a line end.
      for (;;) {
        std::size_t line_end_at;
        while ((line_end_at = buffer_.find("\r\n", at)) == std::string::npos) {
          if (closed_ || std::chrono::steady_clock::now() > until) return a;
          read_some(std::chrono::milliseconds(50));
        }
        const std::size_t size = std::stoul(buffer_.substr(at, line_end_at - at), nullptr, 16);
        while (buffer_.size() < line_end_at + 2 + size + 2) {
          if (closed_ || std::chrono::steady_clock::now() > until) return a;
          read_some(std::chrono::milliseconds(50));
        }
        a.body.append(buffer_, line_end_at + 2, size);
        at = line_end_at + 2 + size + 2;
        if (size == 0) break;
        ++a.chunks;
      }
    } else if (!head_only && a.headers.count("content-length") == 0 &&
               header("connection") == "close") {
      // No length: the body ends with the connection.
      while (!closed_ && std::chrono::steady_clock::now() < until) {
        read_some(std::chrono::milliseconds(50));
      }
      if (!closed_) return a;
      a.body = buffer_.substr(at);
      at = buffer_.size();
    } else {
      while (buffer_.size() < at + length) {
        if (closed_ || std::chrono::steady_clock::now() > until) return a;
        read_some(std::chrono::milliseconds(50));
      }
      a.body = buffer_.substr(at, length);
      at += length;
    }
    a.status = std::stoi(status_line.substr(9, 3));
    buffer_.erase(0, at);
    return a;
  }

  // The header of an event stream, then its events one by one.
  http_answer open_stream(const std::string& target, const std::string& extra_headers = "") {
    send("GET " + target + " HTTP/1.1\r\nHost: t\r\n" + extra_headers + "\r\n");
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    http_answer a;
    std::size_t head_end;
    while ((head_end = buffer_.find("\r\n\r\n")) == std::string::npos) {
      if (closed_ || std::chrono::steady_clock::now() > until) return a;
      read_some(std::chrono::milliseconds(50));
    }
    a.status = std::stoi(buffer_.substr(9, 3));
    buffer_.erase(0, head_end + 4);
    return a;
  }

  // The next event (comments skipped); an empty name when none came within `limit`.
  sse_event next_event(std::chrono::milliseconds limit) {
    const auto until = std::chrono::steady_clock::now() + limit;
    for (;;) {
      std::size_t end;
      while ((end = buffer_.find("\n\n")) == std::string::npos) {
        const auto now = std::chrono::steady_clock::now();
        if (closed_ || now >= until) return {};
        read_some(std::chrono::duration_cast<std::chrono::milliseconds>(until - now));
      }
      const std::string block = buffer_.substr(0, end);
      buffer_.erase(0, end + 2);
      sse_event e;
      std::size_t at = 0;
      while (at <= block.size()) {
        std::size_t nl = block.find('\n', at);
        if (nl == std::string::npos) nl = block.size();
        const std::string line = block.substr(at, nl - at);
        if (line.rfind("event: ", 0) == 0) e.name = line.substr(7);
        if (line.rfind("data: ", 0) == 0) e.data += line.substr(6);
        at = nl + 1;
      }
      if (!e.name.empty()) return e;
    }
  }

 private:
  int fd_ = -1;
  bool connected_ = false;
  bool closed_ = false;
  std::string buffer_;
};

// The port of the first "http://HOST:PORT/" in `text` (a server listening on any address
// answers on loopback too); 0 when there is none.
inline std::uint16_t loopback_port_in(const std::string& text) {
  const std::size_t at = text.find("http://");
  if (at == std::string::npos) return 0;
  const std::size_t slash = text.find('/', at + 7);
  const std::size_t colon = text.rfind(':', slash);
  if (slash == std::string::npos || colon == std::string::npos || colon < at + 7) return 0;
  return static_cast<std::uint16_t>(std::strtoul(text.c_str() + colon + 1, nullptr, 10));
}

// One GET on a connection of its own.
inline http_answer http_get(std::uint16_t port, const std::string& target,
                            const std::string& extra_headers = "") {
  http_peer peer(port);
  peer.send("GET " + target + " HTTP/1.1\r\nHost: t\r\nConnection: close\r\n" + extra_headers +
            "\r\n");
  return peer.read_answer();
}

}  // namespace zeltest
