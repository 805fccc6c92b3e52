// The overview's counts, rate and samples.
#include "serve/overview.h"

#include "json_output.h"
#include "kinds.h"
#include "replica_metrics.h"
#include "time_text.h"

namespace zelctl::serve {

overview::overview(boost::asio::io_context& io, const zelcapi::state& replica,
                   const event_feed& feed, const replica_source& source, std::size_t samples)
    : timer_(io), replica_(replica), feed_(feed), source_(source), capacity_(samples) {}

overview::~overview() { *alive_ = false; }

void overview::start() {
  take_sample();
  arm();
}

void overview::arm() {
  timer_.expires_after(std::chrono::seconds(1));
  timer_.async_wait(
      [this, alive = std::weak_ptr<bool>(alive_)](const boost::system::error_code& ec) {
        if (ec || alive.expired()) return;
        take_sample();
        arm();
      });
}

void overview::take_sample() {
  samples_.push_back({now_ms(),
                      nlohmann::json(count_by_state(replica_.get_items(zelcapi::state_item_job))),
                      feed_.changes()});
  while (samples_.size() > capacity_) samples_.pop_front();
}

nlohmann::json overview::summary() const {
  nlohmann::json nodes = nlohmann::json::array();
  for (const auto& [id, record] : replica_.get_items(zelcapi::state_item_node)) {
    nlohmann::json node = to_json(record);
    node["id"] = id;
    nodes.push_back(std::move(node));
  }
  nlohmann::json totals = nlohmann::json::object();
  for (std::uint32_t t = zelcapi::state_item_client; t <= zelcapi::state_item_task; ++t) {
    const auto type = static_cast<zelcapi::state_item_type>(t);
    totals[snapshot_key_of(type)] = replica_.get_items(type).size();
  }
  totals["workflows"] = replica_.get_workflows().size();
  totals["workflow-results"] = replica_.get_workflow_results().size();
  // The rate over the last five samples: a steady figure that still follows a change of pace.
  double rate = 0;
  if (samples_.size() >= 2) {
    const sample& last = samples_.back();
    const sample& first = samples_[samples_.size() > 6 ? samples_.size() - 6 : 0];
    const double seconds = static_cast<double>(last.ms - first.ms) / 1000.0;
    if (seconds > 0) rate = static_cast<double>(last.changes - first.changes) / seconds;
  }
  nlohmann::json history = nlohmann::json::array();
  for (const sample& s : samples_) history.push_back({{"time", s.ms}, {"jobs", s.jobs}});
  const std::int64_t last = feed_.last_change_ms();
  const source_status& link = source_.status();
  nlohmann::json out{
      {"master", link.master},
      {"address", link.address},
      {"nodes", std::move(nodes)},
      {"counts",
       {{"jobs", nlohmann::json(count_by_state(replica_.get_items(zelcapi::state_item_job)))},
        {"tasks", nlohmann::json(count_by_state(replica_.get_items(zelcapi::state_item_task)))}}},
      {"totals", std::move(totals)},
      {"changes", feed_.changes()},
      {"batches", feed_.batches()},
      {"stream-clients", feed_.clients()},
      {"rate", rate},
      {"last-change", last == 0 ? nlohmann::json(nullptr) : nlohmann::json(iso_time_of_ms(last))},
      {"samples", std::move(history)},
  };
  out.update(status_json(link));
  return out;
}

}  // namespace zelctl::serve
