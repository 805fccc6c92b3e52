// The listener of zelctl serve: accepts connections and gives each a slot; when every slot is
// held, the connection that has waited longest for a request gives its slot up, and only when
// none waits is the new one refused.
#include "serve/http_server.h"

#include <boost/asio/steady_timer.hpp>

#include "options.h"
#include "serve/http_connection.h"

namespace zelctl::serve {

namespace asio = boost::asio;
namespace beast = boost::beast;
using tcp = asio::ip::tcp;

namespace {

tcp::endpoint resolve(asio::io_context& io, const std::string& host, const std::string& port) {
  beast::error_code ec;
  tcp::resolver resolver(io);
  const auto results = resolver.resolve(host, port, tcp::resolver::passive, ec);
  if (ec || results.empty()) {
    throw failure(exit_usage, "cannot listen on " + host + ":" + port + ": " +
                                  (ec ? ec.message() : std::string("no address")));
  }
  return results.begin()->endpoint();
}

}  // namespace

void split_listen(const std::string& text, const std::string& flag, std::string& host,
                  std::string& port) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon + 1 == text.size()) {
    throw failure(exit_usage, flag + " wants HOST:PORT, not '" + text + "'");
  }
  host = text.substr(0, colon);
  port = text.substr(colon + 1);
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  }
  if (host.empty()) throw failure(exit_usage, flag + " wants HOST:PORT, not '" + text + "'");
}

void write_answer_metrics(metrics_text& out, const answer_counts& answered) {
  out.family("zelcapi_http_responses_total", "counter", "HTTP answers given, by status code.");
  for (const auto& [code, n] : answered) {
    out.sample("zelcapi_http_responses_total", {{"code", std::to_string(code)}}, n);
  }
}

// Owned, as the connections are, by its pending operations and by the server.
class http_server::listener : public std::enable_shared_from_this<listener> {
 public:
  listener(asio::io_context& io, std::shared_ptr<server_context> context)
      : acceptor_(io), pause_(io), context_(std::move(context)) {}

  void listen(const tcp::endpoint& at, const std::string& where) {
    beast::error_code ec;
    acceptor_.open(at.protocol(), ec);
    if (!ec) acceptor_.set_option(asio::socket_base::reuse_address(true), ec);
    if (!ec) acceptor_.bind(at, ec);
    if (!ec) acceptor_.listen(asio::socket_base::max_listen_connections, ec);
    if (ec) throw failure(exit_failure, "cannot listen on " + where + ": " + ec.message());
  }

  void accept() {
    acceptor_.async_accept([self = shared_from_this()](beast::error_code ec, tcp::socket socket) {
      self->on_accept(ec, std::move(socket));
    });
  }

  void stop() {
    beast::error_code ignored;
    acceptor_.close(ignored);
    pause_.cancel();
  }

  tcp::endpoint local_endpoint() const { return acceptor_.local_endpoint(); }

 private:
  void on_accept(beast::error_code ec, tcp::socket socket) {
    if (!acceptor_.is_open()) return;
    if (ec) {
      // Out of files, most likely: try again shortly rather than spin.
      pause_.expires_after(std::chrono::milliseconds(50));
      pause_.async_wait([self = shared_from_this()](beast::error_code wait_ec) {
        if (!wait_ec && self->acceptor_.is_open()) self->accept();
      });
      return;
    }
    admit(std::move(socket));
    accept();
  }

  void admit(tcp::socket socket) {
    server_context& c = *context_;
    if (c.held >= c.lim.connections) give_up_a_waiting_slot();
    const auto fresh = std::make_shared<connection>(std::move(socket), context_);
    if (c.held > c.lim.connections) {
      fresh->refuse();
    } else {
      fresh->start();
    }
  }

  // The connection that has waited longest for a request closes; its slot is free at once.
  void give_up_a_waiting_slot() {
    while (!context_->waiting.empty()) {
      const std::shared_ptr<connection> oldest = context_->waiting.front().lock();
      if (!oldest) {
        context_->waiting.pop_front();
        continue;
      }
      oldest->evict();
      return;
    }
  }

  tcp::acceptor acceptor_;
  asio::steady_timer pause_;
  std::shared_ptr<server_context> context_;
};

http_server::http_server(asio::io_context& io, const std::string& host, const std::string& port,
                         const limits& l, std::string token, route_function routes,
                         subscribe_function subscribe, answer_counts* answered) {
  auto context = std::make_shared<server_context>();
  context->answered = answered;
  context->lim = l;
  context->token = std::move(token);
  context->routes = std::move(routes);
  context->subscribe = std::move(subscribe);
  listener_ = std::make_shared<listener>(io, std::move(context));
  listener_->listen(resolve(io, host, port), host + ":" + port);
  listener_->accept();
}

http_server::~http_server() { stop(); }

tcp::endpoint http_server::local_endpoint() const { return listener_->local_endpoint(); }

void http_server::stop() { listener_->stop(); }

}  // namespace zelctl::serve
