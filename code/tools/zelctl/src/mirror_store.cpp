// The timing state_db of the mirror: passes calls to the SQLite store and measures saves.
#include "mirror_store.h"

namespace zelctl {

save_figures timed_state_db::figures() const {
  std::lock_guard<std::mutex> guard(lock_);
  return figures_;
}

void timed_state_db::begin_save() {
  save_start_ = std::chrono::steady_clock::now();
  save_records_ = 0;
  forwarding_state_db::begin_save();
}

void timed_state_db::store_item(zelcapi::db_item_type type, const std::string& id,
                                const zelcore::properties& record) {
  forwarding_state_db::store_item(type, id, record);
  ++save_records_;
}

void timed_state_db::store_workflow_sequence_number(std::uint64_t sequence_number) {
  forwarding_state_db::store_workflow_sequence_number(sequence_number);
  const auto end = std::chrono::steady_clock::now();
  std::lock_guard<std::mutex> guard(lock_);
  ++figures_.saves;
  figures_.last_end = std::chrono::system_clock::now();
  figures_.last_seconds = std::chrono::duration<double>(end - save_start_).count();
  figures_.last_records = save_records_;
}

}  // namespace zelctl
