// The overview of zelctl serve: the cluster's nodes, its jobs and tasks counted by state, the
// change rate, and a sample of the job counts every second for the last minutes, so that a page
// opened now can draw them.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <nlohmann/json.hpp>

#include "serve/event_feed.h"
#include "serve/replica_source.h"
#include "zelcapi/state.h"

namespace zelctl::serve {

class overview {
 public:
  // Keeps `samples` seconds of counts; the master and the link's status come from `source`.
  overview(boost::asio::io_context& io, const zelcapi::state& replica, const event_feed& feed,
           const replica_source& source, std::size_t samples = 600);
  ~overview();
  overview(const overview&) = delete;
  overview& operator=(const overview&) = delete;

  void start();
  // The whole overview as JSON (docs/http-api.md, /api/summary).
  nlohmann::json summary() const;

 private:
  struct sample {
    std::int64_t ms;
    nlohmann::json jobs;  // state -> count
    std::uint64_t changes;
  };
  void arm();
  void take_sample();

  boost::asio::steady_timer timer_;
  const zelcapi::state& replica_;
  const event_feed& feed_;
  const replica_source& source_;
  std::size_t capacity_;
  std::deque<sample> samples_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace zelctl::serve
