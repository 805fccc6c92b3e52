// The mirror's metrics over HTTP: serve's HTTP server on a thread of its own, answering
// GET /metrics (and HEAD) and nothing else. The text is made on the mirror's own thread, the one
// that changes the replica, between two waits for notifications: a scrape asks for it and waits
// (the mirror looks every tenth of a second at most); while the mirror is held up (loading a
// snapshot) the scrape gets 503 after a second rather than a text of figures it could not read.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include <boost/asio/io_context.hpp>

#include "serve/http_server.h"

namespace zelctl {

// A text asked for on one thread and made on another.
class metrics_exchange {
 public:
  // Asker's thread: the text made after this call, or nothing when none came within `limit`.
  std::optional<std::string> ask(std::chrono::milliseconds limit);
  // Maker's thread: when a text is asked for, makes it with `make` and hands it over; else
  // nothing. Cheap when nobody asks.
  void answer(const std::function<std::string()>& make);

 private:
  std::mutex lock_;
  std::condition_variable made_;
  std::uint64_t asked_ = 0;     // asks so far
  std::uint64_t answered_ = 0;  // asks answered by text_
  std::string text_;
};

class metrics_listener {
 public:
  // Listens on `address` ("HOST:PORT"; port 0: a free one) at once, from a thread of its own;
  // raises failure (naming `flag`) when it cannot.
  metrics_listener(const std::string& address, const std::string& flag);
  // Stops the thread; a scrape still waiting for a text ends first (a second at most).
  ~metrics_listener();
  metrics_listener(const metrics_listener&) = delete;
  metrics_listener& operator=(const metrics_listener&) = delete;

  // "HOST:PORT" as it listens (the port chosen for port 0).
  std::string address() const { return address_; }
  // The owner's thread, often: makes the text when a scrape waits for one. The listener adds
  // the family of its own answers (zelcapi_http_responses_total) to what `make` writes.
  void serve_pending(const std::function<void(metrics_text&)>& make);

 private:
  serve::response answer(const serve::request& in);

  serve::answer_counts answered_;  // the listener thread's alone
  metrics_exchange exchange_;
  boost::asio::io_context io_;
  std::unique_ptr<serve::http_server> server_;
  std::string address_;
  std::thread thread_;
};

}  // namespace zelctl
