// The HTTP server of zelctl serve, on Boost.Beast: accepts on one address, reads one request
// at a time per connection within fixed limits, checks the token, hands GET requests to the
// routes and turns a request for the event stream into a subscriber that the feed writes to.
// Everything runs on the thread of the io_context (the replica's thread): no locks.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include "serve/request_target.h"

namespace zelctl::serve {

// What a request may be and how long a connection may wait.
struct limits {
  std::size_t header_bytes = 8 * 1024;  // request line and header fields together
  std::size_t header_fields = 64;
  std::size_t body_bytes = 1024;           // the server is read-only: nothing needs a body
  std::size_t connections = 256;           // open connections, event streams included
  std::chrono::milliseconds idle{30000};   // waiting for (the rest of) a request
  std::chrono::milliseconds write{10000};  // one write to a client that does not read
};

struct request {
  std::string method;
  request_target target;
};

struct response {
  unsigned status = 200;
  std::string content_type = "application/json";
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers;
  // Turns the connection into an event stream handed to the subscribe function.
  bool event_stream = false;
};

// One connection that receives an event stream. The feed owns the policy (what to send, when
// a client is too far behind), the connection the socket and the queue.
class event_subscriber {
 public:
  virtual ~event_subscriber() = default;
  // Queues a text for writing after what is already queued.
  virtual void send(std::shared_ptr<const std::string> text) = 0;
  // Drops every queued text that is not being written yet and queues `text` in their place.
  virtual void replace_queue(std::shared_ptr<const std::string> text) = 0;
  // Bytes queued and not yet written.
  virtual std::size_t queued_bytes() const = 0;
  virtual bool closed() const = 0;
};

using route_function = std::function<response(const request&)>;
using subscribe_function =
    std::function<void(const std::shared_ptr<event_subscriber>&, const request&)>;

class http_server {
 public:
  // Listens on host:port (port 0: a free one) at once; raises failure when it cannot. An
  // empty token lets every request in.
  http_server(boost::asio::io_context& io, const std::string& host, const std::string& port,
              const limits& l, std::string token, route_function routes,
              subscribe_function subscribe);
  ~http_server();
  http_server(const http_server&) = delete;
  http_server& operator=(const http_server&) = delete;

  boost::asio::ip::tcp::endpoint local_endpoint() const;
  // Stops accepting; open connections end with their next error or time-out.
  void stop();

  struct shared;  // what the connections share with the server

 private:
  void accept();

  boost::asio::ip::tcp::acceptor acceptor_;
  std::shared_ptr<shared> shared_;
};

}  // namespace zelctl::serve
