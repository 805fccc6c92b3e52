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

class timed_state_db final : public zelcapi::forwarding_state_db {
 public:
  explicit timed_state_db(zelcapi::sqlite_state_db& store) : forwarding_state_db(store) {}

  // A copy of the figures of the saves completed so far.
  save_figures figures() const;

  void begin_save() override;
  void store_item(zelcapi::db_item_type type, const std::string& id,
                  const zelcore::properties& record) override;
  // The save's last call: once the store committed it, the save counts.
  void store_workflow_sequence_number(std::uint64_t sequence_number) override;

 private:
  mutable std::mutex lock_;
  save_figures figures_;
  // Of the save in progress (saver thread only).
  std::chrono::steady_clock::time_point save_start_{};
  std::uint64_t save_records_ = 0;
};

}  // namespace zelctl
