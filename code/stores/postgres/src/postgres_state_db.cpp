// The PostgreSQL state_db: one transaction per save on a writing connection whose changed records
// stream through COPY, loads on a second connection that sees the last committed save.
#include <algorithm>
#include <array>
#include <iterator>
#include <mutex>
#include <utility>

#include "json_record.h"
#include "postgres_connection.h"
#include "postgres_schema.h"
#include "record_digests.h"
#include "zelcapi/memory_db.h"
#include "zelcapi/postgres_db.h"

namespace zelcapi {

using postgres_detail::connection;
using postgres_detail::result;
using store_detail::store_digests;

namespace {

const char* const tables[8] = {"clients", "nodes", "submissions", "sources",
                               "slots",   "jobs",  "tasks",       "workflows"};

#define ZEL_RECORD_TABLE(name)                                              \
  postgres_detail::table_layout {                                           \
    name, "id text,record jsonb",                                           \
        "CREATE TABLE " name "(id text PRIMARY KEY, record jsonb NOT NULL)" \
  }
constexpr postgres_detail::table_layout layout[] = {
    ZEL_RECORD_TABLE("clients"),
    ZEL_RECORD_TABLE("nodes"),
    ZEL_RECORD_TABLE("submissions"),
    ZEL_RECORD_TABLE("sources"),
    ZEL_RECORD_TABLE("slots"),
    ZEL_RECORD_TABLE("jobs"),
    ZEL_RECORD_TABLE("tasks"),
    ZEL_RECORD_TABLE("workflows"),
    {"workflow_results", "id text,status integer,ht bigint",
     "CREATE TABLE workflow_results(id text PRIMARY KEY, status integer NOT NULL,"
     " ht bigint NOT NULL)"},
    {"workflow_sequence", "number bigint",
     "CREATE TABLE workflow_sequence(number bigint NOT NULL)"},
};
#undef ZEL_RECORD_TABLE

// The save's changed records of one kind are copied into this table of the session, then
// upserted from it in one statement; rows vanish at the commit.
constexpr const char* staging =
    "CREATE TEMP TABLE IF NOT EXISTS zelcapi_staging(id text, record jsonb)"
    " ON COMMIT DELETE ROWS";

// COPY data is handed to libpq in pieces of about this size.
constexpr std::size_t copy_piece = 256 * 1024;

std::string sql(const char* pattern, const char* table) {
  std::string out;
  for (const char* p = pattern; *p; ++p) {
    if (*p == '@')
      out += table;
    else
      out += *p;
  }
  return out;
}

}  // namespace

struct postgres_state_db::impl {
  enum class phase { idle, saving, abandoned };

  explicit impl(const std::string& conninfo) : writer(conninfo), reader(conninfo) {
    postgres_detail::ensure_schema(writer, layout, std::size(layout));
  }

  // Runs a write of the save in progress, or outside a save one that is its own transaction;
  // with `completes` the write ends the save and commits it. A failure inside a save rolls it
  // back and makes the save's further writes fail.
  template <class F>
  void write(F&& body, bool completes = false) {
    std::lock_guard<std::mutex> hold(write_lock);
    write_unlocked(std::forward<F>(body), completes);
  }

  template <class F>
  void write_unlocked(F&& body, bool completes) {
    if (state == phase::abandoned)
      writer.fail("the save was abandoned after an error; begin_save starts a new one");
    const bool own = state == phase::idle;
    try {
      if (own) {
        writer.ensure_open();
        writer.exec("BEGIN");
      }
      body();
      if (own || completes) {
        end_copy();
        writer.exec("COMMIT");
      }
    } catch (...) {
      abandon();
      if (!own) state = phase::abandoned;
      throw;
    }
    if (completes) {
      state = phase::idle;
      if (!own) digests.commit_save();
    }
  }

  void abandon() noexcept {
    copy_kind = -1;
    copy_rows.clear();
    writer.rollback_quietly();
    digests.forget();
  }

