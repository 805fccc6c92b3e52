// The mirror's timing state_db and its queued history_db.
#include "mirror_store.h"

namespace zelctl {

void write_save_metrics(metrics_text& out, const save_figures& f) {
  out.family("zelcapi_saves_total", "counter", "Saves of the replica committed to the store.");
  out.sample("zelcapi_saves_total", f.saves);
  out.family("zelcapi_save_failures_total", "counter",
             "Saves that the store refused or that broke off.");
  out.sample("zelcapi_save_failures_total", f.failed);
  out.histogram("zelcapi_save_duration_seconds", "How long each committed save took.", f.seconds);
  out.histogram("zelcapi_save_records_written",
                "Records each committed save wrote (new or changed since the save before).",
                f.written);
  out.family("zelcapi_last_save_records", "gauge", "Records in the last committed save.");
  out.sample("zelcapi_last_save_records", f.last_records);
  out.family("zelcapi_last_save_timestamp_seconds", "gauge",
             "When the last committed save ended, in seconds since 1970 (0: none yet).");
  out.sample(
      "zelcapi_last_save_timestamp_seconds",
      f.saves == 0 ? 0.0 : std::chrono::duration<double>(f.last_end.time_since_epoch()).count());
}

save_figures timed_state_db::figures() const {
  std::lock_guard<std::mutex> guard(lock_);
  return figures_;
}

template <class F>
void timed_state_db::_save_call(F&& call) {
  try {
    call();
  } catch (const std::exception& e) {
    health_.save_failed(e.what());
    {
      std::lock_guard<std::mutex> guard(lock_);
      ++figures_.failed;
    }
    throw;
  }
}

void timed_state_db::begin_save() {
  save_start_ = std::chrono::steady_clock::now();
  save_records_ = 0;
  _save_call([&] { forwarding_state_db::begin_save(); });
}

void timed_state_db::store_item(zelcapi::db_item_type type, const std::string& id,
                                const zelcore::properties& record) {
  _save_call([&] { forwarding_state_db::store_item(type, id, record); });
  ++save_records_;
}

void timed_state_db::store_workflow_results(const zelcapi::workflow_result_map& results) {
  _save_call([&] { forwarding_state_db::store_workflow_results(results); });
}

void timed_state_db::store_workflow_sequence_number(std::uint64_t sequence_number) {
  _save_call([&] { forwarding_state_db::store_workflow_sequence_number(sequence_number); });
  health_.save_committed();
  const auto end = std::chrono::steady_clock::now();
  std::lock_guard<std::mutex> guard(lock_);
  ++figures_.saves;
  figures_.last_end = std::chrono::system_clock::now();
  figures_.last_seconds = std::chrono::duration<double>(end - save_start_).count();
  figures_.last_records = save_records_;
  figures_.last_written = written_by_last_save_();
  figures_.seconds.observe(figures_.last_seconds);
  figures_.written.observe(static_cast<double>(figures_.last_written));
}

void queued_history_db::flush() {
  if (held_.empty()) return;
  store_.begin_batch();
  try {
    for (const auto& write : held_) write(store_);
  } catch (...) {
    try {
      store_.end_batch();
    } catch (...) {  // the first error says more
    }
    throw;
  }
  store_.end_batch();
  held_.clear();
}

void queued_history_db::_hold(std::function<void(zelcapi::history_db&)> write) {
  if (held_.size() >= limit_) {
    held_.pop_front();
    ++dropped_;
  }
  held_.push_back(std::move(write));
}

zelcapi::properties_cptr queued_history_db::load_items(zelcapi::db_item_type type) {
  return store_.load_items(type);
}

bool queued_history_db::load_item(zelcapi::db_item_type type, const std::string& id,
                                  zelcore::properties& out) {
  return store_.load_item(type, id, out);
}

void queued_history_db::store_item(zelcapi::db_item_type type, const std::string& id,
                                   const zelcore::properties& record) {
  _hold([type, id, record](zelcapi::history_db& db) { db.store_item(type, id, record); });
}

void queued_history_db::remove_item(zelcapi::db_item_type type, const std::string& id) {
  _hold([type, id](zelcapi::history_db& db) { db.remove_item(type, id); });
}

void queued_history_db::remove_items(zelcapi::db_item_type type) {
  _hold([type](zelcapi::history_db& db) { db.remove_items(type); });
}

void queued_history_db::remove_items(zelcapi::db_item_type type, const std::set<std::string>& ids) {
  _hold([type, ids](zelcapi::history_db& db) { db.remove_items(type, ids); });
}

std::uint64_t queued_history_db::count_items(zelcapi::db_item_type type) {
  return store_.count_items(type);
}

std::uint32_t queued_history_db::get_historize_time(zelcapi::db_item_type type,
                                                    const std::string& id) {
  return store_.get_historize_time(type, id);
}

void queued_history_db::remove_items_historized_until(std::uint32_t time) {
  _hold([time](zelcapi::history_db& db) { db.remove_items_historized_until(time); });
}

zelcapi::properties_cptr queued_history_db::load_items_where(zelcapi::db_item_type type,
                                                             const std::string& key,
                                                             const std::string& value) {
  return store_.load_items_where(type, key, value);
}

void queued_history_db::clear() {
  held_.clear();
  store_.clear();
}

}  // namespace zelctl
