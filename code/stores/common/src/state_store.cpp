// The state_db operations that the SQLite and the PostgreSQL stores share: the order of a save's
// writes around the digests, and loads built from the rows that a store reads.
#include "state_store.h"

#include <algorithm>

#include "zelbase/exceptions.h"
#include "zelcapi/memory_db.h"

namespace zelcapi::store_detail {

namespace {

constexpr const char* source_file = "code\\stores\\common\\src\\state_store";

}  // namespace

std::string for_table(const char* pattern, const char* table) {
  std::string out;
  for (const char* p = pattern; *p; ++p) {
    if (*p == '@')
      out += table;
    else
      out += *p;
  }
  return out;
}

state_store::state_store(json_form form, save_writes writes)
    : form_(form),
      pipelined_(writes == save_writes::on_own_thread),
      pipeline_([this](std::size_t kind, std::string_view id, std::string_view json) {
        write_record(kind, id, json, true);
      }) {}

void state_store::close_writes() noexcept {
  pipeline_.discard();
  rollback_transaction();
}

void state_store::fail(const std::string& why) const {
  zelbase::es::uspec::raise(source_file, __LINE__, error_text(why));
}

void state_store::_begin(bool emptied) {
  pipeline_.discard();
  rollback_transaction();
  if (phase_ != phase::idle) digests_.forget();  // the open save changed them in place
  phase_ = phase::abandoned;
  digests_.counts = {};
  try {
    if (begin_transaction()) digests_.forget();
    if (emptied) {
      empty_tables();
      digests_.rebuild_empty();
    } else {
      for (std::size_t kind = 0; kind < std::size(record_tables); ++kind) {
        if (!digests_[kind].known()) _rebuild_digests(kind);
      }
    }
  } catch (...) {
    rollback_transaction();
    digests_.forget();
    throw;
  }
  phase_ = phase::saving;
}

void state_store::_rebuild_digests(std::size_t kind) {
  std::vector<record_digest> entries;
  scan_records(kind, [&](std::string_view id, std::string_view json) {
    entries.push_back(
        digest_of(id, read_stored_record(*this, record_tables[kind], id, json, nullptr)));
  });
  digests_[kind].rebuild(std::move(entries));
}

void state_store::_remove_unseen(std::size_t kind) {
  const std::vector<std::uint64_t> unseen = digests_[kind].unseen();
  if (unseen.empty()) return;
  std::vector<std::string> gone;
  scan_ids(kind, [&](std::string_view id) {
    if (std::binary_search(unseen.begin(), unseen.end(), id_hash_of(id))) gone.emplace_back(id);
  });
  if (!gone.empty()) delete_records(kind, gone);
  digests_.counts.removed += gone.size();
}

void state_store::clear() {
  std::lock_guard<std::mutex> hold(write_lock_);
  _begin(true);
  // Committed as a save without records; a failure abandons it as it would a save.
  _write_unlocked([] {}, true);
}

void state_store::begin_save() {
  std::lock_guard<std::mutex> hold(write_lock_);
  _begin(false);
}

void state_store::store_item(db_item_type type, const std::string& id,
                             const zelcore::properties& record) {
  const std::size_t kind = db_item_index(type, "state_db");
  std::lock_guard<std::mutex> hold(write_lock_);
  const bool saving = _saving();
  _write_unlocked(
      [&] {
        digests_.store(kind, id, record, saving, [&] {
          if (!saving || !pipelined_) {
            json_.clear();
            write_json(record, json_, form_);
            return write_record(kind, id, json_.view(), saving);
          }
          write_json(record, pipeline_.begin_row(kind, id), form_);
          pipeline_.end_row();
        });
      },
      false, saving);
}

void state_store::remove_item(db_item_type type, const std::string& id) {
  const std::size_t kind = db_item_index(type, "state_db");
  _write([&] {
    digests_.removed(kind, _saving());
    delete_records(kind, {id});
  });
}

void state_store::store_workflow_results(const workflow_result_map& results) {
  _write([&] { write_results(results); });
}

void state_store::store_workflow_sequence_number(std::uint64_t sequence_number) {
  _write(
      [&] {
        if (_saving()) {
          for (std::size_t kind = 0; kind < std::size(record_tables); ++kind) _remove_unseen(kind);
        }
        write_sequence_number(sequence_number);
      },
      true);
}

save_counts state_store::last_save_counts() const {
  std::lock_guard<std::mutex> hold(write_lock_);
  return digests_.counts;
}

std::size_t state_store::digest_memory_bytes() const {
  std::lock_guard<std::mutex> hold(write_lock_);
  return digests_.memory_bytes();
}

properties_cptr state_store::load_items(db_item_type type) {
  const std::size_t kind = db_item_index(type, "state_db");
  return _read([&] {
    zelcore::properties::container children;
    shared_strings strings;  // the records of a kind repeat users, nodes, states
    read_records(kind, [&](std::string_view id, std::string_view json) {
      children.emplace_back(std::string(id),
                            zelcore::property_ptr(new zelcore::properties(read_stored_record(
                                *this, record_tables[kind], id, json, &strings))));
    });
    return properties_cptr(new zelcore::properties(std::move(children)));
  });
}

bool state_store::load_item(db_item_type type, const std::string& id, zelcore::properties& out) {
  const std::size_t kind = db_item_index(type, "state_db");
  return _read([&] {
    return read_record(kind, id, [&](std::string_view json) {
      out = read_stored_record(*this, record_tables[kind], id, json, nullptr);
    });
  });
}

properties_cptr state_store::load_workflow_results() {
  return _read([&] {
    zelcore::properties::container children;
    read_results([&](std::string_view id, std::int64_t status, std::int64_t ht) {
      // As workflow_result_info::encode writes them.
      zelcore::properties result{{"ht", zelcore::make_int(ht)}, {"st", zelcore::make_int(status)}};
      children.emplace_back(std::string(id),
                            zelcore::property_ptr(new zelcore::properties(std::move(result))));
    });
    return properties_cptr(new zelcore::properties(std::move(children)));
  });
}

std::uint64_t state_store::load_workflow_sequence_number() {
  return _read([&] {
    std::uint64_t number = 0;
    return read_sequence_number(number) ? number : 0;
  });
}

bool state_store::has_saved_state() {
  return _read([&] {
    std::uint64_t number = 0;
    return read_sequence_number(number);
  });
}

void state_store::begin_load() {
  std::lock_guard<std::mutex> hold(read_lock_);
  if (load_depth_ == 0) {
    open_reader();
    try {
      begin_snapshot();
    } catch (...) {
      if (!reader_lost()) throw;
      open_reader();
      begin_snapshot();
    }
  }
  ++load_depth_;
}

void state_store::end_load() noexcept {
  std::lock_guard<std::mutex> hold(read_lock_);
  if (load_depth_ > 0 && --load_depth_ == 0) end_snapshot();
}

}  // namespace zelcapi::store_detail
