// The mirror's metrics listener: a text asked for by a scrape on the listener's thread and made
// on the mirror's.
#include "metrics_listener.h"

#include <boost/asio/post.hpp>

namespace zelctl {
namespace {

// How long a scrape waits for the mirror's thread before it gets 503.
constexpr std::chrono::milliseconds wait_for_text{1000};

serve::response error_answer(unsigned status, const std::string& message) {
  serve::response r;
  r.status = status;
  r.body = "{\"error\":\"" + message + "\"}";
  return r;
}

}  // namespace

std::optional<std::string> metrics_exchange::ask(std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> guard(lock_);
  const std::uint64_t mine = ++asked_;
  if (!made_.wait_for(guard, limit, [&] { return answered_ >= mine; })) return std::nullopt;
  return text_;
}

void metrics_exchange::answer(const std::function<std::string()>& make) {
  std::uint64_t asked = 0;
  {
    std::lock_guard<std::mutex> guard(lock_);
    if (answered_ == asked_) return;
    asked = asked_;
  }
  // Made outside the lock: the text reads what only this thread changes.
  std::string text = make();
  {
    std::lock_guard<std::mutex> guard(lock_);
    text_ = std::move(text);
    answered_ = asked;
  }
  made_.notify_all();
}

metrics_listener::metrics_listener(const std::string& address, const std::string& flag) {
  std::string host;
  std::string port;
  serve::split_listen(address, flag, host, port);
  serve::limits lim;
  lim.connections = 16;
  server_ = std::make_unique<serve::http_server>(
      io_, host, port, lim, "", [this](const serve::request& in) { return answer(in); },
      [](const std::shared_ptr<serve::event_subscriber>&, const serve::request&) {}, &answered_);
  const auto at = server_->local_endpoint();
  address_ =
      (at.address().is_v6() ? "[" + at.address().to_string() + "]" : at.address().to_string()) +
      ":" + std::to_string(at.port());
  thread_ = std::thread([this] { io_.run(); });
}

metrics_listener::~metrics_listener() {
  boost::asio::post(io_, [this] {
    server_->stop();
    io_.stop();
  });
  thread_.join();
}

void metrics_listener::serve_pending(const std::function<void(metrics_text&)>& make) {
  exchange_.answer([&make] {
    metrics_text out;
    make(out);
    return out.take();
  });
}

serve::response metrics_listener::answer(const serve::request& in) {
  if (in.target.path != "/metrics") return error_answer(404, "not found: only /metrics is served");
  std::optional<std::string> text = exchange_.ask(wait_for_text);
  if (!text) return error_answer(503, "the mirror is busy (loading a snapshot); try again");
  metrics_text answers;
  serve::write_answer_metrics(answers, answered_);
  serve::response r;
  r.content_type = metrics_content_type;
  r.body = std::move(*text) + answers.text();
  return r;
}

}  // namespace zelctl
