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
#include "zelcapi/state.h"

namespace zelctl::serve {

class overview {
 public:
  // Keeps `samples` seconds of counts.
  overview(boost::asio::io_context& io, const zelcapi::state& replica, const event_feed& feed,
           std::size_t samples = 600);
  ~overview();
  overview(const overview&) = delete;
  overview& operator=(const overview&) = delete;

  void start();
  void set_master(const std::string& master_id, const std::string& where) {
    master_ = master_id;
    where_ = where;
  }
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
  std::size_t capacity_;
  std::deque<sample> samples_;
  std::string master_;
  std::string where_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

// The records of an item kind counted by their "state" field ("" when it has none).
nlohmann::json count_by_state(const zelcapi::state::item_map& items);

}  // namespace zelctl::serve