  // Reads the digests of what a kind's table holds, inside the save's transaction: of each
  // record's tree, so jsonb's own key order and spacing do not count.
  void rebuild_digests(std::size_t kind) {
    const result r = writer.exec(sql("SELECT id, record::text FROM @", tables[kind]));
    std::vector<store_detail::record_digest> entries;
    entries.reserve(static_cast<std::size_t>(r.rows()));
    std::string id;
    for (int row = 0; row < r.rows(); ++row) {
      if (!postgres_detail::decode_id(r.text(row, 0), id))
        writer.fail("malformed id in table " + std::string(tables[kind]));
      entries.push_back(store_detail::digest_of(
          id, postgres_detail::decode_record(writer, tables[kind], id, r.text(row, 1))));
    }
    digests[kind].rebuild(std::move(entries));
  }

  // Starts streaming the changed records of `kind`: straight into its table when the table was
  // empty at the save's start (no conflict possible), otherwise into the staging table.
  void start_copy(std::size_t kind) {
    if (copy_kind == static_cast<int>(kind)) return;
    end_copy();
    copy_direct = digests[kind].size() == 0;
    writer.copy_begin(copy_direct ? sql("COPY @(id, record) FROM STDIN", tables[kind])
                                  : std::string("COPY zelcapi_staging(id, record) FROM STDIN"));
    copy_kind = static_cast<int>(kind);
  }

  void copy_row(std::string_view id, std::string_view json_text) {
    postgres_detail::append_copy_row(copy_rows, {postgres_detail::encode_id(id), json_text});
    if (copy_rows.size() >= copy_piece) {
      writer.copy_put(copy_rows);
      copy_rows.clear();
    }
  }

  // Ends the COPY in progress; staged records then replace or join their table's rows.
  void end_copy() {
    if (copy_kind < 0) return;
    const char* table = tables[copy_kind];
    copy_kind = -1;
    writer.copy_put(copy_rows);
    copy_rows.clear();
    writer.copy_end();
    if (!copy_direct)
      writer.exec(
          sql("INSERT INTO @(id, record) SELECT id, record FROM zelcapi_staging"
              " ON CONFLICT (id) DO UPDATE SET record = EXCLUDED.record;"
              " TRUNCATE zelcapi_staging",
              table));
  }

  // Deletes the stored records of a kind that the save did not hold: every row whose id's hash
  // the save has not seen (found by reading the ids, which only a save with removals does).
  void remove_unseen(std::size_t kind) {
    const std::vector<std::uint64_t> unseen = digests[kind].unseen();
    if (unseen.empty()) return;
    const result r = writer.exec(sql("SELECT id FROM @", tables[kind]));
    std::vector<std::string> gone;
    std::string id;
    for (int row = 0; row < r.rows(); ++row) {
      if (postgres_detail::decode_id(r.text(row, 0), id) &&
          std::binary_search(unseen.begin(), unseen.end(), store_detail::id_hash_of(id)))
        gone.emplace_back(r.text(row, 0));
    }
    writer.exec(sql("DELETE FROM @ WHERE id = ANY($1::text[])", tables[kind]).c_str(),
                {postgres_detail::text_array(gone)});
    digests.counts.removed += gone.size();
  }

  // Rolls back an open save and begins a transaction for a new one; with `emptied` every table
  // is emptied within it, otherwise the digests of what the tables hold are made known.
  void begin_transaction(bool emptied) {
    if (state != phase::idle) abandon();  // the open save changed the digests in place
    writer.rollback_quietly();
    state = phase::abandoned;
    digests.counts = {};
    try {
      begin_with_reconnect();
      if (emptied) {
        // DELETE, not TRUNCATE: readers keep seeing the previous save until the commit.
        std::string all = "DELETE FROM workflow_results; DELETE FROM workflow_sequence";
        for (const char* table : tables) all += std::string("; DELETE FROM ") + table;
        writer.exec(all);
        digests.rebuild_empty();
      } else {
        for (std::size_t kind = 0; kind < std::size(tables); ++kind) {
          if (!digests[kind].known()) rebuild_digests(kind);
        }
      }
    } catch (...) {
      abandon();
      throw;
    }
    state = phase::saving;
  }

