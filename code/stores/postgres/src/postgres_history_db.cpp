// The PostgreSQL history_db: one table of historized records with their kind, id and time.
#include <mutex>

#include "history_rows.h"
#include "json_record.h"
#include "postgres_connection.h"
#include "postgres_schema.h"
#include "zelbase/time.h"
#include "zelcapi/postgres_db.h"

namespace zelcapi {

using postgres_detail::connection;
using postgres_detail::encode_id;
using postgres_detail::result;
using store_detail::has_string;

namespace {

constexpr postgres_detail::table_layout layout[] = {
    {"history", "kind text,id text,time bigint,record jsonb",
     "CREATE TABLE history(kind text NOT NULL, id text NOT NULL, time bigint NOT NULL,"
     " record jsonb NOT NULL, PRIMARY KEY(kind, id));"
     " CREATE INDEX history_time ON history(time)"}};

// Whether ->> can find `key` and compare `value` as text: both UTF-8 without NUL, the key not an
// escape form's.
bool selectable(const std::string& key, const std::string& value) {
  return !key.empty() && key[0] != '~' && key.find('\0') == std::string::npos &&
         value.find('\0') == std::string::npos && store_detail::is_utf8(key) &&
         store_detail::is_utf8(value);
}

std::string kind_name(db_item_type type) { return std::string(store_detail::history_kind(type)); }

}  // namespace

struct postgres_history_db::impl {
  explicit impl(const std::string& conninfo) : db(conninfo) {
    postgres_detail::ensure_schema(db, layout, std::size(layout));
  }

  // Runs `body` (statements) with the lock held. Outside a batch a lost connection is opened
  // again, and a body that found it lost runs again once (every statement here is idempotent);
  // inside a batch it is not, so that the batch's writes stay one transaction, and a failed
  // statement rolls the batch back.
  template <class F>
  auto attempt(F&& body) {
    if (batch_depth > 0) {
      if (batch_failed) db.fail("the batch was rolled back after an error; end_batch ends it");
      try {
        return body();
      } catch (...) {
        // A record that could not be read leaves the batch's transaction as it was.
        if (db.lost() || db.transaction_failed()) {
          batch_failed = true;
          db.rollback_quietly();
        }
        throw;
      }
    }
    db.ensure_open();
    try {
      return body();
    } catch (...) {
      if (!db.lost()) throw;
    }
    db.ensure_open();
    return body();
  }

  result run(const char* sql, const std::vector<std::string>& params) {
    return attempt([&] { return db.exec(sql, params); });
  }

  // The records that `sql` selects (id, record) as they arrive, those for which `keep` holds.
  template <class F>
  properties_cptr collect(const char* sql, const std::vector<std::string>& params, F&& keep) {
    return attempt([&] {
      zelcore::properties::container children;
      std::string id;
      db.stream(sql, params, [&](const result& r, int row) {
        if (!postgres_detail::decode_id(r.text(row, 0), id))
          db.fail("malformed id in table history");
        zelcore::properties record =
            postgres_detail::decode_record(db, "history", id, r.text(row, 1));
        if (keep(record))
          children.emplace_back(id,
                                zelcore::property_ptr(new zelcore::properties(std::move(record))));
      });
      return properties_cptr(new zelcore::properties(std::move(children)));
    });
  }

