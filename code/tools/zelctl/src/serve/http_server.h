// The HTTP server of zelctl serve, on Boost.Beast: accepts on one address, reads one request
// at a time per connection within fixed limits, checks the token, hands GET and HEAD requests to
// the routes and turns a request for the event stream into a subscriber that the feed writes
// to. Large answers are written a piece at a time, between other work. Everything runs on the
// thread of the io_context (the replica's thread): no locks.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include "metrics.h"
#include "serve/request_target.h"

namespace zelctl::serve {

// What a request may be and how long a connection may wait.
struct limits {
  std::size_t header_bytes = 8 * 1024;  // request line and header fields together
  std::size_t header_fields = 64;
  std::size_t body_bytes = 1024;           // the server is read-only: nothing needs a body
  std::size_t connections = 256;           // open connections, event streams included
  std::chrono::milliseconds header{5000};  // a new connection: its first request's header
  std::chrono::milliseconds idle{30000};   // a kept-alive connection: its next request
  std::chrono::milliseconds write{10000};  // one write to a client that does not read
};

struct request {
  std::string method;  // "GET" or "HEAD" (answered as GET, without the body)
  request_target target;
};

// A body made a piece at a time: the server asks for the next piece once the one before it is
// written, so that a large answer never holds the thread for long and a client that reads
// slowly makes the server write slowly instead of buffering the whole answer.
class body_pieces {
 public:
  virtual ~body_pieces() = default;
  // Appends the next piece (some tens of KiB at most, beyond one record) to `out`; false when
  // the body is complete after it.
  virtual bool next(std::string& out) = 0;
};

struct response {
  unsigned status = 200;
  std::string content_type = "application/json";
  std::string body;
  // When set, the body instead (sent chunked, or until the close for an HTTP/1.0 client).
  std::shared_ptr<body_pieces> pieces;
  std::vector<std::pair<std::string, std::string>> headers;
  // Turns the connection into an event stream handed to the subscribe function.
  bool event_stream = false;
};

// What waits to be written to a connection: a text (shared by the clients that get the same)
// or a body made in pieces (one per client).
struct outgoing {
  outgoing(std::shared_ptr<const std::string> t) : text(std::move(t)) {}  // NOLINT: implicit
  outgoing(std::shared_ptr<body_pieces> p) : pieces(std::move(p)) {}      // NOLINT: implicit
  std::shared_ptr<const std::string> text;
  std::shared_ptr<body_pieces> pieces;
};

// One connection that receives an event stream. The feed owns the policy (what to send, when
// a client is too far behind), the connection the socket and the queue. While it streams, the
// connection keeps reading, so that a client that went away is noticed at once.
class event_subscriber {
 public:
  virtual ~event_subscriber() = default;
  // Queues a text or a body for writing after what is already queued.
  virtual void send(outgoing out) = 0;
  // Drops everything queued that is not being written yet and queues `out` in its place.
  virtual void replace_queue(outgoing out) = 0;
  // Bytes of the queued texts not yet written (a body in pieces counts as none).
  virtual std::size_t queued_bytes() const = 0;
  virtual bool closed() const = 0;
};

// "HOST:PORT" or "[V6HOST]:PORT" as host and port; raises failure (a usage error naming `flag`)
// for anything else.
void split_listen(const std::string& text, const std::string& flag, std::string& host,
                  std::string& port);

// The answers a server gave, by status code: every answer written, the event streams' included.
using answer_counts = std::map<unsigned, std::uint64_t>;

// The family zelcapi_http_responses_total{code}.
void write_answer_metrics(metrics_text& out, const answer_counts& answered);

using route_function = std::function<response(const request&)>;
using subscribe_function =
    std::function<void(const std::shared_ptr<event_subscriber>&, const request&)>;

class http_server {
 public:
  // Listens on host:port (port 0: a free one) at once; raises failure when it cannot. An
  // empty token lets every request in. Each answer is counted into `answered` (not owned; null:
  // not counted), which must outlive the server's connections.
  http_server(boost::asio::io_context& io, const std::string& host, const std::string& port,
              const limits& l, std::string token, route_function routes,
              subscribe_function subscribe, answer_counts* answered = nullptr);
  ~http_server();
  http_server(const http_server&) = delete;
  http_server& operator=(const http_server&) = delete;

  boost::asio::ip::tcp::endpoint local_endpoint() const;
  // Stops accepting; open connections end with their next error or time-out.
  void stop();

  class listener;

 private:
  std::shared_ptr<listener> listener_;
};

}  // namespace zelctl::serve
