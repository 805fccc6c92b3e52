// A connection of zelctl serve: request reading within the limits, the token check, the answers
// and the write queue (shared by plain answers, answers in pieces and event streams).
#include "serve/http_connection.h"

#include <algorithm>
#include <utility>

#include <boost/asio/write.hpp>

namespace zelctl::serve {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;

namespace {

const char* const cookie_name = "zelctl-token";

// The pages load nothing from elsewhere and run no inline script: a cluster string that ever
// reached the page as markup still could not run.
const char* const content_policy =
    "default-src 'self'; script-src 'self'; style-src 'self'; img-src 'self' data:; "
    "connect-src 'self'; frame-ancestors 'none'; base-uri 'none'; form-action 'none'";

// A chunk's size goes in front of its piece as eight hex digits (leading zeros are allowed).
constexpr std::size_t chunk_prefix = 10;

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

// The end of a connection, not a request to answer.
bool connection_ended(const beast::error_code& ec) {
  return ec == http::error::end_of_stream || ec == beast::error::timeout ||
         ec == asio::error::operation_aborted || ec == asio::error::connection_reset ||
         ec == asio::error::eof;
}

void add_common_headers(http::response<http::empty_body>& res, const response& r) {
  res.set(http::field::server, "zelctl");
  res.set(http::field::content_type, r.content_type);
  res.set(http::field::cache_control, "no-store");
  res.set("X-Content-Type-Options", "nosniff");
  res.set("Referrer-Policy", "no-referrer");
  res.set("Content-Security-Policy", content_policy);
  for (const auto& [name, value] : r.headers) res.insert(name, value);
}

// The status line and the header fields, as they go on the wire.
std::string header_text(const http::response<http::empty_body>& res) {
  std::string text =
      "HTTP/1.1 " + std::to_string(res.result_int()) + " " + std::string(res.reason()) + "\r\n";
  for (const auto& field : res) {
    text += std::string(field.name_string()) + ": " + std::string(field.value()) + "\r\n";
  }
  return text + "\r\n";
}

}  // namespace

connection::connection(tcp::socket socket, std::shared_ptr<server_context> context)
    : stream_(std::move(socket)),
      context_(std::move(context)),
      buffer_(context_->lim.header_bytes + context_->lim.body_bytes) {
  ++context_->held;
}

connection::~connection() { close(); }

void connection::start() { read(); }

void connection::refuse() { write(error_response(503, "too many connections"), false, false); }

void connection::read() {
  parser_.emplace();
  parser_->header_limit(static_cast<std::uint32_t>(lim().header_bytes));
  parser_->body_limit(lim().body_bytes);
  // A new connection has little time to send its first header; a kept-alive one may wait
  // longer for its next request. Either gives its slot away to a new connection when every
  // slot is held.
  stream_.expires_after(first_request_ ? lim().header : lim().idle);
  wait_for_request(true);
  http::async_read_header(
      stream_, buffer_, *parser_,
      [self = shared_from_this()](beast::error_code ec, std::size_t) { self->on_header(ec); });
}

void connection::on_header(beast::error_code ec) {
  wait_for_request(false);
  first_request_ = false;
  if (ec || parser_->is_done()) {
    on_request(ec);
    return;
  }
  stream_.expires_after(lim().idle);
  http::async_read(
      stream_, buffer_, *parser_,
      [self = shared_from_this()](beast::error_code ec, std::size_t) { self->on_request(ec); });
}

void connection::on_request(beast::error_code ec) {
  if (connection_ended(ec)) {
    close();
    return;
  }
  if (ec) {
    write(read_error_response(ec), false, false);
    return;
  }
  answer(parser_->get());
}

void connection::answer(const http::request<http::string_body>& req) {
  const bool keep_alive = req.keep_alive();
  const std::size_t fields = static_cast<std::size_t>(std::distance(req.begin(), req.end()));
  if (fields > lim().header_fields) {
    write(error_response(431, "too many header fields"), false, false);
    return;
  }
  const bool head = req.method() == http::verb::head;
  if (!head && req.method() != http::verb::get) {
    response r = error_response(405, "read-only: only GET and HEAD are served");
    r.headers.emplace_back("Allow", "GET, HEAD");
    write(r, false, false);
    return;
  }
  const auto target = parse_target(std::string(req.target()));
  if (!target) {
    write(error_response(400, "malformed request target"), false, head);
    return;
  }
  request in{head ? "HEAD" : "GET", *target};
  const std::string via_query = target->param("token");
  if (!authorized(req, via_query)) {
    response r = error_response(401, "a valid token is needed");
    r.headers.emplace_back("WWW-Authenticate", "Bearer");
    write(r, keep_alive, head);
    return;
  }
  response r;
  try {
    r = context_->routes(in);
  } catch (const std::exception&) {
    // A route that raises answers this request only: the server and the replica go on.
    r = error_response(500, "internal error");
  }
  // A token given in the address becomes a cookie: the page's own requests and its event
  // stream then carry it without showing it.
  if (!context_->token.empty() && !via_query.empty()) {
    r.headers.emplace_back("Set-Cookie", std::string(cookie_name) + "=" + via_query +
                                             "; Path=/; HttpOnly; SameSite=Strict");
  }
  if (r.event_stream && r.status == 200) {
    start_stream(r, in);
    return;
  }
  write(r, keep_alive, head, req.version());
}

bool connection::authorized(const http::request<http::string_body>& req,
                            const std::string& via_query) const {
  const std::string& token = context_->token;
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
    const std::string value =
        cookie_value(std::string_view(cookie->value().data(), cookie->value().size()), cookie_name);
    if (!value.empty() && same_secret(value, token)) return true;
  }
  return false;
}