  // Begins the save's transaction; a connection found lost on the way (the server restarted
  // since the last save) is opened again once, as nothing of the save was sent yet.
  void begin_with_reconnect() {
    const auto begin = [this] {
      writer.ensure_open();
      writer.exec(std::string("BEGIN; ") + staging);
    };
    try {
      begin();
    } catch (...) {
      if (!writer.lost()) throw;
      begin();
    }
  }

  // A read on the reading connection, tried again once on a new connection when the old one
  // turns out to be lost.
  template <class F>
  auto read(F&& body) {
    std::lock_guard<std::mutex> hold(read_lock);
    reader.ensure_open();
    try {
      return body();
    } catch (...) {
      if (!reader.lost()) throw;
    }
    reader.ensure_open();
    return body();
  }

  mutable std::mutex write_lock;
  connection writer;
  store_digests digests;  // of what the tables hold, and the counts of the save
  phase state = phase::idle;
  zelbase::encoder_network json;  // the JSON text of the record being written
  int copy_kind = -1;             // the kind whose COPY is open, or -1
  bool copy_direct = false;       // whether it goes straight into the kind's table
  std::string copy_rows;          // COPY text not yet handed to libpq

  std::mutex read_lock;
  connection reader;
};

postgres_state_db::postgres_state_db(const std::string& conninfo)
    : impl_(std::make_unique<impl>(conninfo)) {}

postgres_state_db::~postgres_state_db() { impl_->writer.rollback_quietly(); }

const std::string& postgres_state_db::server() const noexcept { return impl_->writer.server(); }

void postgres_state_db::clear() {
  std::lock_guard<std::mutex> hold(impl_->write_lock);
  impl_->begin_transaction(true);
  // Committed as a save without records; a failure abandons it as it would a save.
  impl_->write_unlocked([] {}, true);
}

void postgres_state_db::begin_save() {
  std::lock_guard<std::mutex> hold(impl_->write_lock);
  impl_->begin_transaction(false);
}

save_counts postgres_state_db::last_save_counts() const {
  std::lock_guard<std::mutex> hold(impl_->write_lock);
  return impl_->digests.counts;
}

std::size_t postgres_state_db::digest_memory_bytes() const {
  std::lock_guard<std::mutex> hold(impl_->write_lock);
  return impl_->digests.memory_bytes();
}

void postgres_state_db::store_item(db_item_type type, const std::string& id,
                                   const zelcore::properties& record) {
  const std::size_t kind = db_item_index(type, "state_db");
  impl_->write([&] {
    const bool saving = impl_->state == impl::phase::saving;
    impl_->digests.store(kind, id, record, saving, [&] {
      zelbase::encoder_network& json = impl_->json;
      json.clear();
      store_detail::write_json(record, json, store_detail::json_nul::as_bytes);
      if (saving) {
        impl_->start_copy(kind);
        impl_->copy_row(id, json.view());
        return;
      }
      impl_->writer.exec(sql("INSERT INTO @(id, record) VALUES($1, $2) ON CONFLICT (id)"
                             " DO UPDATE SET record = EXCLUDED.record",
                             tables[kind])
                             .c_str(),
                         {postgres_detail::encode_id(id), std::string(json.view())});
    });
  });
}

void postgres_state_db::remove_item(db_item_type type, const std::string& id) {
  const std::size_t kind = db_item_index(type, "state_db");
  impl_->write([&] {
    impl_->end_copy();
    impl_->digests.removed(kind, impl_->state == impl::phase::saving);
    impl_->writer.exec(sql("DELETE FROM @ WHERE id = $1", tables[kind]).c_str(),
                       {postgres_detail::encode_id(id)});
  });
}

void postgres_state_db::store_workflow_results(const workflow_result_map& results) {
  impl_->write([&] {
    impl_->end_copy();
    impl_->writer.exec("DELETE FROM workflow_results");
    if (results.empty()) return;
    std::string rows;
    for (const auto& [id, result] : results) {
      // As workflow_result_info::encode writes them.
      postgres_detail::append_copy_row(
          rows,
          {postgres_detail::encode_id(id), std::to_string(static_cast<std::int32_t>(result.status)),
           std::to_string(std::int64_t{result.ht})});
    }
    impl_->writer.copy_begin("COPY workflow_results(id, status, ht) FROM STDIN");
    impl_->writer.copy_put(rows);
    impl_->writer.copy_end();
  });
}

void postgres_state_db::store_workflow_sequence_number(std::uint64_t sequence_number) {
  impl_->write(
      [&] {
        impl_->end_copy();
        if (impl_->state == impl::phase::saving) {
          for (std::size_t kind = 0; kind < std::size(tables); ++kind) impl_->remove_unseen(kind);
        }
        impl_->writer.exec("DELETE FROM workflow_sequence; INSERT INTO workflow_sequence VALUES(" +
                           std::to_string(static_cast<std::int64_t>(sequence_number)) + ")");
      },
      true);
}

properties_cptr postgres_state_db::load_items(db_item_type type) {
  const std::size_t kind = db_item_index(type, "state_db");
  return impl_->read([&] {
    const result r = impl_->reader.exec(sql("SELECT id, record::text FROM @", tables[kind]));
    zelcore::properties::container children;
    children.reserve(static_cast<std::size_t>(r.rows()));
    store_detail::shared_strings strings;  // the records of a kind repeat users, nodes, states
    std::string id;
    for (int row = 0; row < r.rows(); ++row) {
      if (!postgres_detail::decode_id(r.text(row, 0), id))
        impl_->reader.fail("malformed id in table " + std::string(tables[kind]));
      children.emplace_back(
          id, zelcore::property_ptr(new zelcore::properties(postgres_detail::decode_record(
                  impl_->reader, tables[kind], id, r.text(row, 1), &strings))));
    }
    return properties_cptr(new zelcore::properties(std::move(children)));
  });
}

bool postgres_state_db::load_item(db_item_type type, const std::string& id,
                                  zelcore::properties& out) {
  const std::size_t kind = db_item_index(type, "state_db");
  return impl_->read([&] {
    const result r =
        impl_->reader.exec(sql("SELECT record::text FROM @ WHERE id = $1", tables[kind]).c_str(),
                           {postgres_detail::encode_id(id)});
    if (r.rows() == 0) return false;
    out = postgres_detail::decode_record(impl_->reader, tables[kind], id, r.text(0, 0));
    return true;
  });
}

properties_cptr postgres_state_db::load_workflow_results() {
  return impl_->read([&] {
    const result r = impl_->reader.exec("SELECT id, status, ht FROM workflow_results");
    zelcore::properties::container children;
    std::string id;
    for (int row = 0; row < r.rows(); ++row) {
      if (!postgres_detail::decode_id(r.text(row, 0), id))
        impl_->reader.fail("malformed id in table workflow_results");
      zelcore::properties result{{"ht", zelcore::make_int(r.integer(row, 2))},
                                 {"st", zelcore::make_int(r.integer(row, 1))}};
      children.emplace_back(id, zelcore::property_ptr(new zelcore::properties(std::move(result))));
    }
    return properties_cptr(new zelcore::properties(std::move(children)));
  });
}

std::uint64_t postgres_state_db::load_workflow_sequence_number() {
  return impl_->read([&] {
    const result r = impl_->reader.exec("SELECT number FROM workflow_sequence LIMIT 1");
    return r.rows() ? static_cast<std::uint64_t>(r.integer(0, 0)) : std::uint64_t{0};
  });
}

bool postgres_state_db::has_saved_state() {
  return impl_->read(
      [&] { return impl_->reader.exec("SELECT 1 FROM workflow_sequence LIMIT 1").rows() > 0; });
}

}  // namespace zelcapi
