// The connections of zelctl serve: request reading within the limits, the token check, the
// answers, and the write queue of an event stream.
#include "serve/http_server.h"

#include <algorithm>
#include <deque>
#include <optional>

#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include "options.h"

namespace zelctl::serve {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;

struct http_server::shared {
  limits lim;
  std::string token;
  route_function routes;
  subscribe_function subscribe;
  std::size_t open = 0;  // connections alive
};

namespace {

const char* const cookie_name = "zelctl-token";

// The pages load nothing from elsewhere and run no inline script: a cluster string that ever
// reached the page as markup still could not run.
const char* const content_policy =
    "default-src 'self'; script-src 'self'; style-src 'self'; img-src 'self' data:; "
    "connect-src 'self'; frame-ancestors 'none'; base-uri 'none'; form-action 'none'";

// Equal texts, in a time that does not depend on where they differ.
bool same_secret(const std::string& a, const std::string& b) {
  unsigned char diff = a.size() == b.size() ? 0 : 1;
  for (std::size_t i = 0; i < a.size(); ++i) {
    diff |= static_cast<unsigned char>(a[i] ^ (i < b.size() ? b[i] : 0));
  }
  return diff == 0;
}

response error_response(unsigned status, const std::string& message) {
  response r;
  r.status = status;
  r.body = "{\"error\":\"" + message + "\"}";
  return r;
}

// The answer to a request that could not be read.
response read_error_response(const beast::error_code& ec) {
  if (ec == http::error::header_limit || ec == http::error::buffer_overflow) {
    return error_response(431, "request header too large");
  }
  if (ec == http::error::body_limit) return error_response(413, "request body too large");
  return error_response(400, "malformed request");
}

class connection final : public event_subscriber, public std::enable_shared_from_this<connection> {
 public:
  connection(tcp::socket socket, std::shared_ptr<http_server::shared> shared)
      : stream_(std::move(socket)),
        shared_(std::move(shared)),
        buffer_(shared_->lim.header_bytes + shared_->lim.body_bytes) {
    ++shared_->open;
  }
  ~connection() override { --shared_->open; }

  void start(bool over_limit) {
    if (over_limit) {
      write(error_response(503, "too many connections"), false);
      return;
    }
    read();
  }

  // event_subscriber
  void send(std::shared_ptr<const std::string> text) override {
    if (closed_) return;
    queued_bytes_ += text->size();
    queue_.push_back(std::move(text));
    if (!writing_) write_next();
  }
  void replace_queue(std::shared_ptr<const std::string> text) override {
    if (closed_) return;
    // The text being written stays: it must end whole.
    const std::size_t keep = writing_ ? 1 : 0;
    while (queue_.size() > keep) {
      queued_bytes_ -= queue_.back()->size();
      queue_.pop_back();
    }
    send(std::move(text));
  }
  std::size_t queued_bytes() const override { return queued_bytes_; }
  bool closed() const override { return closed_; }

 private:
  const limits& lim() const { return shared_->lim; }

  void read() {
    parser_.emplace();
    parser_->header_limit(static_cast<std::uint32_t>(lim().header_bytes));
    parser_->body_limit(lim().body_bytes);
    stream_.expires_after(lim().idle);
    http::async_read(
        stream_, buffer_, *parser_,
        [self = shared_from_this()](beast::error_code ec, std::size_t) { self->on_read(ec); });
  }

  void on_read(beast::error_code ec) {
    if (ec == http::error::end_of_stream || ec == beast::error::timeout ||
        ec == asio::error::operation_aborted || ec == asio::error::connection_reset ||
        ec == asio::error::eof) {
      close();
      return;
    }
    if (ec) {
      write(read_error_response(ec), false);
      return;
    }
    const auto& req = parser_->get();
    const bool keep_alive = req.keep_alive();
    const std::size_t fields = static_cast<std::size_t>(std::distance(req.begin(), req.end()));
    if (fields > lim().header_fields) {
      write(error_response(431, "too many header fields"), false);
      return;
    }
    if (req.method() != http::verb::get) {
      response r = error_response(405, "read-only: only GET is served");
      r.headers.emplace_back("Allow", "GET");
      write(r, false);
      return;
    }
    const auto target = parse_target(std::string(req.target()));
    if (!target) {
      write(error_response(400, "malformed request target"), false);
      return;
    }
    request in{"GET", *target};
    const std::string via_query = target->param("token");
    if (!authorized(req, via_query)) {
      response r = error_response(401, "a valid token is needed");
      r.headers.emplace_back("WWW-Authenticate", "Bearer");
      write(r, keep_alive);
      return;
    }
    response r;
    try {
      r = shared_->routes(in);
    } catch (const std::exception&) {
      // A route that raises answers this request only: the server and the replica go on.
      r = error_response(500, "internal error");
    }
    // A token given in the address becomes a cookie: the page's own requests and its event
    // stream then carry it without showing it.
    if (!shared_->token.empty() && !via_query.empty()) {
      r.headers.emplace_back("Set-Cookie", std::string(cookie_name) + "=" + via_query +
                                               "; Path=/; HttpOnly; SameSite=Strict");
    }
    if (r.event_stream && r.status == 200) {
      start_stream(r, in);
      return;
    }
    write(r, keep_alive);
  }