void connection::count_answer(unsigned status) {
  if (context_->answered != nullptr) ++(*context_->answered)[status];
}

void connection::write(const response& r, bool keep_alive, bool head, unsigned version) {
  count_answer(r.status);
  http::response<http::empty_body> res{static_cast<http::status>(r.status), 11};
  add_common_headers(res, r);
  // A body in pieces has no length in advance: chunked, or until the close for HTTP/1.0.
  const bool chunked = r.pieces && version >= 11;
  if (r.pieces && !chunked) keep_alive = false;
  if (chunked) {
    res.chunked(true);
  } else if (!r.pieces) {
    res.content_length(r.body.size());
  }
  res.keep_alive(keep_alive);
  std::string text = header_text(res);
  if (!head && !r.pieces) text += r.body;
  then_ = keep_alive ? then::read : then::close;
  queue_.push_back({std::make_shared<const std::string>(std::move(text)), false});
  if (!head && r.pieces) queue_.push_back({r.pieces, chunked});
  write_next();
}

// The header of an event stream: its body has no length and ends with the connection.
void connection::start_stream(const response& r, const request& in) {
  http::response<http::empty_body> res{http::status::ok, 11};
  add_common_headers(res, r);
  res.set(http::field::content_type, "text/event-stream");
  res.set(http::field::connection, "close");
  count_answer(200);
  if (in.method == "HEAD") {
    then_ = then::close;
    send(std::make_shared<const std::string>(header_text(res)));
    return;
  }
  // What the client sends from now on is not read as requests: a pipelined one is dropped.
  buffer_.consume(buffer_.size());
  send(std::make_shared<const std::string>(header_text(res)));
  context_->subscribe(shared_from_this(), in);
  read_stream();
}

void connection::read_stream() {
  if (closed_) return;
  // No time limit for reading: the client of a stream sends nothing. Its close (or a write that
  // does not progress within the write limit) ends the stream.
  stream_.expires_never();
  stream_.async_read_some(asio::buffer(discard_),
                          [self = shared_from_this()](beast::error_code ec, std::size_t) {
                            if (ec) {
                              self->close();
                              return;
                            }
                            self->read_stream();
                          });
}

void connection::send(outgoing out) {
  if (closed_) return;
  if (out.text) queued_bytes_ += out.text->size();
  queue_.push_back({std::move(out), false});
  if (!writing_) write_next();
}

void connection::replace_queue(outgoing out) {
  if (closed_) return;
  // What is being written stays: it must end whole.
  const std::size_t keep = writing_ ? 1 : 0;
  while (queue_.size() > keep) {
    if (queue_.back().out.text) queued_bytes_ -= queue_.back().out.text->size();
    queue_.pop_back();
  }
  send(std::move(out));
}

void connection::write_next() {
  if (closed_) return;
  if (queue_.empty()) {
    writing_ = false;
    const then next = std::exchange(then_, then::nothing);
    if (next == then::read) read();
    if (next == then::close) close();
    return;
  }
  writing_ = true;
  stream_.expires_after(lim().write);
  entry& front = queue_.front();
  if (front.out.text) {
    const std::shared_ptr<const std::string> text = front.out.text;
    asio::async_write(stream_, asio::buffer(*text),
                      [self = shared_from_this(), text](beast::error_code ec, std::size_t) {
                        self->written(ec, true);
                      });
    return;
  }
  // The next piece of a body, made now: between two pieces the thread serves everyone else.
  piece_.assign(front.chunked ? chunk_prefix : 0, '0');
  bool more = false;
  try {
    more = front.out.pieces->next(piece_);
  } catch (const std::exception&) {
    // The header has gone out: the only way left to say that the body failed is to end it.
    close();
    return;
  }
  if (front.chunked) {
    const std::size_t size = piece_.size() - chunk_prefix;
    if (size == 0) {
      piece_.clear();
    } else {
      // A piece stays far below 4 GiB: eight digits always hold its size.
      for (std::size_t i = 0; i < 8; ++i)
        piece_[7 - i] = "0123456789abcdef"[(size >> (4 * i)) & 15];
      piece_[8] = '\r';
      piece_[9] = '\n';
      piece_ += "\r\n";
    }
    if (!more) piece_ += "0\r\n\r\n";
  }
  asio::async_write(stream_, asio::buffer(piece_),
                    [self = shared_from_this(), done = !more](beast::error_code ec, std::size_t) {
                      self->written(ec, done);
                    });
}

void connection::written(beast::error_code ec, bool entry_done) {
  if (closed_) return;
  if (ec) {
    close();
    return;
  }
  if (entry_done) {
    if (queue_.front().out.text) queued_bytes_ -= queue_.front().out.text->size();
    queue_.pop_front();
  }
  write_next();
}

void connection::wait_for_request(bool waiting) {
  if (waiting && !waiting_ && !closed_) {
    waiting_ = context_->waiting.insert(context_->waiting.end(), weak_from_this());
  } else if (!waiting && waiting_) {
    context_->waiting.erase(*waiting_);
    waiting_.reset();
  }
}

void connection::close() {
  if (closed_) return;
  closed_ = true;
  writing_ = false;
  queue_.clear();
  queued_bytes_ = 0;
  then_ = then::nothing;
  wait_for_request(false);
  --context_->held;
  beast::error_code ignored;
  stream_.socket().shutdown(tcp::socket::shutdown_both, ignored);
  stream_.close();
}

}  // namespace zelctl::serve
