// The SQLite history_db: one table of historized records with their kind, id and time.
#include <mutex>

#include "history_rows.h"
#include "json_record.h"
#include "sqlite_file.h"
#include "zelbase/time.h"
#include "zelcapi/sqlite_db.h"

namespace zelcapi {

using sqlite_detail::connection;
using sqlite_detail::reset_on_exit;
using sqlite_detail::statement;
using store_detail::has_string;

namespace {

constexpr const char* schema =
    "CREATE TABLE IF NOT EXISTS history(kind TEXT NOT NULL, id TEXT NOT NULL,"
    " time INTEGER NOT NULL, record TEXT NOT NULL, PRIMARY KEY(kind, id));"
    "CREATE INDEX IF NOT EXISTS history_time ON history(time);";

// Whether json_extract can find `key` by a quoted path label and compare `value` as text: both
// plain UTF-8, the key neither quoted nor escaped in JSON nor an escape form's.
bool selectable(const std::string& key, const std::string& value) {
  if (key.empty() || key[0] == '~' || !store_detail::is_utf8(key) ||
      !store_detail::is_utf8(value) || value.find('\0') != std::string::npos)
    return false;
  for (const char c : key)
    if (static_cast<unsigned char>(c) < 0x20 || c == '"' || c == '\\') return false;
  return true;
}

}  // namespace

struct sqlite_history_db::impl {
  impl(const std::string& path, const sqlite_options& options)
      : db(path, options, schema),
        store(db, "INSERT OR REPLACE INTO history(kind, id, time, record) VALUES(?1, ?2, ?3, ?4)"),
        remove_one(db, "DELETE FROM history WHERE kind = ?1 AND id = ?2"),
        remove_kind(db, "DELETE FROM history WHERE kind = ?1"),
        remove_until(db, "DELETE FROM history WHERE time <= ?1"),
        remove_all(db, "DELETE FROM history"),
        count(db, "SELECT count(*) FROM history WHERE kind = ?1"),
        time_of(db, "SELECT time FROM history WHERE kind = ?1 AND id = ?2"),
        load_kind(db, "SELECT id, record FROM history WHERE kind = ?1 ORDER BY id"),
        load_one(db, "SELECT record FROM history WHERE kind = ?1 AND id = ?2"),
        load_where(db,
                   "SELECT id, record FROM history WHERE kind = ?1 AND"
                   " (json_extract(record, ?2) = ?3 OR"
                   " json_type(record, '$.\"~o\"') IS NOT NULL) ORDER BY id"),
        begin(db, "BEGIN IMMEDIATE"),
        commit(db, "COMMIT") {}

  // Runs `body` in a transaction of its own unless a batch is open.
  template <class F>
  void grouped(F&& body) {
    if (batch_depth > 0) return body();
    begin.run();
    try {
      body();
      commit.run();
    } catch (...) {
      db.rollback_quietly();
      throw;
    }
  }

  // `s` with the kind and the id bound to its first two parameters.
  static statement& keyed(statement& s, std::string_view kind, const std::string& id) {
    s.bind(1, kind);
    s.bind(2, id);
    return s;
  }

  // The records that `query` selects (id, record), those for which `keep` holds.
  template <class F>
  properties_cptr collect(statement& query, F&& keep) {
    reset_on_exit done(query);
    zelcore::properties::container children;
    while (query.step()) {
      const std::string_view id = query.text(0);
      zelcore::properties record = sqlite_detail::decode_record(db, "history", id, query.text(1));
      if (keep(record))
        children.emplace_back(std::string(id),
                              zelcore::property_ptr(new zelcore::properties(std::move(record))));
    }
    return properties_cptr(new zelcore::properties(std::move(children)));
  }