  std::mutex lock;
  connection db;
  int batch_depth = 0;
  bool batch_failed = false;
  zelbase::encoder_network json;  // the JSON text of the record being written
};

postgres_history_db::postgres_history_db(const std::string& conninfo)
    : impl_(std::make_unique<impl>(conninfo)) {}

// A batch left open was not ended by its writer, which may have failed in its middle: none of
// it is kept.
postgres_history_db::~postgres_history_db() { impl_->db.rollback_quietly(); }

const std::string& postgres_history_db::server() const noexcept { return impl_->db.server(); }

bool postgres_history_db::try_lead() {
  std::lock_guard<std::mutex> hold(impl_->lock);
  if (impl_->batch_depth > 0) impl_->db.fail("try_lead inside a batch");
  return impl_->db.try_lock_session(postgres_detail::history_writer_lock);
}

bool postgres_history_db::leads() const noexcept { return impl_->db.holds_session_lock(); }

properties_cptr postgres_history_db::load_items(db_item_type type) {
  const std::string kind = kind_name(type);
  std::lock_guard<std::mutex> hold(impl_->lock);
  return impl_->collect("SELECT id, record::text FROM history WHERE kind = $1", {kind},
                        [](const zelcore::properties&) { return true; });
}

bool postgres_history_db::load_item(db_item_type type, const std::string& id,
                                    zelcore::properties& out) {
  const std::string kind = kind_name(type);
  std::lock_guard<std::mutex> hold(impl_->lock);
  const result r = impl_->run("SELECT record::text FROM history WHERE kind = $1 AND id = $2",
                              {kind, encode_id(id)});
  if (r.rows() == 0) return false;
  out = postgres_detail::decode_record(impl_->db, "history", id, r.text(0, 0));
  return true;
}

void postgres_history_db::store_item(db_item_type type, const std::string& id,
                                     const zelcore::properties& record) {
  const std::string kind = kind_name(type);
  const std::uint32_t now = zelbase::time_in_seconds();
  std::lock_guard<std::mutex> hold(impl_->lock);
  impl_->json.clear();
  store_detail::write_json(record, impl_->json, store_detail::json_form::jsonb);
  impl_->run(
      "INSERT INTO history(kind, id, time, record) VALUES($1, $2, $3, $4) ON CONFLICT (kind, id)"
      " DO UPDATE SET time = EXCLUDED.time, record = EXCLUDED.record",
      {kind, encode_id(id), std::to_string(now), std::string(impl_->json.view())});
}

void postgres_history_db::remove_item(db_item_type type, const std::string& id) {
  const std::string kind = kind_name(type);
  std::lock_guard<std::mutex> hold(impl_->lock);
  impl_->run("DELETE FROM history WHERE kind = $1 AND id = $2", {kind, encode_id(id)});
}

void postgres_history_db::remove_items(db_item_type type) {
  const std::string kind = kind_name(type);
  std::lock_guard<std::mutex> hold(impl_->lock);
  impl_->run("DELETE FROM history WHERE kind = $1", {kind});
}

void postgres_history_db::remove_items(db_item_type type, const std::set<std::string>& ids) {
  const std::string kind = kind_name(type);
  std::vector<std::string> texts;
  texts.reserve(ids.size());
  for (const std::string& id : ids) texts.push_back(encode_id(id));
  std::lock_guard<std::mutex> hold(impl_->lock);
  impl_->run("DELETE FROM history WHERE kind = $1 AND id = ANY($2::text[])",
             {kind, postgres_detail::text_array(texts)});
}

std::uint64_t postgres_history_db::count_items(db_item_type type) {
  const std::string kind = kind_name(type);
  std::lock_guard<std::mutex> hold(impl_->lock);
  const result r = impl_->run("SELECT count(*) FROM history WHERE kind = $1", {kind});
  return static_cast<std::uint64_t>(r.integer(0, 0));
}

std::uint32_t postgres_history_db::get_historize_time(db_item_type type, const std::string& id) {
  const std::string kind = kind_name(type);
  std::lock_guard<std::mutex> hold(impl_->lock);
  const result r =
      impl_->run("SELECT time FROM history WHERE kind = $1 AND id = $2", {kind, encode_id(id)});
  return r.rows() ? static_cast<std::uint32_t>(r.integer(0, 0)) : 0;
}

void postgres_history_db::remove_items_historized_until(std::uint32_t time) {
  std::lock_guard<std::mutex> hold(impl_->lock);
  impl_->run("DELETE FROM history WHERE time <= $1", {std::to_string(time)});
}

properties_cptr postgres_history_db::load_items_where(db_item_type type, const std::string& key,
                                                      const std::string& value) {
  const std::string kind = kind_name(type);
  const auto matches = [&](const zelcore::properties& record) {
    return has_string(record, key, value);
  };
  std::lock_guard<std::mutex> hold(impl_->lock);
  if (!selectable(key, value))
    return impl_->collect("SELECT id, record::text FROM history WHERE kind = $1", {kind}, matches);
  // A record in the {"~o": ...} form hides its keys from ->>: it is read and checked.
  return impl_->collect(
      "SELECT id, record::text FROM history WHERE kind = $1 AND (record->>$2 = $3 OR record ? "
      "'~o')",
      {kind, key, value}, matches);
}

void postgres_history_db::clear() {
  std::lock_guard<std::mutex> hold(impl_->lock);
  impl_->run("DELETE FROM history", {});
}

void postgres_history_db::begin_batch() {
  std::lock_guard<std::mutex> hold(impl_->lock);
  if (impl_->batch_depth == 0) {
    impl_->db.ensure_open();
    impl_->db.exec("BEGIN");
    impl_->batch_failed = false;
  }
  ++impl_->batch_depth;
}

void postgres_history_db::end_batch() {
  std::lock_guard<std::mutex> hold(impl_->lock);
  if (impl_->batch_depth == 0 || --impl_->batch_depth > 0) return;
  if (impl_->batch_failed) {
    impl_->batch_failed = false;
    impl_->db.fail("the batch was rolled back after an error");
  }
  try {
    impl_->db.exec("COMMIT");
  } catch (...) {
    impl_->db.rollback_quietly();
    throw;
  }
}

}  // namespace zelcapi
