// The SQLite state_db: one transaction per save on a writing connection, loads on a second
// connection that sees the last committed save.
#include <algorithm>
#include <array>
#include <mutex>
#include <utility>

#include "json_record.h"
#include "record_digests.h"
#include "sqlite_file.h"
#include "zelcapi/memory_db.h"
#include "zelcapi/sqlite_db.h"

namespace zelcapi {

using sqlite_detail::connection;
using sqlite_detail::reset_on_exit;
using sqlite_detail::statement;
using store_detail::store_digests;

namespace {

const char* const tables[8] = {"clients", "nodes", "submissions", "sources",
                               "slots",   "jobs",  "tasks",       "workflows"};

constexpr const char* schema =
    "CREATE TABLE IF NOT EXISTS clients(id TEXT PRIMARY KEY NOT NULL, record TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS nodes(id TEXT PRIMARY KEY NOT NULL, record TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS submissions(id TEXT PRIMARY KEY NOT NULL, record TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS sources(id TEXT PRIMARY KEY NOT NULL, record TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS slots(id TEXT PRIMARY KEY NOT NULL, record TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS jobs(id TEXT PRIMARY KEY NOT NULL, record TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS tasks(id TEXT PRIMARY KEY NOT NULL, record TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS workflows(id TEXT PRIMARY KEY NOT NULL, record TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS workflow_results(id TEXT PRIMARY KEY NOT NULL,"
    " status INTEGER NOT NULL, ht INTEGER NOT NULL);"
    "CREATE TABLE IF NOT EXISTS workflow_sequence(number INTEGER NOT NULL);";

// The statements of each kind's table, in kind order.
template <class Kind, std::size_t... Index>
std::array<Kind, 8> per_kind(connection& db, std::index_sequence<Index...>) {
  return {{Kind(db, tables[Index])...}};
}

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

struct sqlite_state_db::impl {
  // The statements of one kind's table on the writing connection.
  struct kind_writes {
    kind_writes(connection& db, const char* table)
        : insert(db, sql("INSERT OR REPLACE INTO @(id, record) VALUES(?1, ?2)", table).c_str()),
          remove(db, sql("DELETE FROM @ WHERE id = ?1", table).c_str()),
          remove_all(db, sql("DELETE FROM @", table).c_str()),
          ids(db, sql("SELECT id FROM @", table).c_str()),
          records(db, sql("SELECT id, record FROM @", table).c_str()) {}
    statement insert, remove, remove_all, ids, records;
  };
  // The statements of one kind's table on the reading connection.
  struct kind_reads {
    kind_reads(connection& db, const char* table)
        : all(db, sql("SELECT id, record FROM @ ORDER BY id", table).c_str()),
          one(db, sql("SELECT record FROM @ WHERE id = ?1", table).c_str()) {}
    statement all, one;
  };
  enum class phase { idle, saving, abandoned };

  impl(const std::string& path, const sqlite_options& options)
      : writer(path, options, schema),
        writes(per_kind<kind_writes>(writer, std::make_index_sequence<8>())),
        results_remove_all(writer, "DELETE FROM workflow_results"),
        results_insert(writer, "INSERT OR REPLACE INTO workflow_results VALUES(?1, ?2, ?3)"),
        sequence_remove_all(writer, "DELETE FROM workflow_sequence"),
        sequence_insert(writer, "INSERT INTO workflow_sequence VALUES(?1)"),
        begin(writer, "BEGIN IMMEDIATE"),
        commit(writer, "COMMIT"),
        reader(path, options, nullptr),
        reads(per_kind<kind_reads>(reader, std::make_index_sequence<8>())),
        results_all(reader, "SELECT id, status, ht FROM workflow_results ORDER BY id"),
        sequence_one(reader, "SELECT number FROM workflow_sequence LIMIT 1"),
        sequence_count(reader, "SELECT count(*) FROM workflow_sequence") {}

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
      if (own) begin.run();
      body();
      if (own || completes) commit.run();
    } catch (...) {
      writer.rollback_quietly();
      if (!own) state = phase::abandoned;
      digests.forget();
      throw;
    }
    if (completes) {
      state = phase::idle;
      if (!own) digests.commit_save();
    }
  }

