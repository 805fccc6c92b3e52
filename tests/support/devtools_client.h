// Test support: a headless Chromium driven over its DevTools protocol (a WebSocket on
// loopback, Boost.Beast as the client): open a page, evaluate script in it, wait for a
// condition, capture a screenshot. Needs only the Debian "chromium" package.
#pragma once

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/core/detail/base64.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <nlohmann/json.hpp>

#include "support/child_process.h"

namespace zeltest {

// The chromium program, or empty when it is not installed.
inline std::string chromium_program() {
  for (const char* path : {"/usr/bin/chromium", "/usr/bin/chromium-browser"}) {
    if (::access(path, X_OK) == 0) return path;
  }
  return "";
}

class devtools_browser {
 public:
  // Starts the browser with a fresh profile and connects to its first page.
  explicit devtools_browser(const std::string& program)
      : process_(program,
                 {"--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                  "--no-first-run", "--remote-debugging-port=0", "--user-data-dir=" + profile_.path,
                  "--window-size=1280,900", "about:blank"}) {
    const std::string port_file = profile_.file("DevToolsActivePort");
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    std::string port;
    while (port.empty() && std::chrono::steady_clock::now() < until) {
      std::ifstream in(port_file);
      std::getline(in, port);
      if (port.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (port.empty()) return;
    const std::string page = page_path(port);
    if (page.empty()) return;
    namespace ws = boost::beast::websocket;
    boost::asio::ip::tcp::resolver resolver(io_);
    socket_.emplace(io_);
    boost::asio::connect(socket_->next_layer(), resolver.resolve("127.0.0.1", port));
    socket_->read_message_max(64 * 1024 * 1024);
    socket_->handshake("127.0.0.1:" + port, page);
    socket_->set_option(ws::stream_base::timeout::suggested(boost::beast::role_type::client));
    ready_ = true;
    call("Page.enable");
    call("Runtime.enable");
  }

  bool ready() const { return ready_; }

  // Sends a command and waits for its answer (events meanwhile are kept).
  nlohmann::json call(const std::string& method, const nlohmann::json& params = nullptr) {
    const int id = ++last_id_;
    nlohmann::json message{{"id", id}, {"method", method}};
    if (!params.is_null()) message["params"] = params;
    socket_->write(boost::asio::buffer(message.dump()));
    for (;;) {
      boost::beast::flat_buffer buffer;
      socket_->read(buffer);
      nlohmann::json in = nlohmann::json::parse(boost::beast::buffers_to_string(buffer.data()));
      if (in.contains("id") && in["id"] == id) return in;
      if (in.contains("method")) events_.push_back(std::move(in));
    }
  }

  // Events seen so far of `method`.
  std::size_t events(const std::string& method) const {
    std::size_t n = 0;
    for (const auto& e : events_) n += e["method"] == method ? 1 : 0;
    return n;
  }

  // The events seen so far of `method`, their whole messages.
  std::vector<nlohmann::json> events_of(const std::string& method) const {
    std::vector<nlohmann::json> out;
    for (const auto& e : events_) {
      if (e["method"] == method) out.push_back(e);
    }
    return out;
  }

  void navigate(const std::string& url) { call("Page.navigate", {{"url", url}}); }

  // The value of a script expression (promises awaited); null when it raised.
  nlohmann::json eval(const std::string& expression) {
    const nlohmann::json answer =
        call("Runtime.evaluate",
             {{"expression", expression}, {"awaitPromise", true}, {"returnByValue", true}});
    if (!answer.contains("result") || answer["result"].contains("exceptionDetails")) {
      return nullptr;
    }
    const auto& result = answer["result"]["result"];
    return result.contains("value") ? result["value"] : nlohmann::json();
  }

  // Polls a boolean expression until it is true; the time it took, or nothing at the limit.
  std::optional<std::chrono::milliseconds> wait_for(
      const std::string& expression, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    const auto start = std::chrono::steady_clock::now();
    for (;;) {
      const nlohmann::json v = eval(expression);
      const auto spent = std::chrono::duration_cast<std::chrono::milliseconds>(
          std::chrono::steady_clock::now() - start);
      if (v.is_boolean() && v.get<bool>()) return spent;
      if (spent > limit) return std::nullopt;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }

  // Writes a PNG of the page to `path`; false when the browser gave none.
  bool screenshot(const std::string& path) {
    const nlohmann::json answer = call("Page.captureScreenshot", {{"format", "png"}});
    if (!answer.contains("result")) return false;
    const std::string data = answer["result"]["data"];
    std::string png(boost::beast::detail::base64::decoded_size(data.size()), '\0');
    const auto sizes = boost::beast::detail::base64::decode(png.data(), data.data(), data.size());
    png.resize(sizes.first);
    std::ofstream(path, std::ios::binary) << png;
    return !png.empty();
  }

 private:
  // The WebSocket path of the browser's first page, from its /json/list.
  std::string page_path(const std::string& port) {
    namespace http = boost::beast::http;
    for (int attempt = 0; attempt < 100; ++attempt) {
      boost::beast::tcp_stream stream(io_);
      boost::asio::ip::tcp::resolver resolver(io_);
      stream.connect(resolver.resolve("127.0.0.1", port));
      http::request<http::empty_body> req{http::verb::get, "/json/list", 11};
      req.set(http::field::host, "127.0.0.1");
      http::write(stream, req);
      boost::beast::flat_buffer buffer;
      http::response<http::string_body> res;
      http::read(stream, buffer, res);
      for (const auto& target : nlohmann::json::parse(res.body())) {
        if (target["type"] != "page") continue;
        const std::string url = target["webSocketDebuggerUrl"];
        return url.substr(url.find("/devtools/"));
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return "";
  }

  temp_dir profile_;
  child_process process_;
  boost::asio::io_context io_;
  std::optional<boost::beast::websocket::stream<boost::asio::ip::tcp::socket>> socket_;
  std::vector<nlohmann::json> events_;
  int last_id_ = 0;
  bool ready_ = false;
};

}  // namespace zeltest
