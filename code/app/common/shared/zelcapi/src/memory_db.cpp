// The in-memory state_db and history_db: a save built aside and swapped in at its last call, and
// historized records with their times.
#include "zelcapi/memory_db.h"

#include "zelbase/exceptions.h"
#include "zelbase/time.h"

namespace zelcapi {

namespace {

constexpr const char* source_file = "code\\app\\common\\shared\\zelcapi\\src\\memory_db";

properties_cptr shared_copy(const zelcore::properties& tree) {
  return properties_cptr(new zelcore::properties(tree));
}

}  // namespace

std::size_t db_item_index(db_item_type type, const char* store) {
  if (type > db_item_workflow)
    zelbase::es::arg::raise(source_file, __LINE__,
                            std::string(store) + " does not have item type " +
                                std::to_string(static_cast<std::uint32_t>(type)));
  return type;
}

// --- memory_state_db ---

memory_state_db::memory_state_db() = default;
memory_state_db::~memory_state_db() = default;

memory_state_db::contents& memory_state_db::_target() { return saving_ ? pending_ : saved_; }

void memory_state_db::clear() {
  std::lock_guard<std::mutex> hold(lock_);
  saved_ = contents();
  pending_ = contents();
  saving_ = false;
  has_saved_ = false;
}

properties_cptr memory_state_db::load_items(db_item_type type) {
  const std::size_t kind = db_item_index(type, "state_db");
  std::lock_guard<std::mutex> hold(lock_);
  return shared_copy(saved_.items[kind]);
}

properties_cptr memory_state_db::load_workflow_results() {
  std::lock_guard<std::mutex> hold(lock_);
  return shared_copy(saved_.results);
}

std::uint64_t memory_state_db::load_workflow_sequence_number() {
  std::lock_guard<std::mutex> hold(lock_);
  return saved_.sequence_number;
}

void memory_state_db::store_item(db_item_type type, const std::string& id,
                                 const zelcore::properties& record) {
  const std::size_t kind = db_item_index(type, "state_db");
  zelcore::property_ptr copy(new zelcore::properties(record));
  std::lock_guard<std::mutex> hold(lock_);
  _target().items[kind][id] = std::move(copy);
}

void memory_state_db::remove_item(db_item_type type, const std::string& id) {
  const std::size_t kind = db_item_index(type, "state_db");
  std::lock_guard<std::mutex> hold(lock_);
  _target().items[kind].erase(id);
}

void memory_state_db::store_workflow_results(const workflow_result_map& results) {
  zelcore::properties encoded(false);
  for (const auto& [id, result] : results) {
    zelcore::properties one(false);
    result.encode(one);
    encoded[id] = zelcore::property_ptr(new zelcore::properties(std::move(one)));
  }
  std::lock_guard<std::mutex> hold(lock_);
  _target().results = std::move(encoded);
}

void memory_state_db::store_workflow_sequence_number(std::uint64_t sequence_number) {
  std::lock_guard<std::mutex> hold(lock_);
  _target().sequence_number = sequence_number;
  if (saving_) {
    saved_ = std::move(pending_);
    pending_ = contents();
    saving_ = false;
  }
  has_saved_ = true;
}

bool memory_state_db::load_item(db_item_type type, const std::string& id,
                                zelcore::properties& out) {
  const std::size_t kind = db_item_index(type, "state_db");
  std::lock_guard<std::mutex> hold(lock_);
  const zelcore::properties* record = saved_.items[kind].get_properties_value_ptr(id);
  if (!record) return false;
  out = *record;
  return true;
}

bool memory_state_db::has_saved_state() {
  std::lock_guard<std::mutex> hold(lock_);
  return has_saved_;
}

void memory_state_db::begin_save() {
  std::lock_guard<std::mutex> hold(lock_);
  pending_ = contents();
  saving_ = true;
}

// --- memory_history_db ---

memory_history_db::memory_history_db() = default;
memory_history_db::~memory_history_db() = default;

memory_history_db::kind_map& memory_history_db::_kind(db_item_type type) {
  return kinds_[db_item_index(type, "history_db")];
}

properties_cptr memory_history_db::load_items(db_item_type type) {
  std::lock_guard<std::mutex> hold(lock_);
  zelcore::properties out(false);
  for (const auto& [id, kept] : _kind(type))
    out[id] = zelcore::property_ptr(new zelcore::properties(kept.record));
  return shared_copy(out);
}

bool memory_history_db::load_item(db_item_type type, const std::string& id,
                                  zelcore::properties& out) {
  std::lock_guard<std::mutex> hold(lock_);
  const kind_map& records = _kind(type);
  const auto it = records.find(id);
  if (it == records.end()) return false;
  out = it->second.record;
  return true;
}

void memory_history_db::store_item(db_item_type type, const std::string& id,
                                   const zelcore::properties& record) {
  const std::uint32_t now = zelbase::time_in_seconds();
  std::lock_guard<std::mutex> hold(lock_);
  _kind(type)[id] = entry{record, now};
}

void memory_history_db::remove_item(db_item_type type, const std::string& id) {
  std::lock_guard<std::mutex> hold(lock_);
  _kind(type).erase(id);
}

void memory_history_db::remove_items(db_item_type type) {
  std::lock_guard<std::mutex> hold(lock_);
  _kind(type).clear();
}

void memory_history_db::remove_items(db_item_type type, const std::set<std::string>& ids) {
  std::lock_guard<std::mutex> hold(lock_);
  kind_map& records = _kind(type);
  for (const std::string& id : ids) records.erase(id);
}

std::uint64_t memory_history_db::count_items(db_item_type type) {
  std::lock_guard<std::mutex> hold(lock_);
  return _kind(type).size();
}

std::uint32_t memory_history_db::get_historize_time(db_item_type type, const std::string& id) {
  std::lock_guard<std::mutex> hold(lock_);
  const kind_map& records = _kind(type);
  const auto it = records.find(id);
  return it == records.end() ? 0 : it->second.time;
}

void memory_history_db::remove_items_historized_until(std::uint32_t time) {
  std::lock_guard<std::mutex> hold(lock_);
  for (kind_map& records : kinds_) {
    for (auto it = records.begin(); it != records.end();) {
      if (it->second.time <= time)
        it = records.erase(it);
      else
        ++it;
    }
  }
}

properties_cptr memory_history_db::load_items_where(db_item_type type, const std::string& key,
                                                    const std::string& value) {
  std::lock_guard<std::mutex> hold(lock_);
  zelcore::properties out(false);
  for (const auto& [id, kept] : _kind(type)) {
    const zelcore::property_ptr field = kept.record.get_property(key);
    if (field && field->kind() == zelcore::property::kind_string &&
        static_cast<const zelcore::property_string&>(*field).value() == value)
      out[id] = zelcore::property_ptr(new zelcore::properties(kept.record));
  }
  return shared_copy(out);
}

void memory_history_db::clear() {
  std::lock_guard<std::mutex> hold(lock_);
  for (kind_map& records : kinds_) records.clear();
}

void memory_history_db::begin_batch() {}
void memory_history_db::end_batch() {}

}  // namespace zelcapi
