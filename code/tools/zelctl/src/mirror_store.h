// The mirror's stores: a state_db that passes every call to the mirror's store, measures each
// complete save (when it ended, how long it took, how many records) for the status line and
// the summary and tells the store's health how saves go, and a history_db that holds the
// replica's history writes until the mirror writes them together. The saver thread writes
// through the first while the main thread reads the figures; the second is the main thread's
// alone.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>

#include "metrics.h"
#include "store_health.h"
#include "zelcapi/state.h"

namespace zelctl {

struct save_figures {
  std::uint64_t saves = 0;
  std::chrono::system_clock::time_point last_end{};
  double last_seconds = 0;
  std::uint64_t last_records = 0;
  std::uint64_t last_written = 0;  // of last_records, those new or changed since the save before
  std::uint64_t failed = 0;        // saves that the store refused or that broke off
  // Of each committed save: how long it took, in seconds (from milliseconds for a few changes
  // to a minute for the first save of a large replica), and how many records it wrote.
  histogram_counts seconds{{0.01, 0.025, 0.05, 0.1, 0.25, 0.5, 1, 2.5, 5, 10, 30, 60}};
  histogram_counts written{{0, 10, 100, 1000, 10000, 100000, 1000000}};
};

// The saves' families: zelcapi_saves_total, zelcapi_save_failures_total,
// zelcapi_save_duration_seconds and zelcapi_save_records_written (histograms),
// zelcapi_last_save_records and zelcapi_last_save_timestamp_seconds.
void write_save_metrics(metrics_text& out, const save_figures& f);

class timed_state_db final : public zelcapi::forwarding_state_db {
 public:
  // `written_by_last_save` tells how many records the store's last save wrote; `health` hears of
  // every save that fails or commits.
  timed_state_db(zelcapi::state_db& store, std::function<std::uint64_t()> written_by_last_save,
                 store_health& health)
      : forwarding_state_db(store),
        written_by_last_save_(std::move(written_by_last_save)),
        health_(health) {}

  // A copy of the figures of the saves completed so far.
  save_figures figures() const;

  void begin_save() override;
  void store_item(zelcapi::db_item_type type, const std::string& id,
                  const zelcore::properties& record) override;
  void store_workflow_results(const zelcapi::workflow_result_map& results) override;
  // The save's last call: once the store committed it, the save counts.
  void store_workflow_sequence_number(std::uint64_t sequence_number) override;

 private:
  // Runs a call of the save; a failure is told to the health and passes on.
  template <class F>
  void _save_call(F&& call);

  std::function<std::uint64_t()> written_by_last_save_;
  store_health& health_;
  mutable std::mutex lock_;
  save_figures figures_;
  // Of the save in progress (saver thread only).
  std::chrono::steady_clock::time_point save_start_{};
  std::uint64_t save_records_ = 0;
};

// The replica's history writes, each a transaction of its own in the store, held until flush()
// writes them as one batch: the replica historizes records while it applies notifications, and
// one write between waits keeps the store's lock short. Loads pass straight through. While the
// store fails, the writes stay held, up to `limit`: beyond it the oldest are dropped (counted).
class queued_history_db final : public zelcapi::history_db {
 public:
  queued_history_db(zelcapi::history_db& store, std::size_t limit) : store_(store), limit_(limit) {}

  // Writes the held changes in one batch; raises what the store raises, and then holds them
  // still, for the next flush (each is a replacement or a removal: writing one twice is harmless).
  void flush();
  // How many writes are held, and how many were dropped for the limit so far.
  std::size_t held() const noexcept { return held_.size(); }
  std::uint64_t dropped() const noexcept { return dropped_; }

  zelcapi::properties_cptr load_items(zelcapi::db_item_type type) override;
  bool load_item(zelcapi::db_item_type type, const std::string& id,
                 zelcore::properties& out) override;
  void store_item(zelcapi::db_item_type type, const std::string& id,
                  const zelcore::properties& record) override;
  void remove_item(zelcapi::db_item_type type, const std::string& id) override;
  void remove_items(zelcapi::db_item_type type) override;
  void remove_items(zelcapi::db_item_type type, const std::set<std::string>& ids) override;
  std::uint64_t count_items(zelcapi::db_item_type type) override;
  std::uint32_t get_historize_time(zelcapi::db_item_type type, const std::string& id) override;
  void remove_items_historized_until(std::uint32_t time) override;
  zelcapi::properties_cptr load_items_where(zelcapi::db_item_type type, const std::string& key,
                                            const std::string& value) override;
  void clear() override;
  void begin_batch() override {}
  void end_batch() override {}

 private:
  void _hold(std::function<void(zelcapi::history_db&)> write);

  zelcapi::history_db& store_;
  std::size_t limit_;
  std::deque<std::function<void(zelcapi::history_db&)>> held_;
  std::uint64_t dropped_ = 0;
};

}  // namespace zelctl