  // Reads the digests of what a kind's table holds, inside the save's transaction.
  void rebuild_digests(std::size_t kind) {
    std::vector<store_detail::record_digest> entries;
    statement& records = writes[kind].records;
    reset_on_exit done(records);
    while (records.step()) {
      const std::string_view id = records.text(0);
      entries.push_back(store_detail::digest_of(
          id, sqlite_detail::decode_record(writer, tables[kind], id, records.text(1))));
    }
    digests[kind].rebuild(std::move(entries));
  }

  // Deletes the stored records of a kind that the save did not hold: every row whose id's hash
  // the save has not seen (found by reading the ids, which only a save with removals does).
  void remove_unseen(std::size_t index) {
    kind_writes& kind = writes[index];
    const std::vector<std::uint64_t> unseen = digests[index].unseen();
    if (unseen.empty()) return;
    std::vector<std::string> gone;
    {
      reset_on_exit done(kind.ids);
      while (kind.ids.step()) {
        const std::string_view id = kind.ids.text(0);
        if (std::binary_search(unseen.begin(), unseen.end(), store_detail::id_hash_of(id)))
          gone.emplace_back(id);
      }
    }
    for (const std::string& id : gone) {
      kind.remove.bind(1, id);
      kind.remove.run();
    }
    digests.counts.removed += gone.size();
  }

  // Rolls back an open save and begins a transaction for a new one; with `emptied` every table
  // is emptied within it, otherwise the digests of what the tables hold are made known.
  void begin_transaction(bool emptied) {
    writer.rollback_quietly();
    if (state != phase::idle) digests.forget();  // the open save changed them in place
    state = phase::abandoned;
    digests.counts = {};
    try {
      begin.run();
      if (emptied) {
        remove_all();
        digests.rebuild_empty();
      } else {
        for (std::size_t kind = 0; kind < writes.size(); ++kind) {
          if (!digests[kind].known()) rebuild_digests(kind);
        }
      }
    } catch (...) {
      writer.rollback_quietly();
      digests.forget();
      throw;
    }
    state = phase::saving;
  }

  void remove_all() {
    for (kind_writes& kind : writes) kind.remove_all.run();
    results_remove_all.run();
    sequence_remove_all.run();
  }

  std::mutex write_lock;
  connection writer;
  std::array<kind_writes, 8> writes;
  statement results_remove_all, results_insert, sequence_remove_all, sequence_insert;
  statement begin, commit;
  phase state = phase::idle;
  store_digests digests;            // of what the tables hold, and the counts of the save
  zelbase::encoder_network buffer;  // the JSON text of the record being written

  std::mutex read_lock;
  connection reader;
  std::array<kind_reads, 8> reads;
  statement results_all, sequence_one, sequence_count;
};

sqlite_state_db::sqlite_state_db(const std::string& path, const sqlite_options& options)
    : impl_(std::make_unique<impl>(path, options)) {}

sqlite_state_db::~sqlite_state_db() { impl_->writer.rollback_quietly(); }

const std::string& sqlite_state_db::path() const noexcept { return impl_->writer.path(); }

void sqlite_state_db::clear() {
  std::lock_guard<std::mutex> hold(impl_->write_lock);
  impl_->begin_transaction(true);
  // Committed as a save without records; a failure abandons it as it would a save.
  impl_->write_unlocked([] {}, true);
}

void sqlite_state_db::begin_save() {
  std::lock_guard<std::mutex> hold(impl_->write_lock);
  impl_->begin_transaction(false);
}

save_counts sqlite_state_db::last_save_counts() const {
  std::lock_guard<std::mutex> hold(impl_->write_lock);
  return impl_->digests.counts;
}

std::size_t sqlite_state_db::digest_memory_bytes() const {
  std::lock_guard<std::mutex> hold(impl_->write_lock);
  return impl_->digests.memory_bytes();
}