  bool authorized(const http::request<http::string_body>& req, const std::string& via_query) {
    const std::string& token = shared_->token;
    if (token.empty()) return true;
    const auto auth = req.find(http::field::authorization);
    if (auth != req.end()) {
      const beast::string_view value = auth->value();
      const std::string prefix = "Bearer ";
      if (value.size() > prefix.size() && value.substr(0, prefix.size()) == prefix &&
          same_secret(std::string(value.substr(prefix.size())), token)) {
        return true;
      }
    }
    if (!via_query.empty() && same_secret(via_query, token)) return true;
    const auto cookie = req.find(http::field::cookie);
    if (cookie != req.end()) {
      const std::string value = cookie_value(
          std::string_view(cookie->value().data(), cookie->value().size()), cookie_name);
      if (!value.empty() && same_secret(value, token)) return true;
    }
    return false;
  }

  static void add_common_headers(http::response<http::string_body>& res, const response& r) {
    res.set(http::field::server, "zelctl");
    res.set(http::field::content_type, r.content_type);
    res.set(http::field::cache_control, "no-store");
    res.set("X-Content-Type-Options", "nosniff");
    res.set("Referrer-Policy", "no-referrer");
    res.set("Content-Security-Policy", content_policy);
    for (const auto& [name, value] : r.headers) res.insert(name, value);
  }

  void write(const response& r, bool keep_alive) {
    auto res = std::make_shared<http::response<http::string_body>>(
        static_cast<http::status>(r.status), 11);
    add_common_headers(*res, r);
    res->keep_alive(keep_alive);
    res->body() = r.body;
    res->prepare_payload();
    stream_.expires_after(lim().write);
    http::async_write(
        stream_, *res,
        [self = shared_from_this(), res, keep_alive](beast::error_code ec, std::size_t) {
          if (ec || !keep_alive) {
            self->close();
            return;
          }
          self->read();
        });
  }

  // The header of an event stream is written by hand: its body has no length and ends with the
  // connection.
  void start_stream(const response& r, const request& in) {
    http::response<http::string_body> res{http::status::ok, 11};
    add_common_headers(res, r);
    res.set(http::field::content_type, "text/event-stream");
    res.set(http::field::connection, "close");
    std::string head = "HTTP/1.1 200 OK\r\n";
    for (const auto& field : res) {
      head += std::string(field.name_string()) + ": " + std::string(field.value()) + "\r\n";
    }
    head += "\r\n";
    // The stream reads nothing more: the buffer's rest (a pipelined request) is dropped.
    buffer_.consume(buffer_.size());
    send(std::make_shared<const std::string>(std::move(head)));
    shared_->subscribe(shared_from_this(), in);
  }

  void write_next() {
    if (queue_.empty() || closed_) {
      writing_ = false;
      return;
    }
    writing_ = true;
    stream_.expires_after(lim().write);
    const std::shared_ptr<const std::string> text = queue_.front();
    asio::async_write(stream_, asio::buffer(*text),
                      [self = shared_from_this(), text](beast::error_code ec, std::size_t) {
                        if (ec) {
                          self->close();
                          return;
                        }
                        self->queued_bytes_ -= text->size();
                        self->queue_.pop_front();
                        self->write_next();
                      });
  }

  void close() {
    if (closed_) return;
    closed_ = true;
    writing_ = false;
    queue_.clear();
    queued_bytes_ = 0;
    beast::error_code ignored;
    stream_.socket().shutdown(tcp::socket::shutdown_both, ignored);
    stream_.close();
  }

  beast::tcp_stream stream_;
  std::shared_ptr<http_server::shared> shared_;
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
  std::deque<std::shared_ptr<const std::string>> queue_;
  std::size_t queued_bytes_ = 0;
  bool writing_ = false;
  bool closed_ = false;
};

tcp::endpoint resolve(asio::io_context& io, const std::string& host, const std::string& port) {
  beast::error_code ec;
  tcp::resolver resolver(io);
  const auto results = resolver.resolve(host, port, tcp::resolver::passive, ec);
  if (ec || results.empty()) {
    throw failure(exit_usage, "cannot use --listen " + host + ":" + port + ": " +
                                  (ec ? ec.message() : std::string("no address")));
  }
  return results.begin()->endpoint();
}

}  // namespace

http_server::http_server(asio::io_context& io, const std::string& host, const std::string& port,
                         const limits& l, std::string token, route_function routes,
                         subscribe_function subscribe)
    : acceptor_(io), shared_(std::make_shared<shared>()) {
  shared_->lim = l;
  shared_->token = std::move(token);
  shared_->routes = std::move(routes);
  shared_->subscribe = std::move(subscribe);
  const tcp::endpoint at = resolve(io, host, port);
  beast::error_code ec;
  acceptor_.open(at.protocol(), ec);
  if (!ec) acceptor_.set_option(asio::socket_base::reuse_address(true), ec);
  if (!ec) acceptor_.bind(at, ec);
  if (!ec) acceptor_.listen(asio::socket_base::max_listen_connections, ec);
  if (ec) {
    throw failure(exit_failure, "cannot listen on " + host + ":" + port + ": " + ec.message());
  }
  accept();
}

http_server::~http_server() { stop(); }

tcp::endpoint http_server::local_endpoint() const { return acceptor_.local_endpoint(); }

void http_server::stop() {
  beast::error_code ignored;
  acceptor_.close(ignored);
}

void http_server::accept() {
  acceptor_.async_accept(
      [this, alive = std::weak_ptr<shared>(shared_)](beast::error_code ec, tcp::socket socket) {
        const auto s = alive.lock();
        if (!s || !acceptor_.is_open()) return;
        if (!ec) {
          const bool over = s->open >= s->lim.connections;
          std::make_shared<connection>(std::move(socket), s)->start(over);
        }
        accept();
      });
}

}  // namespace zelctl::serve