  std::mutex lock;
  connection db;
  statement store, remove_one, remove_kind, remove_until, remove_all, count, time_of;
  statement load_kind, load_one, load_where, begin, commit;
  int batch_depth = 0;
  zelbase::encoder_network buffer;  // the JSON text of the record being written
};

sqlite_history_db::sqlite_history_db(const std::string& path, const sqlite_options& options)
    : impl_(std::make_unique<impl>(path, options)) {}

// A batch left open was not ended by its writer, which may have failed in its middle: none of
// it is kept.
sqlite_history_db::~sqlite_history_db() { impl_->db.rollback_quietly(); }

const std::string& sqlite_history_db::path() const noexcept { return impl_->db.path(); }

properties_cptr sqlite_history_db::load_items(db_item_type type) {
  const std::string_view kind = store_detail::history_kind(type);
  std::lock_guard<std::mutex> hold(impl_->lock);
  impl_->load_kind.bind(1, kind);
  return impl_->collect(impl_->load_kind, [](const zelcore::properties&) { return true; });
}

bool sqlite_history_db::load_item(db_item_type type, const std::string& id,
                                  zelcore::properties& out) {
  const std::string_view kind = store_detail::history_kind(type);
  std::lock_guard<std::mutex> hold(impl_->lock);
  statement& one = impl::keyed(impl_->load_one, kind, id);
  reset_on_exit done(one);
  if (!one.step()) return false;
  out = sqlite_detail::decode_record(impl_->db, "history", id, one.text(0));
  return true;
}

void sqlite_history_db::store_item(db_item_type type, const std::string& id,
                                   const zelcore::properties& record) {
  const std::string_view kind = store_detail::history_kind(type);
  const std::uint32_t now = zelbase::time_in_seconds();
  std::lock_guard<std::mutex> hold(impl_->lock);
  zelbase::encoder_network& json = impl_->buffer;
  json.clear();
  store_detail::write_json(record, json);
  statement& store = impl_->store;
  store.bind(1, kind);
  store.bind(2, id);
  store.bind(3, std::int64_t{now});
  store.bind(4, json.view());
  store.run();
}

void sqlite_history_db::remove_item(db_item_type type, const std::string& id) {
  const std::string_view kind = store_detail::history_kind(type);
  std::lock_guard<std::mutex> hold(impl_->lock);
  impl::keyed(impl_->remove_one, kind, id).run();
}

void sqlite_history_db::remove_items(db_item_type type) {
  const std::string_view kind = store_detail::history_kind(type);
  std::lock_guard<std::mutex> hold(impl_->lock);
  impl_->remove_kind.bind(1, kind);
  impl_->remove_kind.run();
}

void sqlite_history_db::remove_items(db_item_type type, const std::set<std::string>& ids) {
  const std::string_view kind = store_detail::history_kind(type);
  std::lock_guard<std::mutex> hold(impl_->lock);
  impl_->grouped([&] {
    for (const std::string& id : ids) impl::keyed(impl_->remove_one, kind, id).run();
  });
}

std::uint64_t sqlite_history_db::count_items(db_item_type type) {
  const std::string_view kind = store_detail::history_kind(type);
  std::lock_guard<std::mutex> hold(impl_->lock);
  statement& count = impl_->count;
  reset_on_exit done(count);
  count.bind(1, kind);
  return count.step() ? static_cast<std::uint64_t>(count.integer(0)) : 0;
}

std::uint32_t sqlite_history_db::get_historize_time(db_item_type type, const std::string& id) {
  const std::string_view kind = store_detail::history_kind(type);
  std::lock_guard<std::mutex> hold(impl_->lock);
  statement& time_of = impl::keyed(impl_->time_of, kind, id);
  reset_on_exit done(time_of);
  return time_of.step() ? static_cast<std::uint32_t>(time_of.integer(0)) : 0;
}

void sqlite_history_db::remove_items_historized_until(std::uint32_t time) {
  std::lock_guard<std::mutex> hold(impl_->lock);
  impl_->remove_until.bind(1, std::int64_t{time});
  impl_->remove_until.run();
}

properties_cptr sqlite_history_db::load_items_where(db_item_type type, const std::string& key,
                                                    const std::string& value) {
  const std::string_view kind = store_detail::history_kind(type);
  const auto matches = [&](const zelcore::properties& record) {
    return has_string(record, key, value);
  };
  std::lock_guard<std::mutex> hold(impl_->lock);
  if (!selectable(key, value)) {
    impl_->load_kind.bind(1, kind);
    return impl_->collect(impl_->load_kind, matches);
  }
  const std::string path = "$.\"" + key + "\"";
  statement& where = impl_->load_where;
  where.bind(1, kind);
  where.bind(2, path);
  where.bind(3, value);
  return impl_->collect(where, matches);
}

void sqlite_history_db::clear() {
  std::lock_guard<std::mutex> hold(impl_->lock);
  impl_->remove_all.run();
}

void sqlite_history_db::begin_batch() {
  std::lock_guard<std::mutex> hold(impl_->lock);
  if (impl_->batch_depth == 0) impl_->begin.run();
  ++impl_->batch_depth;
}

void sqlite_history_db::end_batch() {
  std::lock_guard<std::mutex> hold(impl_->lock);
  if (impl_->batch_depth == 0 || --impl_->batch_depth > 0) return;
  try {
    impl_->commit.run();
  } catch (...) {
    impl_->db.rollback_quietly();
    throw;
  }
}

}  // namespace zelcapi
