// One connection of zelctl serve's HTTP server (private to the server): reads requests within
// the limits, answers them through a write queue (texts, and bodies made in pieces), and becomes
// an event stream on request. Each connection owns itself: every pending operation holds a
// shared pointer to it, and it ends when the last one completes. Runs on the io_context's thread.
#pragma once

#include <cstddef>
#include <deque>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include "serve/http_server.h"

namespace zelctl::serve {

class connection;

// What the listener and its connections share.
struct server_context {
  limits lim;
  std::string token;
  route_function routes;
  subscribe_function subscribe;
  answer_counts* answered = nullptr;
  std::size_t held = 0;  // slots held by open connections
  // The connections waiting for (the header of) a request, the longest waiting first: when every
  // slot is held, the first of them gives its slot to a new connection.
  std::list<std::weak_ptr<connection>> waiting;
};

class connection final : public event_subscriber, public std::enable_shared_from_this<connection> {
 public:
  // Takes a slot.
  connection(boost::asio::ip::tcp::socket socket, std::shared_ptr<server_context> context);
  ~connection() override;

  // Reads the first request.
  void start();
  // Answers 503 and closes: no slot is free.
  void refuse();
  // Closes at once: its slot goes to a new connection.
  void evict() { close(); }

  // event_subscriber
  void send(outgoing out) override;
  void replace_queue(outgoing out) override;
  std::size_t queued_bytes() const override { return queued_bytes_; }
  bool closed() const override { return closed_; }

 private:
  using parser = boost::beast::http::request_parser<boost::beast::http::string_body>;
  // What follows once the queue is written.
  enum class then { nothing, read, close };

  const limits& lim() const { return context_->lim; }
  void read();
  void on_header(boost::beast::error_code ec);
  void on_request(boost::beast::error_code ec);
  void answer(const boost::beast::http::request<boost::beast::http::string_body>& req);
  bool authorized(const boost::beast::http::request<boost::beast::http::string_body>& req,
                  const std::string& via_query) const;
  // Queues the answer; `head`: its header alone (a HEAD request). Then reads the next request
  // (keep-alive) or closes.
  void write(const response& r, bool keep_alive, bool head, unsigned version = 11);
  void count_answer(unsigned status);
  void start_stream(const response& r, const request& in);
  // Reads while the stream writes: what a client sends is dropped, its end closes the stream.
  void read_stream();
  void write_next();
  void written(boost::beast::error_code ec, bool entry_done);
  void wait_for_request(bool waiting);
  void close();

  boost::beast::tcp_stream stream_;
  std::shared_ptr<server_context> context_;
  boost::beast::flat_buffer buffer_;
  std::optional<parser> parser_;
  bool first_request_ = true;
  std::optional<std::list<std::weak_ptr<connection>>::iterator> waiting_;
  // The write queue: texts and bodies in pieces; the front one is being written.
  struct entry {
    outgoing out;
    bool chunked = false;  // each piece of the body framed as an HTTP chunk
  };
  std::deque<entry> queue_;
  std::string piece_;  // the piece of the front body being written
  std::size_t queued_bytes_ = 0;
  then then_ = then::nothing;
  bool writing_ = false;
  bool closed_ = false;
  char discard_[512];  // what a stream's client sends
};

}  // namespace zelctl::serve
