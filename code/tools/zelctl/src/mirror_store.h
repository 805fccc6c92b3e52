// The mirror's store: a state_db that passes every call to the SQLite store and measures each
// complete save (when it ended, how long it took, how many records), for the status line and
// the summary. The saver thread writes through it while the main thread reads the figures.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

#include "zelcapi/sqlite_db.h"
#include "zelcapi/state.h"

namespace zelctl {

struct save_figures {
  std::uint64_t saves = 0;
  std::chrono::system_clock::time_point last_end{};
  double last_seconds = 0;
  std::uint64_t last_records = 0;
};

class timed_state_db final : public zelcapi::state_db {
 public:
  explicit timed_state_db(zelcapi::sqlite_state_db& store) : store_(store) {}

  // A copy of the figures of the saves completed so far.
  save_figures figures() const;

  void clear() override { store_.clear(); }
  zelcapi::properties_cptr load_items(zelcapi::db_item_type type) override {
    return store_.load_items(type);
  }
  zelcapi::properties_cptr load_workflow_results() override {
    return store_.load_workflow_results();
  }
  std::uint64_t load_workflow_sequence_number() override {
    return store_.load_workflow_sequence_number();
  }
  void store_item(zelcapi::db_item_type type, const std::string& id,
                  const zelcore::properties& record) override;
  void remove_item(zelcapi::db_item_type type, const std::string& id) override {
    store_.remove_item(type, id);
  }
  void store_workflow_results(const zelcapi::workflow_result_map& results) override {
    store_.store_workflow_results(results);
  }
  // The save's last call: once the store committed it, the save counts.
  void store_workflow_sequence_number(std::uint64_t sequence_number) override;
  bool load_item(zelcapi::db_item_type type, const std::string& id,
                 zelcore::properties& out) override {
    return store_.load_item(type, id, out);
  }
  bool has_saved_state() override { return store_.has_saved_state(); }
  void begin_save() override;

 private:
  zelcapi::sqlite_state_db& store_;
  mutable std::mutex lock_;
  save_figures figures_;
  // Of the save in progress (saver thread only).
  std::chrono::steady_clock::time_point save_start_{};
  std::uint64_t save_records_ = 0;
};

}  // namespace zelctl