void sqlite_state_db::store_item(db_item_type type, const std::string& id,
                                 const zelcore::properties& record) {
  const std::size_t kind = db_item_index(type, "state_db");
  impl_->write([&] {
    impl_->digests.store(kind, id, record, impl_->state == impl::phase::saving, [&] {
      zelbase::encoder_network& json = impl_->buffer;
      json.clear();
      store_detail::write_json(record, json);
      statement& insert = impl_->writes[kind].insert;
      insert.bind(1, id);
      insert.bind(2, json.view());
      insert.run();
    });
  });
}

void sqlite_state_db::remove_item(db_item_type type, const std::string& id) {
  const std::size_t kind = db_item_index(type, "state_db");
  impl_->write([&] {
    impl_->digests.removed(kind, impl_->state == impl::phase::saving);
    statement& remove = impl_->writes[kind].remove;
    remove.bind(1, id);
    remove.run();
  });
}

void sqlite_state_db::store_workflow_results(const workflow_result_map& results) {
  impl_->write([&] {
    impl_->results_remove_all.run();
    statement& insert = impl_->results_insert;
    for (const auto& [id, result] : results) {
      // As workflow_result_info::encode writes them.
      insert.bind(1, id);
      insert.bind(2, std::int64_t{static_cast<std::int32_t>(result.status)});
      insert.bind(3, std::int64_t{result.ht});
      insert.run();
    }
  });
}

void sqlite_state_db::store_workflow_sequence_number(std::uint64_t sequence_number) {
  impl_->write(
      [&] {
        if (impl_->state == impl::phase::saving) {
          for (std::size_t kind = 0; kind < impl_->writes.size(); ++kind)
            impl_->remove_unseen(kind);
        }
        impl_->sequence_remove_all.run();
        impl_->sequence_insert.bind(1, static_cast<std::int64_t>(sequence_number));
        impl_->sequence_insert.run();
      },
      true);
}

properties_cptr sqlite_state_db::load_items(db_item_type type) {
  const std::size_t kind = db_item_index(type, "state_db");
  std::lock_guard<std::mutex> hold(impl_->read_lock);
  statement& all = impl_->reads[kind].all;
  reset_on_exit done(all);
  zelcore::properties::container children;
  store_detail::shared_strings strings;  // the records of a kind repeat users, nodes, states
  while (all.step()) {
    const std::string_view id = all.text(0);
    children.emplace_back(
        std::string(id), zelcore::property_ptr(new zelcore::properties(sqlite_detail::decode_record(
                             impl_->reader, tables[kind], id, all.text(1), &strings))));
  }
  return properties_cptr(new zelcore::properties(std::move(children)));
}

bool sqlite_state_db::load_item(db_item_type type, const std::string& id,
                                zelcore::properties& out) {
  const std::size_t kind = db_item_index(type, "state_db");
  std::lock_guard<std::mutex> hold(impl_->read_lock);
  statement& one = impl_->reads[kind].one;
  reset_on_exit done(one);
  one.bind(1, id);
  if (!one.step()) return false;
  out = sqlite_detail::decode_record(impl_->reader, tables[kind], id, one.text(0));
  return true;
}

properties_cptr sqlite_state_db::load_workflow_results() {
  std::lock_guard<std::mutex> hold(impl_->read_lock);
  statement& all = impl_->results_all;
  reset_on_exit done(all);
  zelcore::properties::container children;
  while (all.step()) {
    zelcore::properties result{{"ht", zelcore::make_int(all.integer(2))},
                               {"st", zelcore::make_int(all.integer(1))}};
    children.emplace_back(std::string(all.text(0)),
                          zelcore::property_ptr(new zelcore::properties(std::move(result))));
  }
  return properties_cptr(new zelcore::properties(std::move(children)));
}

std::uint64_t sqlite_state_db::load_workflow_sequence_number() {
  std::lock_guard<std::mutex> hold(impl_->read_lock);
  statement& one = impl_->sequence_one;
  reset_on_exit done(one);
  return one.step() ? static_cast<std::uint64_t>(one.integer(0)) : 0;
}

bool sqlite_state_db::has_saved_state() {
  std::lock_guard<std::mutex> hold(impl_->read_lock);
  statement& count = impl_->sequence_count;
  reset_on_exit done(count);
  return count.step() && count.integer(0) > 0;
}

}  // namespace zelcapi
